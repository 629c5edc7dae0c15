#pragma once

#include "movie/QuickTimeAtom.h"

#include <QDataStream>
#include <QList>
#include <QtGlobal>

namespace Tern {

class QuickTimeFile;

// One entry of an 'stsd' atom: how the samples of a track are coded. Not an atom itself; the entry's
// size and data format lead it like an atom header.
class QuickTimeSampleDescription
{
public:
    static constexpr quint32 s_commonSize = 16; // size, data format, reserved, data reference index

    QuickTimeSampleDescription(quint32 payloadSize, quint32 dataFormat);
    virtual ~QuickTimeSampleDescription();
    virtual void write(QDataStream& stream);
    // Reads the entry from its first byte; *remaining is the entry's budget and shrinks by what is read.
    virtual bool read(QDataStream& stream, quint64* remaining);

    quint32 dataFormat;
    quint32 size; // whole entry, extensions included
    quint8 reserved[6] = {};
    quint16 dataReferenceIndex = 1;

private:
    Q_DISABLE_COPY(QuickTimeSampleDescription)
};

// The 86 bytes every video description starts with; subclasses add their extensions behind it.
class QuickTimeVideoSampleDescription : public QuickTimeSampleDescription
{
public:
    static constexpr quint32 s_videoSize = 86;
    static constexpr int s_compressorNameSize = 32;

    QuickTimeVideoSampleDescription(QuickTimeFile* movie, quint32 extensionsSize, quint32 dataFormat);
    void write(QDataStream& stream) override;
    // The frame size goes to the movie; the extensions behind the 86 bytes are read as atoms.
    bool read(QDataStream& stream, quint64* remaining) override;

    // Stores the name as a counted string of at most 31 characters.
    void setCompressorName(const char* name);

    QuickTimeFile* movieFile;
    quint16 version = 0;
    quint16 revisionLevel = 0;
    quint32 vendor = 0;
    quint32 temporalQuality = 0;
    quint32 spatialQuality = 0;
    quint16 width = 0;
    quint16 height = 0;
    quint32 horizontalResolution = 0x00480000; // 72 dpi, 16.16
    quint32 verticalResolution = 0x00480000;
    quint32 dataSize = 0;
    quint16 frameCount = 1;
    quint8 compressorName[s_compressorNameSize] = {};
    quint16 depth = 24;
    quint16 colorTableId = 0xFFFF; // -1: no colour table
};

// Pixel aspect and clean aperture of one frame size.
struct QuickTimeImageInfo
{
    quint16 width;
    quint16 height;
    quint32 horizontalSpacing;
    quint32 verticalSpacing;
    quint32 cleanWidthN, cleanWidthD;
    quint32 cleanHeightN, cleanHeightD;
    quint32 horizontalOffsetN, horizontalOffsetD;
    quint32 verticalOffsetN, verticalOffsetD;
};

// Apple ProRes: the video entry plus 'colr', 'fiel', 'pasp' (and 'clap' for families that write it).
class QuickTimeProResVideoSampleDescription : public QuickTimeVideoSampleDescription
{
public:
    static constexpr int s_imageInfoRows = 11;
    static const QuickTimeImageInfo m_imageInfoTable[s_imageInfoRows];

    explicit QuickTimeProResVideoSampleDescription(QuickTimeFile* movie);
    void write(QDataStream& stream) override;

    bool cleanAperture; // a 'clap' extension follows 'pasp'
    quint16 colorPrimaries;
    quint16 transferFunction;
    quint16 colorMatrix;
    quint8 fieldCount;
    quint8 fieldOrdering;
    quint32 horizontalSpacing = 1;
    quint32 verticalSpacing = 1;
    quint32 cleanWidthN = 0, cleanWidthD = 0;
    quint32 cleanHeightN = 0, cleanHeightD = 0;
    quint32 horizontalOffsetN = 0, horizontalOffsetD = 0;
    quint32 verticalOffsetN = 0, verticalOffsetD = 0;

private:
    // Colour primaries, transfer function and matrix by the picture's height.
    void describeColour();
    // Pixel aspect and clean aperture from the table's row of the frame size; those above for a size the
    // table does not list.
    void describeImage();
};

// Avid DNxHD: the video entry plus the 'ACLR', 'APRG' and 'ARES' atoms Avid's decoders look for.
class QuickTimeAvidVideoSampleDescription : public QuickTimeVideoSampleDescription
{
public:
    explicit QuickTimeAvidVideoSampleDescription(QuickTimeFile* movie);
    void write(QDataStream& stream) override;

