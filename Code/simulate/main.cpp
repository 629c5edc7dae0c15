// clipward-simulate: writes an interrupted recording (no index, 'mdat' unsized) the way the recorder
// leaves one when power fails, for demos and benchmarks. Frames and samples are synthetic.

#include "simulate/RecordingSimulator.h"
#include "simulate/WavSimulator.h"

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
    parser.setApplicationDescription("Writes an interrupted recording to OUTPUT: a Tern movie by default, a Heron\n"
                                     "movie with --heron, a cut-off Broadcast WAV with --wav.");
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
    const QCommandLineOption heron("heron", "Write a Heron movie (3 frames and 3072 samples per chunk).");
    const QCommandLineOption wav("wav", "Write a cut-off Broadcast WAV of --tracks channels, --audio-seconds long.");
    parser.addOptions(
        {frames, frameBytes, perChunk, tracks, bytesPerSample, samplesPerChunk, seconds, rate, torn, heron, wav});
    parser.addPositionalArgument("OUTPUT", "The .zqv file to write.");
    parser.process(app);
    if (parser.positionalArguments().size() != 1) {
        std::fprintf(stderr, "clipward-simulate: give exactly one OUTPUT\n");
        return 2;
    }

    const QString output = parser.positionalArguments().first();
    QDir().mkpath(QFileInfo(output).absolutePath());
    if (parser.isSet(wav)) {
        WavPlan wavPlan;
        wavPlan.channels = parser.value(tracks).toInt();
        wavPlan.bitsPerSample = 8 * parser.value(bytesPerSample).toInt();
        const int samples = int(parser.value(seconds).toDouble() * wavPlan.sampleRate);
        QVector<QByteArray> channels;
        for (int c = 0; c < wavPlan.channels; ++c)
            channels << syntheticPcm(c, samples, wavPlan.bitsPerSample / 8);
        wavPlan.pcm = interleavePcm(channels, wavPlan.bitsPerSample / 8);
        wavPlan.bextDescription = "sSCENE=1\r\nsTAKE=1\r\n";
        if (!writeWav(output, wavPlan)) {
            std::fprintf(stderr, "clipward-simulate: cannot write %s\n", output.toUtf8().constData());
            return 1;
        }
        std::printf("%s: %d samples of %d channels, sizes left 0\n", output.toUtf8().constData(), samples,
                    wavPlan.channels);
        return 0;
    }

    RecordingPlan plan;
    if (parser.isSet(heron)) {
        const SimulatedRecorder& recorder = recorderOf(RecordingPlan::Heron);
        plan.family = RecordingPlan::Heron;
        plan.videoFramesPerChunk = recorder.family->fixedFramesPerChunk;
        plan.audioSamplesPerChunk = recorder.family->fixedSamplesPerChunk;
        plan.proResVariant = recorder.proResHqVariant;
    }
    plan.frameRate = parser.value(rate).toUInt();
    if (!parser.isSet(heron)) {
        plan.videoFramesPerChunk = parser.value(perChunk).toUInt();
        plan.audioSamplesPerChunk = parser.value(samplesPerChunk).toUInt();
    }
    plan.audioBytesPerSample = parser.value(bytesPerSample).toUInt();
    plan.tornTailBytes = parser.value(torn).toInt();
    const int frameCount = parser.value(frames).toInt();
    for (int i = 0; i < frameCount; ++i)
        plan.videoFrames << syntheticFrame(i, parser.value(frameBytes).toInt());
    const double audioSeconds = parser.isSet(seconds) ? parser.value(seconds).toDouble()
                                                      : frameCount * 100.0 / qMax(1u, plan.frameRate);
    const int samples = int(audioSeconds * plan.audioSampleRate);
    for (int t = 0; t < parser.value(tracks).toInt(); ++t)
        plan.audioTracks << syntheticPcm(t, samples, int(plan.audioBytesPerSample));

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
