#include "movie/InformationAtoms.h"

#include "movie/QuickTimeFile.h"

#include <cstring>

namespace Tern {

namespace {
const quint32 s_versionedHeaderSize = 12; // header, version byte, three flag bytes

// Total sizes of the fixed-layout atoms.
const quint32 s_videoInformationSize = 20;
const quint32 s_soundInformationSize = 16;
const quint32 s_baseMediaInformationSize = 24;
const quint32 s_timecodeInformationSize = 64;
const quint32 s_dataReferenceSize = 28;

const quint32 s_mediaInformationFlags = 0x000001; // "no lean ahead" on 'vmhd', 'smhd' and 'tcmi'
const char s_timecodeFontName[] = "System";
const int s_timecodeFontNameMaximum = 30;
} // namespace

// ---------------------------------------------------------------------------------------------------------
// 'vmhd', 'smhd', 'gmin'

QuickTimeVideoInformationAtom::QuickTimeVideoInformationAtom()
    : QuickTimeVersionFlagsAtom(fourCC("vmhd"), s_videoInformationSize - s_versionedHeaderSize, 0, 0,
                                s_mediaInformationFlags)
{
}

void QuickTimeVideoInformationAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << graphicsMode << opcolor[0] << opcolor[1] << opcolor[2];
}

QuickTimeSoundInformationAtom::QuickTimeSoundInformationAtom()
    : QuickTimeVersionFlagsAtom(fourCC("smhd"), s_soundInformationSize - s_versionedHeaderSize, 0, 0,
                                s_mediaInformationFlags)
{
}

void QuickTimeSoundInformationAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << balance << reserved;
}

QuickTimeBaseMediaInformationAtom::QuickTimeBaseMediaInformationAtom()
    : QuickTimeVersionFlagsAtom(fourCC("gmin"), s_baseMediaInformationSize - s_versionedHeaderSize, 0, 0, 0)
{
}

void QuickTimeBaseMediaInformationAtom::write(QDataStream& stream)
{
    // Payload before children, unlike the other versioned leaves.
    QuickTimeVersionFlagsAtom::writeHeader(stream);
    stream << graphicsMode << opcolor[0] << opcolor[1] << opcolor[2] << balance << reserved;
    writeChildren(stream);
}

// ---------------------------------------------------------------------------------------------------------
// 'tcmi'

QuickTimeTimecodeInformationAtom::QuickTimeTimecodeInformationAtom()
    : QuickTimeVersionFlagsAtom(fourCC("tcmi"), s_timecodeInformationSize - s_versionedHeaderSize, 0, 0,
                                s_mediaInformationFlags)
{
    const size_t length = qMin<size_t>(std::strlen(s_timecodeFontName), s_timecodeFontNameMaximum);
    fontName[0] = quint8(length);
    std::memcpy(fontName + 1, s_timecodeFontName, length);
}

void QuickTimeTimecodeInformationAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << textFont << textFace << textSize << reserved;
    stream << textColor[0] << textColor[1] << textColor[2];
    stream << backgroundColor[0] << backgroundColor[1] << backgroundColor[2];
    stream.writeRawData(reinterpret_cast<const char*>(fontName), s_fontNameSize);
}

// ---------------------------------------------------------------------------------------------------------
// 'dref'

QuickTimeDataReferenceAtom::QuickTimeDataReferenceAtom()
    : QuickTimeVersionFlagsAtom(fourCC("dref"), s_dataReferenceSize - s_versionedHeaderSize, 0, 0, 0)
    , entryType(fourCC("alis"))
{
}

void QuickTimeDataReferenceAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << entryCount << entrySize << entryType << entryVersion << entryFlags[0] << entryFlags[1]
           << entryFlags[2];
}

// ---------------------------------------------------------------------------------------------------------
// 'hldn'

QuickTimeHaldenAtom::QuickTimeHaldenAtom(QuickTimeFile* movie)
    : QuickTimeVersionFlagsAtom(fourCC("hldn"), s_fixedPayloadSize, 0, 0, 0)
    , movieFile(movie)
{
    file = movie;
    if (!movie)
        return;
    interlaced = movie->interlaced;
    frameCount = movie->totalFrames();
    videoFrames = movie->videoFrames();
    audioFrames = movie->audioFrames();
    timecodeFrames = movie->timecodeSamples;
    std::memcpy(userData, movie->userData, sizeof userData);
    addSize(2 * frameCount);
}

void QuickTimeHaldenAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << constant << interlaced << frameCount << videoFrames << audioFrames << timecodeFrames;
    for (quint32 value : userData)
        stream << value;
    stream << marker;
    const char reservedBytes[s_reservedSize] = {};
    stream.writeRawData(reservedBytes, s_reservedSize);

    // The whole 16-bit entries (type and block count): a reader rebuilds the frame map from them.
    const quint16* map = movieFile ? movieFile->frameMap : nullptr;
    for (quint32 i = 0; i < frameCount; ++i)
        stream << (map ? map[i] : quint16(0));
}

// ---------------------------------------------------------------------------------------------------------
// 'uset'

QuickTimeUserSettingsAtom::QuickTimeUserSettingsAtom(QuickTimeFile* movie)
    : QuickTimeVersionFlagsAtom(fourCC("uset"), 0, 0, 0, 0)
    , movieFile(movie)
{
    file = movie;
    if (movie)
        text = movie->userSettings;
    addSize(quint32(text.size()));
}

void QuickTimeUserSettingsAtom::write(QDataStream& stream)
{
    QuickTimeVersionFlagsAtom::write(stream);
    stream << text;
}

// ---------------------------------------------------------------------------------------------------------
// 'fiel', 'ARES'

QuickTimeFieldAtom::QuickTimeFieldAtom(QuickTimeFile* movie)
    : QuickTimeAtom(fourCC("fiel"), 0, 0)
    , movieFile(movie)
{
    file = movie;
}

QuickTimeAvidResolutionAtom::QuickTimeAvidResolutionAtom(QuickTimeFile* movie)
    : QuickTimeAtom(fourCC("ARES"), 0, 0)
    , movieFile(movie)
{
    file = movie;
}

} // namespace Tern
