#pragma once

#include <QtGlobal>

class QIODevice;

// Header of a Broadcast WAV file (RIFF/WAVE with 'bext' and iXML chunks), read through a device: size
// repair of a recording that was cut off, and in-place editing of the 'bext' description and of iXML
// fields inside the room the recorder left in the file. No chunk ever changes size.
class AudioFile
{
public:
    // Result codes. 0 success; 8 the walk ended without both 'fmt ' and 'data'; 31 a seek, read or write
    // failed or came up short; 148 not RIFF/WAVE, an unsupported 'fmt ', or MPEG where PCM is required.
    static constexpr unsigned int s_resultOk = 0;
    static constexpr unsigned int s_resultMissingChunks = 8;
    static constexpr unsigned int s_resultDeviceError = 31;
    static constexpr unsigned int s_resultUnsupported = 148;
    // Field numbers PutiXMLField never creates (0, 7 and 9); also its result when it refuses one.
    static constexpr unsigned int s_fieldsNotCreated = 641;

    // What the description and iXML text can hold, and the smaller iXML room of an MPEG Layer II file.
    static constexpr int s_descriptionSize = 256;
    static constexpr int s_iXmlCap = 7274;
    static constexpr int s_iXmlCapLayerII = 7214;
    // A start timecode and a frame-rate code that were not found in the file.
    static constexpr unsigned int s_noTimecode = 0xFFFFFFFF;
    static constexpr unsigned short s_unknownFrameRate = 100;

    enum FormatKind : unsigned short {
        FormatPcm = 0,
        FormatMpegLayer3 = 1,
        FormatMpegLayer2 = 2,
        FormatUnknown = 3
    };

    // Chunk identifiers: the four characters in file order read as a little-endian word.
    static constexpr quint32 s_chunkFmt = 0x20746D66;
    static constexpr quint32 s_chunkData = 0x61746164;
    static constexpr quint32 s_chunkBext = 0x74786562;
    static constexpr quint32 s_chunkIXml = 0x4C4D5869;

    static constexpr int s_metadataFieldCount = 10;
    static const char* const bwf_speed_text[7];
    static const char* const ixml_frate_text[7];
    static const char* const ixml_tag[s_metadataFieldCount];
    static const char* const bext_tag[s_metadataFieldCount];

    struct ChunkInfo
    {
        quint32 id;
        quint32 size; // payload bytes
    };

    struct AudioFileInfo
    {
        quint32 sampleRate;
        quint32 startTimecode;
        quint32 sampleFrames;
        quint32 unused32; // nothing sets it; copied out as 0
        quint32 userBits;
        quint16 formatKind;
        quint16 unused16; // cleared at every copy
        quint16 channels;
        quint16 bitsPerSample;
        quint16 bytesPerFrame;
        quint16 frameRate;
        quint16 media;
        quint8 spare[8]; // no meaning; copied out as zeros
    };

    explicit AudioFile(QIODevice& device);
    AudioFile(const AudioFile&) = delete;
    AudioFile& operator=(const AudioFile&) = delete;

    virtual qint64 GetCurrPos(); // the device's current position
    virtual ~AudioFile();

    unsigned int GetNextChunk(ChunkInfo* chunk);
    void GetFileInfo(AudioFileInfo* info) const;

    unsigned int ReadAudioFileInfo();
    unsigned int ReadAudioFileInfoRIFF();
    unsigned int ReadAudioFileInfoMPEG();
    unsigned int ProcessFMTChunk(ChunkInfo chunk);
    unsigned int ProcessBextChunk();
    void ExtractBWFDescValues();
    unsigned int ProcessIXMLChunk(ChunkInfo chunk);
    unsigned int VerifyHeader();
    // As VerifyHeader, but the 'data' size covers whole sample frames only: bytes of a frame the
    // recorder did not finish stay in the file behind the RIFF chunk, and an odd size is followed by its
    // pad byte (one zero byte is appended when the file ends right after the sound).
    unsigned int VerifyHeaderInWholeFrames();

    int GetiXMLStatus() const;
    const char* FindiXMLTag(const char* text, const char* tag, bool after, short length) const;
    const char* GetiXMLField(unsigned char field, unsigned short& length) const;
    unsigned short GetiXMLFieldLength(const char* value) const;
    int GetiXMLSpace() const;
    int GetiXMLSpace(short field) const;
    int GetNumiXMLTracks() const;
    const char* GetiXMLTrackInfo(unsigned char track, int& channelIndex, unsigned short& nameLength) const;
    bool SetiXMLTrackNameField(unsigned char track, const char* name);
    void InsertiXMLFieldStr(const char* where, const char* text);
    unsigned int PutiXMLField(unsigned char field, const char* text);
    bool GetiXMLBoolField(const char* value) const;

    const char* GetMetadataField(unsigned char field, unsigned short& length) const;
    const char* GetMP3MetadataField(unsigned char field, unsigned short& length) const;

    void SetBextTrackNameField(unsigned char track, const char* name);
    void InsertBextFieldStr(const char* key, const char* value);
    void PutBextField(unsigned char field, const char* value);

    unsigned int WriteMetadata();

    // Read-side accessors.
    const char* description() const { return m_description; }
    const char* iXmlText() const { return m_iXmlText; }
    quint16 iXmlLength() const { return m_iXmlLength; }
    bool iXmlModified() const { return m_iXmlModified; }
    quint64 timeReference() const { return m_timeReference; }
    quint32 dataStart() const { return m_dataStart; }
    quint32 dataEnd() const { return m_dataEnd; } // for the audio tests, which check the repaired sizes

private:
    bool seekTo(qint64 pos);
    bool readExactly(char* into, qint64 count);
    bool writeExactly(const char* from, qint64 count);
    void setPcmFormat(const uchar* fmt);
    void setCommonFormat(const uchar* fmt);
    const char* iXmlEnd() const { return m_iXmlText + m_iXmlLength; }
    const char* findClosingBwfXml(bool after) const;
    void padIXmlWithSpaces(const char* from);
    // The sizes of a cut-off WAV: unchanged when its 'data' size is set; else the sound reaches the end
    // of the file, or (wholeFrames) its last whole sample frame.
    unsigned int repairSizes(bool wholeFrames);

    quint32 m_status = 0;
    quint64 m_nextChunkPos = 0;
    quint64 m_timeReference = 0;
    quint16 m_iXmlLength = s_iXmlCap;
    bool m_iXmlModified = false;
    char* m_workBuffer;
    char* m_description;
    char* m_iXmlText;
    quint32 m_dataStart = 0;
    quint32 m_dataEnd = 0;
    quint32 m_sampleRate = 48000;
    quint32 m_startTimecode = s_noTimecode;
    quint32 m_sampleFrames = 0;
    quint32 m_userBits = 0;
    quint16 m_formatKind = FormatUnknown;
    quint16 m_channels = 2;
    quint16 m_bitsPerSample = 16;
    quint16 m_bytesPerFrame = 4;
    quint16 m_frameRate = s_unknownFrameRate;
    quint16 m_media = 0;
    QIODevice* m_device;
};
