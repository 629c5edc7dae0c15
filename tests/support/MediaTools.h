#pragma once

#include <QByteArray>
#include <QList>
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
};
QList<Stream> streams(const QString& file);

} // namespace MediaTools
