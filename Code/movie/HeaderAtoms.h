#pragma once

#include "movie/InformationAtoms.h" // the information atoms are part of the same set
#include "movie/QuickTimeAtom.h"

#include <QDataStream>
#include <QString>
#include <QtGlobal>

namespace Tern {

class QuickTimeFile;

// Every creation and modification time the library writes: seconds from 1904-01-01 to 1970-01-01.
constexpr quint32 s_quickTimeEpochOffset = 2082844800;
// 16.16 fixed-point 1.0 and 8.8 fixed-point 1.0.
constexpr quint32 s_fixed16One = 0x00010000;
constexpr quint16 s_fixed8One = 0x0100;
// The identity display matrix of movie and track headers.
constexpr quint32 s_identityMatrix[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};

// 'ftyp': brands of a QuickTime movie.
class QuickTimeFileAtom : public QuickTimeAtom
{
public:
    QuickTimeFileAtom();
    void write(QDataStream& stream) override;
    int getFieldName(int index, QString& name) const override;
    int getFieldValue(int index, QString& value) const override;

    quint32 majorBrand;
    quint32 minorVersion;
    quint32 compatibleBrand;
};

// 'mvhd': time scale and duration of the whole movie.
class QuickTimeMovieHeaderAtom : public QuickTimeVersionFlagsAtom
{
public:
    explicit QuickTimeMovieHeaderAtom(QuickTimeFile* movie);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    QuickTimeFile* movieFile;
    quint32 creationTime = s_quickTimeEpochOffset;
    quint32 modificationTime = s_quickTimeEpochOffset;
    quint32 timeScale = 0;
    quint32 duration = 0;
    quint32 preferredRate = s_fixed16One;
    quint16 preferredVolume = s_fixed8One;
    quint8 reserved[10] = {};
    quint32 matrix[9];
    quint32 previewTime = 0;
    quint32 previewDuration = 0;
    quint32 posterTime = 0;
    quint32 selectionTime = 0;
    quint32 selectionDuration = 0;
    quint32 currentTime = 0;
    quint32 nextTrackId = 2;
};

// 'tkhd': one track's ID, duration, volume and display size. Flags 0x0F: enabled, in movie, preview, poster.
class QuickTimeTrackHeaderAtom : public QuickTimeVersionFlagsAtom
{
public:
    QuickTimeTrackHeaderAtom(QuickTimeFile* movie, quint32 trackId, quint32 duration, quint32 width,
                             quint32 height, quint16 volume);
    explicit QuickTimeTrackHeaderAtom(QuickTimeFile* movie);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    quint32 creationTime = s_quickTimeEpochOffset;
    quint32 modificationTime = s_quickTimeEpochOffset;
    quint32 trackId;
    quint32 reserved1 = 0;
    quint32 duration;
    quint8 reserved2[8] = {};
    quint16 layer = 0;
    quint16 alternateGroup = 0;
    quint16 volume; // 8.8
    quint16 reserved3 = 0;
    quint32 matrix[9];
    quint32 width; // whole pixels; written as 16.16
    quint32 height;
};

// 'mdhd': one track's media time scale and duration.
class QuickTimeMediaHeaderAtom : public QuickTimeVersionFlagsAtom
{
public:
    QuickTimeMediaHeaderAtom(QuickTimeFile* movie, quint32 timeScale, quint32 duration);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    QuickTimeFile* movieFile;
    quint32 creationTime = s_quickTimeEpochOffset;
    quint32 modificationTime = s_quickTimeEpochOffset;
    quint32 timeScale;
    quint32 duration;
    quint16 language = 0;
    quint16 quality = 0;
};

// 'hdlr': media or data handler, with the handler's name as a counted string.
class QuickTimeHandlerReferenceAtom : public QuickTimeVersionFlagsAtom
{
public:
    static constexpr int s_nameBufferSize = 16; // length byte + "TimecodeHandler"

    QuickTimeHandlerReferenceAtom(quint32 componentType, quint32 componentSubtype);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    quint32 componentType;
    quint32 componentSubtype;
    quint32 componentManufacturer = 0;
    quint32 componentFlags = 0;
    quint32 componentFlagsMask = 0;
    quint8 componentName[s_nameBufferSize] = {}; // [0] is the length
};

// 'elst': one edit covering the whole track.
class QuickTimeEditListAtom : public QuickTimeVersionFlagsAtom
{
public:
    QuickTimeEditListAtom(QuickTimeFile* movie, quint32 trackDuration, quint32 mediaTime, quint32 mediaRate);
    void write(QDataStream& stream) override;

    quint32 entryCount = 1;
    quint32 trackDuration;
    quint32 mediaTime;
    quint32 mediaRate; // 16.16
};

// 'name': the timecode track's source (reel) name, at most 31 characters.
class QuickTimeSourceReferenceAtom : public QuickTimeAtom
{
public:
    static constexpr int s_nameBufferSize = 32;

    explicit QuickTimeSourceReferenceAtom(const char* name);
    void write(QDataStream& stream) override;

    quint16 nameLength;
    quint16 language = 0;
    char name[s_nameBufferSize] = {};
};

// 'tref': one track reference entry. Nothing in the finalizer creates one.
class QuickTimeTrackReferenceAtom : public QuickTimeAtom
{
public:
    explicit QuickTimeTrackReferenceAtom(quint32 referenceType = fourCC("tmcd"), quint32 trackId = 1);
    void write(QDataStream& stream) override;

    quint32 entrySize = 12;
    quint32 referenceType;
    quint32 trackId;
};

} // namespace Tern