    quint32 compressionId = 0;
    quint32 resolutionWidth;
    quint32 resolutionHeight; // per field when interlaced
    quint32 resolutionFieldCount;
    quint32 formatCode;
};

// Data format of uncompressed PCM by sample width: 2 -> 'twos', 3 -> 'in24', anything else -> 'in32'.
quint32 SoundResolutionToFormat(int bytesPerSample);

// Uncompressed PCM, version 1 with a 'wave' extension ('frma', 'enda'). Every sound track is mono.
class QuickTimeSoundSampleDescription : public QuickTimeSampleDescription
{
public:
    explicit QuickTimeSoundSampleDescription(QuickTimeFile* movie, quint32 vendor, quint32 sampleRate);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    QuickTimeFile* movieFile;
    quint16 version = 1;
    quint16 revisionLevel = 0;
    quint32 vendor;
    quint16 channels = 1;
    quint16 sampleSize = 16;
    quint16 compressionId = 0;
    quint16 packetSize = 0;
    quint32 sampleRate; // 16.16
    quint32 samplesPerPacket = 1;
    quint32 bytesPerPacket;
    quint32 bytesPerFrame;
    quint32 bytesPerSample = 2; // fixed whatever the resolution; players of the recorder expect it
    quint16 littleEndian;
};

// An empty caption track's 3GPP text description ('tx3g', with its one-font table): the interchange form
// gives a movie without picture or sound such a track, so that players which open only a movie with
// something to present open it.
class QuickTimeTextSampleDescription : public QuickTimeSampleDescription
{
public:
    static constexpr quint32 s_entrySize = 64;
    QuickTimeTextSampleDescription();
    void write(QDataStream& stream) override;
};

// Sound of the interchange form's 32-bit tracks: a version 2 'lpcm' description, whose flags state the
// byte order (readers that ignore 'enda' take 'in32' for big-endian). Mono, signed, packed, little-endian.
class QuickTimeLinearPcmSampleDescription : public QuickTimeSampleDescription
{
public:
    static constexpr quint32 s_entrySize = 72;
    static constexpr quint32 s_signedInteger = 0x4;
    static constexpr quint32 s_bigEndian = 0x2;
    static constexpr quint32 s_packed = 0x8;

    QuickTimeLinearPcmSampleDescription(QuickTimeFile* movie, quint32 bytesPerSample, quint32 sampleRate);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    QuickTimeFile* movieFile;
    double sampleRate;
    quint32 channels = 1;
    quint32 bitsPerChannel;
    quint32 flags = s_signedInteger | s_packed;
    quint32 bytesPerPacket;
};

// Timecode: rate, flags and frames per second of the timecode track. The 'name' atom hung behind it in
// the 'stsd' counts as its extension; whoever adds it grows `size` too.
class QuickTimeTimecodeSampleDescription : public QuickTimeSampleDescription
{
public:
    static constexpr quint32 s_dropFrameFlag = 0x1;
    static constexpr quint32 s_counterFlag = 0x8;

    explicit QuickTimeTimecodeSampleDescription(QuickTimeFile* movie);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;

    QuickTimeFile* movieFile;
    quint32 reserved1 = 0;
    quint32 flags = 0;
    quint32 timeScale = 0;
    quint32 frameDuration = 0;
    quint8 numberOfFrames = 0;
    quint8 reserved2 = 0;
};

// 'stsd': the entry count and the owned descriptions, written before any child atom.
class QuickTimeSampleDescriptionAtom : public QuickTimeVersionFlagsAtom
{
public:
    explicit QuickTimeSampleDescriptionAtom(QuickTimeFile* movie);
    ~QuickTimeSampleDescriptionAtom() override;

    // Takes ownership; the atom and its ancestors grow by the description's size.
    void addDescription(QuickTimeSampleDescription* description);
    void write(QDataStream& stream) override;
    // Each entry is read by the description class of its data format; unknown formats are passed over.
    bool read(QDataStream& stream, quint64* remaining) override;

    QuickTimeFile* movieFile;
    quint32 entryCount = 0;
    QList<QuickTimeSampleDescription*> descriptions;
};

} // namespace Tern
