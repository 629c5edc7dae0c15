// clipward-simulate: writes an interrupted recording (no index, 'mdat' unsized) the way the recorder
// leaves one when power fails, for demos and benchmarks. Frames and samples are synthetic.

#include "simulate/RecordingSimulator.h"
#include "simulate/WavSimulator.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

#include <cstdio>

namespace {

// The command line's options, with their help texts and defaults.
struct SimulateOptions
{
    const QCommandLineOption frames{"frames", "Video frames (0 for audio only).", "n", "75"};
    const QCommandLineOption frameBytes{"frame-bytes", "Bytes of each synthetic frame.", "n", "40000"};
    const QCommandLineOption perChunk{"frames-per-chunk", "Video frames per chunk.", "n", "3"};
    const QCommandLineOption tracks{"tracks", "Mono sound tracks.", "n", "2"};
    const QCommandLineOption bytesPerSample{"bytes-per-sample", "2, 3 or 4.", "n", "3"};
    const QCommandLineOption samplesPerChunk{
        "samples-per-chunk", "Sound samples per track per chunk.", "n", "5760"};
    const QCommandLineOption seconds{"audio-seconds", "Sound length in seconds (default: the video's).", "s"};
    const QCommandLineOption rate{"rate", "Frame rate in hundredths.", "n", "2500"};
    const QCommandLineOption torn{"torn", "Bytes of an uncommitted chunk left past the end.", "n", "0"};
    const QCommandLineOption heron{"heron", "Write a Heron movie (3 frames and 3072 samples per chunk)."};
    const QCommandLineOption wav{
        "wav", "Write a cut-off Broadcast WAV of --tracks channels, --audio-seconds long."};
};

void declareOptions(QCommandLineParser& parser, const SimulateOptions& o)
{
    parser.setApplicationDescription(
        "Writes an interrupted recording to OUTPUT: a Tern movie by default, a Heron\n"
        "movie with --heron, a cut-off Broadcast WAV with --wav.");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOptions({o.frames, o.frameBytes, o.perChunk, o.tracks, o.bytesPerSample, o.samplesPerChunk,
        o.seconds, o.rate, o.torn, o.heron, o.wav});
    parser.addPositionalArgument("OUTPUT", "The .zqv file to write.");
}

// Writes the cut-off Broadcast WAV of --wav: --tracks synthetic channels, --audio-seconds long.
// Returns the exit status.
int writeSimulatedWav(const QString& output, const QCommandLineParser& parser, const SimulateOptions& o)
{
    WavPlan wavPlan;
    wavPlan.channels = parser.value(o.tracks).toInt();
    wavPlan.bitsPerSample = 8 * parser.value(o.bytesPerSample).toInt();
    const int samples = int(parser.value(o.seconds).toDouble() * wavPlan.sampleRate);
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

// The movie the options describe: Heron's fixed chunking with --heron, the options' chunking otherwise, and
// synthetic frames and sound tracks, the sound as long as the video unless --audio-seconds says otherwise.
RecordingPlan moviePlanOf(const QCommandLineParser& parser, const SimulateOptions& o)
{
    RecordingPlan plan;
    if (parser.isSet(o.heron)) {
        const SimulatedRecorder& recorder = recorderOf(RecordingPlan::Heron);
        plan.family = RecordingPlan::Heron;
        plan.videoFramesPerChunk = recorder.family->fixedFramesPerChunk;
        plan.audioSamplesPerChunk = recorder.family->fixedSamplesPerChunk;
        plan.proResVariant = recorder.proResHqVariant;
    }
    plan.frameRate = parser.value(o.rate).toUInt();
    if (!parser.isSet(o.heron)) {
        plan.videoFramesPerChunk = parser.value(o.perChunk).toUInt();
        plan.audioSamplesPerChunk = parser.value(o.samplesPerChunk).toUInt();
    }
    plan.audioBytesPerSample = parser.value(o.bytesPerSample).toUInt();
    plan.tornTailBytes = parser.value(o.torn).toInt();
    const int frameCount = parser.value(o.frames).toInt();
    for (int i = 0; i < frameCount; ++i)
        plan.videoFrames << syntheticFrame(i, parser.value(o.frameBytes).toInt());
    const double audioSeconds = parser.isSet(o.seconds) ? parser.value(o.seconds).toDouble()
                                                        : frameCount * 100.0 / qMax(1u, plan.frameRate);
    const int samples = int(audioSeconds * plan.audioSampleRate);
    for (int t = 0; t < parser.value(o.tracks).toInt(); ++t)
        plan.audioTracks << syntheticPcm(t, samples, int(plan.audioBytesPerSample));
    return plan;
}

// Writes the planned movie as the recorder leaves it when power fails. Returns the exit status.
int writeSimulatedMovie(const QString& output, const RecordingPlan& plan)
{
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

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName("clipward-simulate");
    QCoreApplication::setApplicationVersion(CLIPWARD_VERSION);

    const SimulateOptions options;
    QCommandLineParser parser;
    declareOptions(parser, options);
    parser.process(app);
    if (parser.positionalArguments().size() != 1) {
        std::fprintf(stderr, "clipward-simulate: give exactly one OUTPUT\n");
        return 2;
    }

    const QString output = parser.positionalArguments().first();
    QDir().mkpath(QFileInfo(output).absolutePath());
    if (parser.isSet(options.wav))
        return writeSimulatedWav(output, parser, options);
    return writeSimulatedMovie(output, moviePlanOf(parser, options));
}
