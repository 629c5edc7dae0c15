#pragma once

#include "SynthesizedRecording.h"

#include <QByteArray>
#include <QIODevice>

#include <cstddef>
#include <cstdint>

// What the recovery targets share: reading a recording's description from an input, the finalize
// procedures' own calls up to and including recover, and the promises a recovery is held to.
namespace RecoveryHarness {

// Byte 0: bit 1 asks for the map to be repeated, bit 0 and bits 2-7 (bit 0 lowest) number the family in
// the order of Tern::movieFamilies(), modulo their count (with 0 Tern and 1 Heron, bit 0 alone); bytes 1-4
// the media length in 512-byte blocks (little-endian, capped); then the family's settings record (120
// bytes Tern, 108 Heron; zero-padded when the input is short); the rest is the start of the frame map as
// stored (little-endian entries).
struct Input
{
    SynthesizedRecording::Family family = &Tern::ternFamily;
    bool repeatMap = false;
    qint64 mediaBytes = 0;
    QByteArray record;
    QByteArray map;
};

Input readInput(const uint8_t* data, size_t size);

// How much of the map a map asked to be repeated fills, where a target does not fill all of it: 65,536
// entries, a hundredth of the cost of a full map.
constexpr qint64 kRepeatedMapBytes = 65536 * 2;

// What a finish learned of the recording's settings, for the checks.
struct Finish
{
    bool recovered = false;
    quint64 recordedEnd = 0;
    bool soundSizesOverstated = false; // a record of 0 bytes per sample
};

// Runs the family's procedure on `device` up to and including recover, as the finalizer does:
// verifyHeader, initFile, loadSavedSettings, the procedure's check and copy of the settings, recover
// (which runs closeFile).
Finish finish(SynthesizedRecording::Family family, QIODevice& device);

// Nothing was written into the reserved region (but the 'mdat' header) or the media before the recorded
// end; a successful recovery left a closed 'mdat' that ends where a 'moov' begins whose size is what was
// written, and read back nothing the device did not keep.
void checkRecovery(const SynthesizedRecording& device, const Input& input, const Finish& result);

// A recovery target's run of one input: the recording synthesized with `mapBytes` of its map filled by
// the given entries (see SynthesizedRecording), finished, and checked.
void recoverAndCheck(const Input& input, qint64 mapBytes, qint64 writeCapacity, qint64 keptBytes);

} // namespace RecoveryHarness
