// clipward-simulate: writes an interrupted recording (no index, 'mdat' unsized) the way the recorder
// leaves one when power fails, for demos and benchmarks. Frames are synthetic unless given.

#include "simulate/RecordingSimulator.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <cstdio>

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("clipward-simulate");
    QCoreApplication::setApplicationVersion(CLIPWARD_VERSION);

    QCommandLineParser parser;
    parser.setApplicationDescription("Writes an interrupted Tern movie recording to OUTPUT.");
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption frames("frames", "Video frames (0 for audio only).", "n", "75");
    const QCommandLineOption frameBytes("frame-bytes", "Bytes of each synthetic frame.", "n", "40000");
    const QCommandLineOption perChunk("frames-per-chunk", "Video frames per chunk.", "n", "3");
    const QCommandLineOption tracks("tracks", "Mono sound tracks.", "n", "2");
    const QCommandLineOption bytesPerSample("bytes-per-sample", "2, 3 or 4.", "n", "3");
    const QCommandLineOption samplesPerChunk("samples-per-chunk", "Sound samples per track per chunk.", "n",
                                             "5760");
    const QCommandLineOption seconds("audio-seconds", "Sound length in seconds (default: the video's).", "s");
    const QCommandLineOption rate("rate", "Frame rate in hundredths.", "n", "2500");
    const QCommandLineOption torn("torn", "Bytes of an uncommitted chunk left past the end.", "n", "0");
    parser.addOptions({frames, frameBytes, perChunk, tracks, bytesPerSample, samplesPerChunk, seconds, rate, torn});
    parser.addPositionalArgument("OUTPUT", "The .zqv file to write.");
    parser.process(app);
    if (parser.positionalArguments().size() != 1) {
        std::fprintf(stderr, "clipward-simulate: give exactly one OUTPUT\n");
        return 2;
    }

    RecordingPlan plan;
    plan.frameRate = parser.value(rate).toUInt();
    plan.videoFramesPerChunk = parser.value(perChunk).toUInt();
    plan.audioBytesPerSample = parser.value(bytesPerSample).toUInt();
    plan.audioSamplesPerChunk = parser.value(samplesPerChunk).toUInt();
    plan.tornTailBytes = parser.value(torn).toInt();
    const int frameCount = parser.value(frames).toInt();
    for (int i = 0; i < frameCount; ++i)
        plan.videoFrames << syntheticFrame(i, parser.value(frameBytes).toInt());
    const double audioSeconds = parser.isSet(seconds) ? parser.value(seconds).toDouble()
                                                      : frameCount * 100.0 / qMax(1u, plan.frameRate);
    const int samples = int(audioSeconds * plan.audioSampleRate);
    for (int t = 0; t < parser.value(tracks).toInt(); ++t)
        plan.audioTracks << syntheticPcm(t, samples, int(plan.audioBytesPerSample));

    const QString output = parser.positionalArguments().first();
    QDir().mkpath(QFileInfo(output).absolutePath());
    const RecordingResult result = writeInterruptedRecording(output, plan);
    if (!result.ok) {
        std::fprintf(stderr, "clipward-simulate: %s\n", result.error.toUtf8().constData());
        return 1;
    }
    std::printf("%s: %u video frames, %u sound chunks, %u timecode samples, %lld bytes\n",
                output.toUtf8().constData(), result.videoFrames, result.soundChunks, result.timecodeSamples,
                result.fileSize);
    return 0;
}
