#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

// ffmpeg and ffprobe as the independent reader of finished movies, and as the encoder of real frames.
namespace MediaTools {

bool available();

// Runs a program to completion; returns its stdout, sets *ok to a zero exit.
QByteArray run(const QString& program, const QStringList& args, bool* ok = nullptr);

// Encodes `frames` frames of a moving test picture with `codecArgs` (e.g. {"-c:v","prores_ks",...})
// into `container` and returns the encoded packets in order.
QList<QByteArray> encodeFrames(const QString& container, const QStringList& codecArgs, int width, int height,
                               const QString& rate, int frames);

// The MD5 of every decoded frame of the first video stream, in order.
QStringList videoFrameHashes(const QString& file);

// Every decoded sample of audio stream `index` as raw PCM in `rawFormat` (s16le, s24le, s32le).
// `ignoreEditList` reads the media whatever the edit list says.
QByteArray decodeAudio(const QString& file, int index, const QString& rawFormat, bool ignoreEditList = false);

struct Stream
{
    QString type;  // video, audio, data
    QString codec; // codec_name
    QString tag;   // codec_tag_string
    qint64 frames = -1;
    int sampleRate = 0;
    int channels = 0;
    int width = 0;
    int height = 0;
    QString frameRate; // r_frame_rate
    double duration = -1; // seconds, as the stream's index gives it
    QString timecode;     // the stream's timecode tag, where it has one
};
QList<Stream> streams(const QString& file);
// The movie's duration in seconds, as ffprobe gives it.
double formatDuration(const QString& file);

// GStreamer (gst-launch-1.0 and gst-discoverer-1.0, qtdemux and the libav decoders) as a second reader.
bool gstreamerAvailable();
// Every decoded sample of sound track `index` through qtdemux, as raw PCM in `rawFormat` (S16LE, S24LE,
// S32LE); empty when the pipeline fails.
QByteArray gstreamerDecodeAudio(const QString& file, int index, const QString& rawFormat);
// The video frames qtdemux and the decoder give for the first video track (decoded to I420 at the
// given size); -1 when the pipeline fails.
int gstreamerVideoFrames(const QString& file, int width, int height);
// What gst-discoverer-1.0 reports: the duration in seconds and the kinds of stream it found ("video",
// "audio", "subtitles"), in order; `ok` false when it reports an error.
struct Discovery
{
    bool ok = false;
    double duration = -1;
    QStringList streams;
    QString output;
};
Discovery gstreamerDiscover(const QString& file);

// mkvmerge as the remuxer editors use: `file` rewritten into Matroska at `output`; false on failure.
bool mkvmergeAvailable();
bool remuxToMatroska(const QString& file, const QString& output);

// MediaInfo as a third reader: one map of fields per track ("@type" General, Video, Audio, Other, ...).
bool mediaInfoAvailable();
QList<QMap<QString, QString>> mediaInfoTracks(const QString& file);

} // namespace MediaTools
