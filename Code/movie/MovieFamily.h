#pragma once

#include <QtGlobal>

class QIODevice;

namespace Tern {

struct RecoveryRecordLayout;

// How a ProRes sample description names the codec for one family: data format and compressor name
// chosen from the codec type (2 = 4444 family, anything else = 422 family) and the recorder's variant.
struct ProResName
{
    quint32 dataFormat;
    const char* compressorName;
};
using ProResNamer = ProResName (*)(quint32 codecType, quint32 variant);

// Everything that differs between the two recorder families, in one place. The movie library is
// shared; each QuickTimeFile points at the description of the family it writes or finishes.
struct MovieFamily
{
    const char* name;

    // Reserved region at the start of an unfinished recording.
    qint64 recoverySettingsPos;
    qint64 recoveryFrameMapPos;
    const RecoveryRecordLayout* recoveryRecord; // size and tail layout of the settings record
    bool regionInUserData; // Tern: 'ftyp' + 'udta'/'urec'; Heron: one oversized 'ftyp' spanning the region

    // Finishing the index.
    quint32 minimumChunks;         // recover() refuses a recording with fewer frame-map entries
    // The chunking a recorder that keeps no chunk counts in its record always writes (0: the record says).
    quint32 fixedSamplesPerChunk;
    quint32 fixedFramesPerChunk;
    bool closeAppendsTimecodeSample; // closeFile() first appends a 512-byte timecode sample to 'mdat'
    bool writesEditList;           // tracks carry 'edts'/'elst'
    bool proResCleanAperture;      // ProRes description carries a 'clap' extension (174-byte entry)
    ProResNamer proResName;
    bool logsChunkOffsetProgress;  // 'co64' writer logs "stream ..." / "done streaming ..."

    // Reading.
    bool readsExtendedFormats; // 'ap4x' and 'in31' are known sample-description formats

    const char* sourceName; // names the library in log contexts
};

extern const MovieFamily ternFamily;
extern const MovieFamily heronFamily;

// The family of a recording by the size of its first atom: Heron's oversized 'ftyp' spans the reserved
// region, Tern's is 20 bytes.
const MovieFamily& familyByFirstAtomSize(quint32 firstAtomSize);
// The same, read from the first bytes of `device` (its position moves); null when they cannot be read.
const MovieFamily* familyOfRecording(QIODevice& device);

} // namespace Tern
