#pragma once

// AudioFile, one test class over two files: tst_audiofile.cpp reads and repairs the header of a cut-off
// recording; tst_audiofile_metadata.cpp reads and edits its iXML and 'bext' metadata.

#include "audio/AudioFile.h"
#include "support/TestSupport.h"
#include "support/WavBytes.h"

#include <QBuffer>
#include <QFile>
#include <QObject>
#include <QScopedPointer>
#include <QTemporaryDir>

namespace AudioFileFixtures {

const QByteArray kTrackXml
    = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<BWFXML><PROJECT>Alpha</PROJECT><SCENE>12</SCENE>"
      "<TAKE>3</TAKE><NOTE></NOTE><TRACK_LIST><TRACK_COUNT>2</TRACK_COUNT>"
      "<TRACK><CHANNEL_INDEX>1</CHANNEL_INDEX><INTERLEAVE_INDEX>1</INTERLEAVE_INDEX><NAME>Boom</NAME></TRACK>"
      "<TRACK><CHANNEL_INDEX>2</CHANNEL_INDEX><INTERLEAVE_INDEX>2</INTERLEAVE_INDEX><NAME>Lav</NAME></TRACK>"
      "</TRACK_LIST></BWFXML>";
const QByteArray kPlainXml = "<BWFXML><SCENE>7</SCENE><TAKE id=\"2\">2</TAKE></BWFXML>";
const int kRoom = 40; // keeps the track iXML chunk even-sized, as a RIFF reader that skips pad bytes expects

struct Recording
{
    QByteArray description = "sSCENE=12\r\nsTAKE=3\r\n";
    quint64 timeReference = 0;
    QByteArray xml = kTrackXml;
    int room = kRoom;
    int pcmSize = 96000; // 0.5 s of 16-bit stereo at 48 kHz
    bool cutOff = true; // size fields left at 0, as by an interrupted recording
};

inline QByteArray build(const Recording& r)
{
    using namespace WavBytes;
    const QByteArray chunks = chunk("fmt ", fmtPayload(1, 2, 48000, 16))
        + chunk("bext", bextPayload(r.description, r.timeReference)) + chunk("iXML", r.xml + spaces(r.room))
        + chunk("data", pcmBytes(r.pcmSize), r.cutOff ? 0 : -1);
    return riff(chunks, r.cutOff ? 0 : -1);
}

// Offset of the PCM bytes in a built recording: RIFF 12, 'fmt ' 24, 'bext' 610, 'iXML' 8 + text, 'data' 8.
inline int dataOffset(const Recording& r)
{
    return 12 + 24 + 610 + 8 + r.xml.size() + r.room + 8;
}

inline QByteArray ixmlOf(const AudioFile& file)
{
    return QByteArray(file.iXmlText(), file.iXmlLength());
}

inline QByteArray descriptionOf(const AudioFile& file)
{
    return QByteArray(file.description(), AudioFile::s_descriptionSize);
}

// A built file in memory, opened read-write and read once.
struct LoadedFile
{
    explicit LoadedFile(const QByteArray& bytes)
        : audio(buffer)
    {
        buffer.setData(bytes);
        buffer.open(QIODevice::ReadWrite);
        result = audio.ReadAudioFileInfo();
    }
    QBuffer buffer;
    AudioFile audio;
    unsigned int result = 0;
};

// A stored file, opened (read-write unless told) and read once when it could be opened; closed when it goes.
struct StoredFile
{
    explicit StoredFile(const QString& path, QIODevice::OpenMode mode = QIODevice::ReadWrite)
        : file(path)
        , audio(file)
    {
        opened = file.open(mode);
        if (opened)
            result = audio.ReadAudioFileInfo();
    }
    QFile file;
    AudioFile audio;
    bool opened = false;
    unsigned int result = 0;
};

} // namespace AudioFileFixtures

class AudioFileTest : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void repairsCutOffRecording();
    void leavesCompleteRecordingAlone();
    void brokenHeadersKeepTheirBytes_data();
    void brokenHeadersKeepTheirBytes();
    void verifyHeaderReportsFailedWrites();
    void bytesPerFrame_data();
    void bytesPerFrame();
    void timecodeFromBext();
    void descriptionKeys();
    void oddSizedChunkIsNotPadded();
    void iXmlChunkIsCapped();
    void iXmlStatusAndQueries();
    void putiXMLFieldEdits();
    void putiXMLFieldRefusesNamesAndFiles();
    void bextDescriptionEdits();
    void writeMetadataRoundTrip();
    void writeMetadataStopsAtDataEndingTheFile();
    void writeMetadataStopsOnFailedRead();
    void iXmlCapFollowsMpegLayer_data();
    void iXmlCapFollowsMpegLayer();
    void mpegFmtWithoutKnownLayer_data();
    void mpegFmtWithoutKnownLayer();

private:
    QString store(const QByteArray& bytes, const QString& name = "take.wav");
    QScopedPointer<QTemporaryDir> m_dir;
};
