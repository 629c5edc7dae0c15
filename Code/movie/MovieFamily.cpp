#include "movie/MovieFamily.h"

#include "movie/QuickTimeAtom.h"
#include "movie/HeronQuickTimeFile.h"
#include "movie/QuickTimeFile.h"
#include "movie/RecoverySettings.h"

#include <QIODevice>
#include <QtEndian>

namespace Tern {

namespace {

// Tern refuses to finish a recording with fewer frame-map entries than this.
const quint32 s_ternMinimumChunks = 30;

const quint32 s_heronMinimumChunks = 0; // Heron finishes a recording whatever its entry count

// Heron's record has no chunk counts: its recorder always writes 3 frames and 3,072 samples a chunk.
const quint32 s_heronSamplesPerChunk = 3072;
const quint32 s_heronFramesPerChunk = 3;

const quint32 s_proRes4444Family = 2;

// Tern numbers the 422 variants from 1 and knows 4444 XQ as variant 0 of the 4444 family.
ProResName ternProResName(quint32 codecType, quint32 variant)
{
    if (codecType == s_proRes4444Family) {
        if (variant == 0)
            return {fourCC("ap4x"), "Apple ProRes 4444 XQ"};
        return {fourCC("ap4h"), "Apple ProRes 4444"};
    }
    switch (variant) {
    case 1:
        return {fourCC("apch"), "Apple ProRes 422 HQ"};
    case 2:
        return {fourCC("apcn"), "Apple ProRes 422"};
    case 3:
        return {fourCC("apcs"), "Apple ProRes 422 LT"};
    case 4:
        return {fourCC("apco"), "Apple ProRes 422 Proxy"};
    default:
        // The HQ code with the plain name: what the recorder's players have always been given.
        return {fourCC("apch"), "Apple ProRes 422"};
    }
}

// Heron numbers the 422 variants from 0 and has no 4444 XQ.
ProResName heronProResName(quint32 codecType, quint32 variant)
{
    if (codecType == s_proRes4444Family)
        return {fourCC("ap4h"), "Apple ProRes 4444"};
    switch (variant) {
    case 0:
        return {fourCC("apch"), "Apple ProRes 422 (HQ)"};
    case 1:
        return {fourCC("apcn"), "Apple ProRes 422"};
    case 2:
        return {fourCC("apcs"), "Apple ProRes 422 (LT)"};
    case 3:
        return {fourCC("apco"), "Apple ProRes 422 (Proxy)"};
    default:
        return {fourCC("apch"), "Apple ProRes 422"};
    }
}

// Both families end the reserved region alike: the frame map (2,736,000 two-byte entries), then zeros up
// to the 16-byte 'mdat' header at 0x537FF0; the media start behind it, at 0x538000.
const qint64 s_sharedMovieDataHeaderPos = 5472240;
const qint64 s_sharedMovieDataStart = 5472256; // behind the 'mdat' header

// A first atom at least this large is Heron's oversized 'ftyp'.
const quint32 s_heronFirstAtomMinimum = 128;

// The driver's family codes (getFileType); 2 means a file that could not be read.
const int s_heronFileType = 0;
const int s_ternFileType = 1;

// Tern movies keep their frame map in storage of their own.
QuickTimeFile* newTernMovie(QIODevice& device, quint16*)
{
    return new QuickTimeFile(device);
}

// Heron movies keep theirs in the storage the driver hands them.
QuickTimeFile* newHeronMovie(QIODevice& device, quint16* workBuffer)
{
    return new ::QuickTimeFile(device, workBuffer);
}

} // namespace

quint32 MovieFamily::samplesPerChunk(const RecoverySettings& s) const
{
    return fixedSamplesPerChunk != 0 ? fixedSamplesPerChunk : s.audioSamplesPerChunk;
}

quint32 MovieFamily::framesPerChunk(const RecoverySettings& s) const
{
    return fixedFramesPerChunk != 0 ? fixedFramesPerChunk : s.videoFramesPerChunk;
}

const std::array<const MovieFamily*, 2>& movieFamilies()
{
    static const std::array<const MovieFamily*, 2> families = {&ternFamily, &heronFamily};
    return families;
}

const MovieFamily& familyByFirstAtomSize(quint32 firstAtomSize)
{
    const MovieFamily* found = movieFamilies().front();
    for (const MovieFamily* family : movieFamilies()) {
        if (firstAtomSize >= family->firstAtomSizeFrom)
            found = family;
    }
    return *found;
}

const MovieFamily& soundFileFamily()
{
    for (const MovieFamily* family : movieFamilies()) {
        if (family->recordsSoundFiles)
            return *family;
    }
    return *movieFamilies().front();
}

const MovieFamily* familyOfFileType(int fileType)
{
    for (const MovieFamily* family : movieFamilies()) {
        if (family->fileType == fileType)
            return family;
    }
    return nullptr;
}

const MovieFamily* familyOfRecording(QIODevice& device)
{
    uchar first[4];
    if (!device.seek(0) || device.read(reinterpret_cast<char*>(first), 4) != 4)
        return nullptr;
    return &familyByFirstAtomSize(qFromBigEndian<quint32>(first));
}

const MovieFamily ternFamily = {
    "Tern",
    0, // firstAtomSizeFrom: a 20-byte 'ftyp'
    s_ternFileType,
    false, // recordsSoundFiles
    false, // mapInCallerStorage
    newTernMovie,
    36, // recoverySettingsPos: behind the 20-byte 'ftyp' and the 'udta' and 'urec' headers
    156, // recoveryFrameMapPos: behind the 120-byte settings record
    s_sharedMovieDataHeaderPos,
    s_sharedMovieDataStart,
    &RecoverySettings::s_ternLayout,
    true, // regionInUserData
    true, // refusesIncompleteSettings
    s_ternMinimumChunks,
    0, // fixedSamplesPerChunk: the record says
    0, // fixedFramesPerChunk
    false, // closeAppendsTimecodeSample
    true,  // writesEditList
    false, // proResCleanAperture
    ternProResName,
    true, // logsChunkOffsetProgress
    true, // readsExtendedFormats
    true, // checkReadsRegionMap
    "QuickTimeFileTern",
};

const MovieFamily heronFamily = {
    "Heron",
    s_heronFirstAtomMinimum,
    s_heronFileType,
    true, // recordsSoundFiles
    true, // mapInCallerStorage
    newHeronMovie,
    20, // recoverySettingsPos: behind the 20-byte header of the oversized 'ftyp'
    128, // recoveryFrameMapPos: behind the 108-byte settings record
    s_sharedMovieDataHeaderPos,
    s_sharedMovieDataStart,
    &RecoverySettings::s_heronLayout,
    false, // regionInUserData
    false, // refusesIncompleteSettings
    s_heronMinimumChunks,
    s_heronSamplesPerChunk,
    s_heronFramesPerChunk,
    true,  // closeAppendsTimecodeSample
    false, // writesEditList
    true,  // proResCleanAperture
    heronProResName,
    false, // logsChunkOffsetProgress
    false, // readsExtendedFormats
    false, // checkReadsRegionMap
    "QuickTimeFile",
};

} // namespace Tern
