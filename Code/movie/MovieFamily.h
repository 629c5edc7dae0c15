#pragma once

#include <QtGlobal>

#include <array>

class QIODevice;

namespace Tern {

class QuickTimeFile;
struct RecoveryRecordLayout;
struct RecoverySettings;

// How a ProRes sample description names the codec for one family: data format and compressor name
// chosen from the codec type (2 = 4444 family, anything else = 422 family) and the recorder's variant.
struct ProResName
{
    quint32 dataFormat;
    const char* compressorName;
};
using ProResNamer = ProResName (*)(quint32 codecType, quint32 variant);

// Everything that differs between the recorder families, in one place. The movie library is shared;
// each QuickTimeFile points at the description of the family it writes or finishes, and the driver, the
// procedures, the recording simulator, --info and the tests ask the description rather than knowing a
// family themselves. A family of its own needs its description here, its procedure (Finalize) and its
// recorder in the simulator.
struct MovieFamily
{
    const char* name; // as the report and the outcomes name the family

    // Telling the families apart: a recording whose first atom is at least this many bytes long (and
    // shorter than the next family's) is this family's.
    quint32 firstAtomSizeFrom;
    // The driver's code for the family's files (getFileType) and the procedure it hands them to.
    int fileType;
    // The family's recorder also writes sound alone, as WAV files the driver hands to its procedure; its
    // family is also the one a file whose first atom cannot be read is reported under.
    bool recordsSoundFiles;
    // The family's movie objects keep their frame map in storage the caller hands them (the driver's work
    // buffer) rather than their own.
    bool mapInCallerStorage;
    // A movie object of the family on `device`, with `workBuffer` (2,736,000 entries) as its frame map
    // when mapInCallerStorage; otherwise `workBuffer` is not used and may be null.
    QuickTimeFile* (*newMovie)(QIODevice& device, quint16* workBuffer);

    // Reserved region at the start of an unfinished recording.
    qint64 recoverySettingsPos;
    qint64 recoveryFrameMapPos;
    qint64 movieDataHeaderPos;   // the 'mdat' header, at the region's end
    qint64 movieDataStartOffset; // the first media byte
    const RecoveryRecordLayout* recoveryRecord; // size and tail layout of the settings record
    bool regionInUserData; // Tern: 'ftyp' + 'udta'/'urec'; Heron: one oversized 'ftyp' spanning the region

    // Finishing the index.
    // The procedure gives a recording up before recovering it when its record says 0 frames a chunk, a
    // frame rate, width or height of 0, or what no index can be built from (the other family leaves
    // those to recover()).
    bool refusesIncompleteSettings;
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
    // The table check continues a finished movie's maker list that ends early (chunks of unknown type are
    // listed but not counted) with the recorder's frame map, which stays whole in the reserved region.
    bool checkReadsRegionMap;

    const char* sourceName; // names the library in log contexts

    // The chunking of a recording with settings `s`: the family's fixed one, or what the record says.
    quint32 samplesPerChunk(const RecoverySettings& s) const;
    quint32 framesPerChunk(const RecoverySettings& s) const;
};

extern const MovieFamily ternFamily;
extern const MovieFamily heronFamily;

// Every family, in the order of their first-atom sizes.
const std::array<const MovieFamily*, 2>& movieFamilies();

// The family of a recording by the size of its first atom: Heron's oversized 'ftyp' spans the reserved
// region, Tern's is 20 bytes.
const MovieFamily& familyByFirstAtomSize(quint32 firstAtomSize);
// The family whose recorder writes sound files: theirs, and the one the driver names for a file whose
// family it cannot read.
const MovieFamily& soundFileFamily();
// The family the driver codes `fileType`; null for another code.
const MovieFamily* familyOfFileType(int fileType);
// The same, read from the first bytes of `device` (its position moves); null when they cannot be read.
const MovieFamily* familyOfRecording(QIODevice& device);

} // namespace Tern
