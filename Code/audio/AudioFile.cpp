// Reading side of AudioFile: the RIFF/WAVE chunk walk, the 'fmt ' and 'bext' chunks, and the repair of
// the size fields of a recording that was cut off.

#include "audio/AudioFile.h"

#include "timecode/Timecode.h"

#include <QIODevice>
#include <QtEndian>

#include <cstdlib>
#include <cstring>

namespace {

// One allocation holds the description and the iXML text at fixed offsets.
const int kWorkBufferSize = 8194;
const int kDescriptionOffset = 20;
const int kIXmlOffset = 886;
static_assert(
    kDescriptionOffset + AudioFile::s_descriptionSize + 1 <= kIXmlOffset, "description overlaps iXML");
static_assert(kIXmlOffset + AudioFile::s_iXmlCap + 1 <= kWorkBufferSize, "iXML text exceeds the work buffer");

const qint64 kFirstChunkPos = 12; // after "RIFF", the RIFF size and "WAVE"
const qint64 kRiffSizePos = 4;
const int kRiffHeaderSize = 12;
const int kChunkHeaderSize = 8;

const quint16 kFormatTagPcm = 1;
const quint16 kFormatTagMpeg = 80;
const quint32 kPlainFmtSize = 16;
const quint32 kExtendedFmtSize = 20;
const quint16 kMpegExtensionSize = 24;
const quint16 kMpegLayer2 = 2;
const quint16 kMpegLayer3 = 4;

// Originator (32), OriginatorReference (32), OriginationDate (10) and OriginationTime (8).
const qint64 kBextBytesBeforeTimeReference = 82;
const int kTimeReferenceSize = 8;

const char kSpeedKey[] = "SPEED=";
const char kMediaKey[] = "MEDIA=";
const char kUserBitsKey[] = "UBITS=$";
const size_t kSpeedTextLength = 10;
const int kUserBitsDigits = 8;

quint16 le16(const uchar* p)
{
    return qFromLittleEndian<quint16>(p);
}

quint32 le32(const uchar* p)
{
    return qFromLittleEndian<quint32>(p);
}

} // namespace

const char* const AudioFile::bwf_speed_text[7]
    = { "023.976-ND", "024.000-ND", "025.000-ND", "029.970-ND", "029.970-DF", "030.000-ND", "030.000-DF" };
const char* const AudioFile::ixml_frate_text[7]
    = { "24000/1001", "24/1", "25/1", "30000/1001", "30000/1001", "30/1", "30/1" };
// Row 7 shares the 'bext' key of row 0 and row 8's key has no '=': both as the recorder writes them.
const char* const AudioFile::ixml_tag[s_metadataFieldCount] = { "<CURRENT_FILENAME>", "<PROJECT>", "<SCENE>",
    "<TAKE>", "<TAPE>", "<CIRCLED>", "<NOTE>", "<ORIGINAL_FILENAME>", "<FILE_UID>", "<NAME>" };
const char* const AudioFile::bext_tag[s_metadataFieldCount] = { "sFILENAME=", "sPROJECT=", "sSCENE=",
    "sTAKE=", "sTAPE=", "sCIRCLED=", "sNOTE=", "sFILENAME=", "sFILEUID", "sTRKx=" };

AudioFile::AudioFile(QIODevice& device)
    : m_workBuffer(new char[kWorkBufferSize]())
    , m_description(m_workBuffer + kDescriptionOffset)
    , m_iXmlText(m_workBuffer + kIXmlOffset)
    , m_device(&device)
{
}

AudioFile::~AudioFile()
{
    delete[] m_workBuffer;
}

qint64 AudioFile::GetCurrPos()
{
    return m_device->pos();
}

bool AudioFile::seekTo(qint64 pos)
{
    return m_device->seek(pos);
}

bool AudioFile::readExactly(char* into, qint64 count)
{
    return m_device->read(into, count) == count;
}

bool AudioFile::writeExactly(const char* from, qint64 count)
{
    return m_device->write(from, count) == count;
}

// The RIFF pad byte after an odd-sized chunk is not skipped: the next header is read at exactly
// position + 8 + size.
unsigned int AudioFile::GetNextChunk(ChunkInfo* chunk)
{
    if (GetCurrPos() != qint64(m_nextChunkPos) && !seekTo(qint64(m_nextChunkPos)))
        return s_resultDeviceError;
    uchar header[kChunkHeaderSize];
    if (!readExactly(reinterpret_cast<char*>(header), kChunkHeaderSize))
        return s_resultDeviceError;
    chunk->id = le32(header);
    chunk->size = le32(header + 4);
    m_nextChunkPos += quint64(chunk->size) + kChunkHeaderSize;
    return s_resultOk;
}

void AudioFile::GetFileInfo(AudioFileInfo* info) const
{
    std::memset(info, 0, sizeof(*info));
    info->sampleRate = m_sampleRate;
    info->startTimecode = m_startTimecode;
    info->sampleFrames = m_sampleFrames;
    info->userBits = m_userBits;
    info->formatKind = m_formatKind;
    info->channels = m_channels;
    info->bitsPerSample = m_bitsPerSample;
    info->bytesPerFrame = m_bytesPerFrame;
    info->frameRate = m_frameRate;
    info->media = m_media;
}

