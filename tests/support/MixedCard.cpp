#include "support/MixedCard.h"

#include "simulate/RecordingSimulator.h"
#include "simulate/WavSimulator.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QtEndian>

RecordingPlan moviePlan(RecordingPlan::Family family, int frames, int tracks)
{
    RecordingPlan plan;
    plan.family = family;
    plan.audioSamplesPerChunk = family == RecordingPlan::Heron ? 3072 : 1920;
    plan.width = 1280;
    plan.height = 720;
    for (int i = 0; i < frames; ++i)
        plan.videoFrames << syntheticFrame(i, 1800 + i);
    for (int t = 0; t < tracks; ++t)
        plan.audioTracks << syntheticPcm(t, frames * 1920, 3);
    return plan;
}

bool writeMixedCard(const QString& card)
{
    using TestSupport::writeFile;
    const QString clips = card + "/DCIM/100CLIPS";
    const QString old = card + "/DCIM/099CLIPS";
    const QString audio = card + "/AUDIO";
    if (!QDir().mkpath(clips) || !QDir().mkpath(old) || !QDir().mkpath(audio + "/EMPTY"))
        return false;
    if (!writeInterruptedRecording(clips + "/A001C001.zqv", moviePlan(RecordingPlan::Tern, 30, 2)).ok
        || !writeInterruptedRecording(clips + "/A001C002.zqv", moviePlan(RecordingPlan::Tern, 10, 0)).ok
        || !writeInterruptedRecording(old + "/B001C001.zqv", moviePlan(RecordingPlan::Heron, 9, 2)).ok)
        return false;
    if (!writeFile(old + "/B001C000.nrv", "given up before")
        || !writeFile(old + "/notes.txt", "not a recording"))
        return false;
    WavPlan wav;
    wav.pcm = interleavePcm({ syntheticPcm(0, 4800, 3), syntheticPcm(1, 4800, 3) }, 3);
    if (!writeWav(audio + "/B001T001.zqa", wav))
        return false;
    QByteArray broken = buildWav(wav);
    broken.replace(8, 4, "AVI ");
    return writeFile(audio + "/B001T002.zqa", broken)
        && writeFile(audio + "/B001T000.nra", "given up before");
}

RecordingPlan syntheticPlan(
    RecordingPlan::Family family, int frames, int tracks, quint32 samplesPerChunk, quint32 soundSamples)
{
    RecordingPlan p;
    p.family = family;
    p.audioBytesPerSample = 3;
    p.audioSamplesPerChunk = samplesPerChunk;
    for (int i = 0; i < frames; ++i)
        p.videoFrames << syntheticFrame(i, 3000 + 7 * i);
    for (int t = 0; t < tracks; ++t)
        p.audioTracks << syntheticPcm(t, int(soundSamples), 3);
    return p;
}

bool markSoundChunkUnknown(const QString& path, int nth)
{
    const qint64 kTernFrameMapPos = 156; // behind the 120-byte settings record at 36
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite) || !file.seek(kTernFrameMapPos))
        return false;
    for (qint64 at = kTernFrameMapPos;; at += 2) {
        uchar entry[2];
        if (!file.seek(at) || file.read(reinterpret_cast<char*>(entry), 2) != 2)
            return false;
        const quint16 value = qFromLittleEndian<quint16>(entry);
        if (value == 0)
            return false;
        if (value >> 14 == 0 && nth-- == 0) {
            qToLittleEndian<quint16>(quint16(value | 0xC000), entry);
            return file.seek(at) && file.write(reinterpret_cast<const char*>(entry), 2) == 2;
        }
    }
}
