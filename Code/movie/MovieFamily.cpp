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

// A first atom at least this large is Heron's oversized 'ftyp'.
const quint32 s_heronFirstAtomMinimum = 128;

} // namespace

const MovieFamily& familyByFirstAtomSize(quint32 firstAtomSize)
{
    return firstAtomSize < s_heronFirstAtomMinimum ? ternFamily : heronFamily;
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
    QuickTimeFile::s_recoverySettingsPos,
    QuickTimeFile::s_recoveryFrameMapPos,
    &RecoverySettings::s_ternLayout,
    true, // regionInUserData
    s_ternMinimumChunks,
    0, // fixedSamplesPerChunk: the record says
    0, // fixedFramesPerChunk
    false, // closeAppendsTimecodeSample
    true,  // writesEditList
    false, // proResCleanAperture
    ternProResName,
    true, // logsChunkOffsetProgress
    true, // readsExtendedFormats
    "QuickTimeFileTern",
};

const MovieFamily heronFamily = {
    "Heron",
    ::QuickTimeFile::s_recoverySettingsPos,
    ::QuickTimeFile::s_recoveryFrameMapPos,
    &RecoverySettings::s_heronLayout,
    false, // regionInUserData
    s_heronMinimumChunks,
    s_heronSamplesPerChunk,
    s_heronFramesPerChunk,
    true,  // closeAppendsTimecodeSample
    false, // writesEditList
    true,  // proResCleanAperture
    heronProResName,
    false, // logsChunkOffsetProgress
    false, // readsExtendedFormats
    "QuickTimeFile",
};

} // namespace Tern