unsigned int AudioFile::ReadAudioFileInfo()
{
    m_formatKind = FormatUnknown;
    m_frameRate = s_unknownFrameRate;
    m_startTimecode = s_noTimecode;
    m_userBits = 0;
    m_sampleFrames = 0;
    m_media = 0;
    m_timeReference = 0;
    m_dataStart = 0;
    m_iXmlLength = 0;
    m_iXmlModified = false;
    m_status = 0;

    if (!seekTo(0))
        return s_resultDeviceError;
    char header[kRiffHeaderSize];
    if (!readExactly(header, kRiffHeaderSize))
        return s_resultDeviceError;
    if (std::memcmp(header, "RIFF", 4) != 0 || std::memcmp(header + 8, "WAVE", 4) != 0)
        return s_resultUnsupported;

    const unsigned int result = ReadAudioFileInfoRIFF();
    if (result != s_resultOk)
        return result;
    if (m_formatKind == FormatMpegLayer3 || m_formatKind == FormatMpegLayer2)
        return s_resultUnsupported;
    if (m_startTimecode == s_noTimecode)
        return s_resultOk;
    // A 'fmt ' chunk with a sample rate of 0 gives no time for a sample count: no start timecode.
    if (m_sampleRate == 0 && m_timeReference != 0) {
        m_startTimecode = s_noTimecode;
        return s_resultOk;
    }
    m_startTimecode = quint32(TC::SamplesToTC(m_timeReference, m_sampleRate, m_frameRate, nullptr, false));
    return s_resultOk;
}

unsigned int AudioFile::ReadAudioFileInfoRIFF()
{
    m_nextChunkPos = kFirstChunkPos;
    bool seenFmt = false;
    bool seenIXml = false;
    bool seenBext = false;
    bool seenData = false;
    for (;;) {
        ChunkInfo chunk;
        unsigned int result = GetNextChunk(&chunk);
        if (result != s_resultOk)
            return result;
        switch (chunk.id) {
        case s_chunkFmt:
            result = ProcessFMTChunk(chunk);
            seenFmt = true;
            break;
        case s_chunkIXml:
            result = ProcessIXMLChunk(chunk);
            seenIXml = true;
            break;
        case s_chunkBext:
            result = ProcessBextChunk();
            seenBext = true;
            break;
        case s_chunkData:
            m_dataStart = quint32(GetCurrPos());
            m_dataEnd = m_dataStart + chunk.size;
            if (m_formatKind == FormatPcm && m_bytesPerFrame != 0)
                m_sampleFrames = chunk.size / m_bytesPerFrame;
            seenData = true;
            break;
        default:
            break;
        }
        if (result != s_resultOk)
            return result;
        // A cut-off recording has a zero 'data' size, so its end is found only by having seen the
        // other three chunks before it.
        if (chunk.id == s_chunkData
            && (qint64(m_dataEnd) == m_device->size() || (seenFmt && seenIXml && seenBext)))
            break;
    }
    return seenFmt && seenData ? s_resultOk : s_resultMissingChunks;
}

unsigned int AudioFile::ReadAudioFileInfoMPEG()
{
    return s_resultUnsupported;
}

void AudioFile::setCommonFormat(const uchar* fmt)
{
    m_channels = le16(fmt + 2);
    m_sampleRate = le32(fmt + 4);
    m_bitsPerSample = le16(fmt + 14);
}

// The file's block-align field is not trusted: 16-bit samples take 2 bytes, every other depth 3.
void AudioFile::setPcmFormat(const uchar* fmt)
{
    m_formatKind = FormatPcm;
    setCommonFormat(fmt);
    m_bytesPerFrame = quint16(m_channels * (m_bitsPerSample == 16 ? 2 : 3));
}

unsigned int AudioFile::ProcessFMTChunk(ChunkInfo chunk)
{
    uchar fmt[kExtendedFmtSize];
    if (chunk.size == kPlainFmtSize) {
        if (!readExactly(reinterpret_cast<char*>(fmt), kPlainFmtSize))
            return s_resultDeviceError;
        if (le16(fmt) != kFormatTagPcm)
            return s_resultUnsupported;
        setPcmFormat(fmt);
        return s_resultOk;
    }
    if (chunk.size < kExtendedFmtSize)
        return s_resultUnsupported;
    if (!readExactly(reinterpret_cast<char*>(fmt), kExtendedFmtSize))
        return s_resultDeviceError;

    const quint16 formatTag = le16(fmt);
    if (formatTag == kFormatTagPcm) {
        setPcmFormat(fmt);
    } else if (formatTag == kFormatTagMpeg) {
        setCommonFormat(fmt);
        if (le16(fmt + 16) != kMpegExtensionSize)
            return s_resultOk;
        uchar extension[kMpegExtensionSize];
        if (!readExactly(reinterpret_cast<char*>(extension), kMpegExtensionSize))
            return s_resultDeviceError;
        const quint16 layer = le16(extension);
        if (layer == kMpegLayer3)
            m_formatKind = FormatMpegLayer3;
        else if (layer == kMpegLayer2)
            m_formatKind = FormatMpegLayer2;
    }
    return s_resultOk;
}

