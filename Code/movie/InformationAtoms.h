#pragma once

#include "movie/QuickTimeAtom.h"

#include <QDataStream>
#include <QString>
#include <QtGlobal>

namespace Tern {

class QuickTimeFile;

// 'vmhd': video media information header.
class QuickTimeVideoInformationAtom : public QuickTimeVersionFlagsAtom
{
public:
    QuickTimeVideoInformationAtom();
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    quint16 graphicsMode = 0;
    quint16 opcolor[3] = {};
};

// 'smhd': sound media information header.
class QuickTimeSoundInformationAtom : public QuickTimeVersionFlagsAtom
{
public:
    QuickTimeSoundInformationAtom();
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    quint16 balance = 0;
    quint16 reserved = 0;
};

// 'gmin': base media information of the timecode track, inside 'gmhd'.
class QuickTimeBaseMediaInformationAtom : public QuickTimeVersionFlagsAtom
{
public:
    QuickTimeBaseMediaInformationAtom();
    void write(QDataStream& stream) override;

    quint16 graphicsMode = 0x0040; // dither copy
    quint16 opcolor[3] = {0x8000, 0x8000, 0x8000};
    quint16 balance = 0;
    quint16 reserved = 0;
};

// 'tcmi': how a player draws the timecode track's text.
class QuickTimeTimecodeInformationAtom : public QuickTimeVersionFlagsAtom
{
public:
    static constexpr int s_fontNameSize = 32;

    QuickTimeTimecodeInformationAtom();
    void write(QDataStream& stream) override;

    quint16 textFont = 0;
    quint16 textFace = 0;
    quint16 textSize = 12;
    quint16 reserved = 0;
    quint16 textColor[3] = {0xFFFF, 0xFFFF, 0xFFFF};
    quint16 backgroundColor[3] = {};
    quint8 fontName[s_fontNameSize] = {}; // counted string, zero filled
};

// 'dref': one 'alis' entry saying the media is in this same file.
class QuickTimeDataReferenceAtom : public QuickTimeVersionFlagsAtom
{
public:
    QuickTimeDataReferenceAtom();
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    quint32 entryCount = 1;
    quint32 entrySize = 12;
    quint32 entryType;
    quint8 entryVersion = 0;
    quint8 entryFlags[3] = {0, 0, 1}; // self reference
};

// 'hldn': the recorder's private copy of its counts, user data and frame map, so that a finished
// movie can be read back chunk by chunk.
class QuickTimeHaldenAtom : public QuickTimeVersionFlagsAtom
{
public:
    static constexpr quint32 s_fixedPayloadSize = 136; // after version and flags, before the frame list
    static constexpr int s_reservedSize = 72;
    static constexpr int s_frameListEntryBytes = 2; // one frame-map entry, big-endian

    explicit QuickTimeHaldenAtom(QuickTimeFile* movie);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    QuickTimeFile* movieFile;
    quint32 constant = 1;
    quint32 interlaced = 0;
    quint32 frameCount = 0; // entries of the frame list
    quint32 videoFrames = 0;
    quint32 audioFrames = 0;
    quint32 timecodeFrames = 0;
    quint32 userData[9] = {};
    quint32 marker = 1;
};

// 'uset': the recorder's user-settings text. Its size counts one byte per character and not the
// string's length word, short of what is written; kept so, readers go by the enclosing atom.
class QuickTimeUserSettingsAtom : public QuickTimeVersionFlagsAtom
{
public:
    explicit QuickTimeUserSettingsAtom(QuickTimeFile* movie);
    void write(QDataStream& stream) override;

    QuickTimeFile* movieFile;
    QString text;
};

// 'fiel' and 'ARES' exist for the parser; written they are only their header and children.
class QuickTimeFieldAtom : public QuickTimeAtom
{
public:
    explicit QuickTimeFieldAtom(QuickTimeFile* movie);
    bool read(QDataStream& stream, quint64* remaining) override;

    QuickTimeFile* movieFile;
    quint8 fields = 1; // 2 for interlaced video
    quint8 ordering = 0;
};

class QuickTimeAvidResolutionAtom : public QuickTimeAtom
{
public:
    explicit QuickTimeAvidResolutionAtom(QuickTimeFile* movie);
    bool read(QDataStream& stream, quint64* remaining) override;

    QuickTimeFile* movieFile;
    quint32 repeatedType = 0;
    quint32 resolutionVersion = 0;
    quint32 compressionId = 0;
    quint32 width = 0;
    quint32 height = 0; // per field when interlaced
    quint32 fields = 0;
    quint32 value = 0;
    quint32 formatCode = 0;
};

} // namespace Tern
