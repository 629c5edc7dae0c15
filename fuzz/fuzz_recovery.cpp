// Recovery of an unfinished recording whose settings record and frame map come from the input, for both
// families, on a device that presents the whole 5.47 MB reserved region and the media without holding them.
// The input is read as RecoveryHarness::readInput describes.
//
// Built twice. fuzz_recovery repeats a map the input asks to repeat to 65,536 entries, where it ends.
// fuzz_recovery_full_map (CLIPWARD_FUZZ_FULL_MAP) always repeats it through all 2,736,000 entries, with
// no terminator: such a map takes a hundred times longer, so it has a target of its own, and its index
// runs to tens of megabytes, of which the device keeps only the start.
//
// Beyond memory safety, undefined behaviour and bounded time, the target holds recovery to its promises:
// nothing is written into the reserved region or into the media before the recorded end, and a recovery
// that reports success leaves a closed 'mdat' that ends where a 'moov' begins whose size is what was written.

#include "FuzzSupport.h"
#include "RecoveryHarness.h"

namespace {

#ifdef CLIPWARD_FUZZ_FULL_MAP
// Room for the largest index of a full map and then some; the full disk beyond it ends an index that
// would be larger still with a write error.
const qint64 kWriteCapacity = qint64(48) << 20;
const qint64 kKeptBytes = 64 * 1024;

qint64 mapBytes(const RecoveryHarness::Input&)
{
    return SynthesizedRecording::s_frameMapBytes;
}
#else
// Room for the index of any map this target makes.
const qint64 kWriteCapacity = qint64(8) << 20;
const qint64 kKeptBytes = qint64(1) << 20;

qint64 mapBytes(const RecoveryHarness::Input& input)
{
    return input.repeatMap ? RecoveryHarness::kRepeatedMapBytes : 0;
}
#endif

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    FuzzSupport::quietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const RecoveryHarness::Input input = RecoveryHarness::readInput(data, size);
    RecoveryHarness::recoverAndCheck(input, mapBytes(input), kWriteCapacity, kKeptBytes);
    return 0;
}