// Keeps at most what the iXML text can hold; the rest of a longer chunk is skipped by the next seek.
unsigned int AudioFile::ProcessIXMLChunk(ChunkInfo chunk)
{
    const quint32 cap = m_formatKind == FormatMpegLayer2 ? s_iXmlCapLayerII : s_iXmlCap;
    const quint32 kept = qMin(chunk.size, cap);
    if (!readExactly(m_iXmlText, kept))
        return s_resultDeviceError;
    m_iXmlText[kept] = '\0';
    m_iXmlLength = quint16(kept);
    return s_resultOk;
}

unsigned int AudioFile::ProcessBextChunk()
{
    if (!readExactly(m_description, s_descriptionSize))
        return s_resultDeviceError;
    m_description[s_descriptionSize] = '\0';
    ExtractBWFDescValues();

    if (!seekTo(GetCurrPos() + kBextBytesBeforeTimeReference))
        return s_resultDeviceError;
    uchar timeReference[kTimeReferenceSize];
    if (!readExactly(reinterpret_cast<char*>(timeReference), kTimeReferenceSize))
        return s_resultDeviceError;
    m_timeReference = qFromLittleEndian<quint64>(timeReference);
    // A time reference without a speed key is taken as 30 fps non-drop.
    if (m_timeReference != 0 && m_startTimecode == s_noTimecode) {
        m_frameRate = Timecode::FrameRate30;
        m_startTimecode = 0;
    }
    return s_resultOk;
}

void AudioFile::ExtractBWFDescValues()
{
    if (const char* speed = std::strstr(m_description, kSpeedKey)) {
        const char* text = speed + sizeof(kSpeedKey) - 1;
        for (int code = 0; code < 7; ++code) {
            if (std::strncmp(text, bwf_speed_text[code], kSpeedTextLength) == 0) {
                m_frameRate = quint16(code);
                m_startTimecode = 0; // present; computed from the time reference after the walk
                break;
            }
        }
    }
    if (const char* media = std::strstr(m_description, kMediaKey))
        m_media = quint16(std::atoi(media + sizeof(kMediaKey) - 1));
    // Four pairs of decimal digits, one byte each, first pair most significant: "12345678" gives
    // 0x0C22384E. The recorder writes them as decimal, not hexadecimal.
    if (const char* bits = std::strstr(m_description, kUserBitsKey)) {
        const char* digits = bits + sizeof(kUserBitsKey) - 1;
        quint32 userBits = 0;
        for (int i = 0; i < kUserBitsDigits; i += 2) {
            const int byte = 10 * (digits[i] - '0') + (digits[i + 1] - '0');
            userBits = (userBits << 8) | (quint32(byte) & 0xFF);
        }
        m_userBits = userBits;
    }
}

// A recording cut off before its end keeps a zero 'data' size; the data is taken to run to the end of
// the file and the RIFF size is set to match.
unsigned int AudioFile::VerifyHeader()
{
    return repairSizes(false);
}

unsigned int AudioFile::VerifyHeaderInWholeFrames()
{
    return repairSizes(true);
}

unsigned int AudioFile::repairSizes(bool wholeFrames)
{
    if (m_formatKind == FormatMpegLayer3)
        return s_resultOk;
    const qint64 dataSizePos = qint64(m_dataStart) - 4;
    uchar field[4];
    if (!seekTo(dataSizePos) || !readExactly(reinterpret_cast<char*>(field), 4))
        return s_resultDeviceError;
    if (le32(field) != 0)
        return s_resultOk;

    const qint64 fileSize = m_device->size();
    qint64 dataSize = fileSize - m_dataStart;
    qint64 riffEnd = fileSize;
    if (wholeFrames) {
        // A frame as readers count it: every channel's sample, in whole bytes (32-bit sound included).
        const qint64 frameBytes = qMax<qint64>(1, qint64(m_channels) * ((m_bitsPerSample + 7) / 8));
        dataSize = qMin<qint64>(dataSize, 0xFFFFFFFEu) / frameBytes * frameBytes;
        riffEnd = qint64(m_dataStart) + dataSize + (dataSize & 1);
        if (riffEnd > fileSize && (!seekTo(fileSize) || !writeExactly("", 1)))
            return s_resultDeviceError;
    }
    qToLittleEndian<quint32>(quint32(dataSize), field);
    if (!seekTo(dataSizePos) || !writeExactly(reinterpret_cast<const char*>(field), 4))
        return s_resultDeviceError;
    qToLittleEndian<quint32>(quint32(riffEnd - 8), field);
    if (!seekTo(kRiffSizePos) || !writeExactly(reinterpret_cast<const char*>(field), 4))
        return s_resultDeviceError;
    return s_resultOk;
}
