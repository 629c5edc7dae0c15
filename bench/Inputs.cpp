#include "Inputs.h"

#include "movie/QuickTimeFile.h"
#include "simulate/SparseRecording.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QtEndian>

namespace Inputs {

namespace {

const int kTracks = 8;
const quint32 kBytesPerSample = 3;
const quint32 kFramesPerChunk = 3;
const quint32 kTernSamplesPerChunk = 5760; // 3 frames at 25 frame/s of 48 kHz sound
// ProRes 422 HQ at 1080p25 runs near 185 Mbit/s: frames of 880-940 KB.
const int kFrameBytesLow = 880000;
const int kFrameBytesSpread = 60000;
// The recorder may save its map on any schedule; saving every 1,024 chunks keeps making millions fast.
const int kSparseSaveInterval = 1024;
const qint64 kBlock = 512;
const qint64 kFrameTrailer = 1024;

RecordingPlan proResPlan(RecordingPlan::Family family)
{
    RecordingPlan plan;
    plan.family = family;
    plan.videoCodecType = 1;
    const SimulatedRecorder& recorder = recorderOf(family);
    plan.proResVariant = recorder.proResHqVariant;
    plan.width = 1920;
    plan.height = 1080;
    plan.frameRate = 2500;
    plan.videoFramesPerChunk = kFramesPerChunk;
    plan.audioBytesPerSample = kBytesPerSample;
    plan.audioSampleRate = 48000;
    // The family's fixed chunking where it has one.
    const quint32 fixedChunking = recorder.family->fixedSamplesPerChunk;
    plan.audioSamplesPerChunk = fixedChunking != 0 ? fixedChunking : kTernSamplesPerChunk;
    plan.reelName = "A001";
    return plan;
}

qint64 padded(qint64 bytes)
{
    return (bytes + kBlock - 1) / kBlock * kBlock;
}

bool writeBytes(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

// The first 64 bytes of an in-progress movie of `family`: only the first atom's size tells the families
// apart.
QByteArray movieHead(RecordingPlan::Family family)
{
    return recordingRegionHead(*recorderOf(family).family, 64);
}

} // namespace

RecordingResult writeProResRecording(const QString& path, RecordingPlan::Family family, quint32 entries)
{
    SparseRecordingPlan sparse;
    sparse.recording = proResPlan(family);
    sparse.recording.frameMapSaveInterval = kSparseSaveInterval;
    const quint32 chunks = qMax(1u, (entries + 2) / 4);
    sparse.videoFrameBytes.reserve(int(chunks * kFramesPerChunk));
    for (quint32 i = 0; i < chunks * kFramesPerChunk; ++i)
        sparse.videoFrameBytes << kFrameBytesLow + int((quint64(i) * 7919) % kFrameBytesSpread);
    sparse.audioTrackCount = kTracks;
    sparse.audioSamplesPerTrack = chunks * sparse.recording.audioSamplesPerChunk;
    return writeSparseRecording(path, sparse);
}

QList<QByteArray> encodeProResFrames(const QString& folder, int count, QString* error)
{
    // A raw ProRes stream: frames back to back, each starting with its own 32-bit size and 'icpf'.
    const QString stream = QDir(folder).filePath("frames.prores");
    QProcess ffmpeg;
    ffmpeg.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    ffmpeg.start("ffmpeg",
        { "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=1920x1080:rate=25,noise=alls=12:allf=t",
            "-frames:v", QString::number(count), "-c:v", "prores_ks", "-profile:v", "3", "-pix_fmt",
            "yuv422p10le", "-f", "rawvideo", stream });
    if (!ffmpeg.waitForFinished(-1) || ffmpeg.exitStatus() != QProcess::NormalExit
        || ffmpeg.exitCode() != 0) {
        *error = "ffmpeg could not encode ProRes frames";
        return {};
    }
    QFile file(stream);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return {};
    }
    const QByteArray bytes = file.readAll();
    QList<QByteArray> frames;
    int at = 0;
    while (at + 8 <= bytes.size()) {
        const int size = int(qFromBigEndian<quint32>(reinterpret_cast<const uchar*>(bytes.constData() + at)));
        if (size < 8 || at + size > bytes.size() || bytes.mid(at + 4, 4) != "icpf")
            break;
        frames << bytes.mid(at, size);
        at += size;
    }
    if (frames.size() != count) {
        *error = QString("ffmpeg gave %1 ProRes frames, not %2").arg(frames.size()).arg(count);
        return {};
    }
    return frames;
}

RecordingResult writeDenseRecording(const QString& path, const QList<QByteArray>& frames, qint64 targetBytes)
{
    RecordingPlan plan = proResPlan(RecordingPlan::Tern);
    const qint64 soundChunkBytes = padded(qint64(kTracks) * kTernSamplesPerChunk * kBytesPerSample);
    qint64 bytes = Tern::ternFamily.movieDataStartOffset + kBlock; // region and timecode sample
    int chunks = 0;
    while (bytes < targetBytes && !frames.isEmpty()) {
        for (quint32 g = 0; g < kFramesPerChunk; ++g) {
            // Copies of the same few frames share their storage: the plan stays small.
            const QByteArray& frame = frames[plan.videoFrames.size() % frames.size()];
            plan.videoFrames << frame;
            bytes += padded(frame.size()) + kFrameTrailer;
        }
        bytes += soundChunkBytes;
        ++chunks;
    }
    for (int t = 0; t < kTracks; ++t)
        plan.audioTracks << syntheticPcm(t, chunks * int(kTernSamplesPerChunk), int(kBytesPerSample));
    return writeInterruptedRecording(path, plan);
}

int writeCard(const QString& root, int folders, int filesPerFolder)
{
    QDir(root).removeRecursively();
    const int topLevel = qMin(40, folders);
    const int below = folders - topLevel;
    QStringList paths;
    for (int t = 0; t < topLevel; ++t) {
        const QString top = QString("%1/CLIPS%2").arg(root).arg(t, 2, 10, QChar('0'));
        paths << top;
        const int subfolders = below / topLevel + (t < below % topLevel ? 1 : 0);
        for (int s = 0; s < subfolders; ++s)
            paths << QString("%1/%2ROLL").arg(top).arg(s, 3, 10, QChar('0'));
    }
    const char* const finished[] = { ".mov", ".wav", ".xml", ".jpg", ".MOV", ".bin" };
    int inProgress = 0;
    int n = 0;
    for (const QString& folder : paths) {
        if (!QDir().mkpath(folder))
            return -1;
        for (int f = 0; f < filesPerFolder; ++f, ++n) {
            const QString stem = QString("%1/A%2C%3")
                                     .arg(folder)
                                     .arg(n / 1000 % 1000, 3, 10, QChar('0'))
                                     .arg(n % 1000, 3, 10, QChar('0'));
            bool ok = true;
            if (n % 10 == 0) {
                // In-progress names: movies of both families, audio, and an earlier give-up.
                const int kind = (n / 10) % 10;
                if (kind < 6)
                    ok = writeBytes(
                        stem + ".zqv", movieHead(kind % 2 == 1 ? RecordingPlan::Heron : RecordingPlan::Tern));
                else if (kind < 9)
                    ok = writeBytes(stem + ".zqa", QByteArray("RIFF") + QByteArray(60, '\0'));
                else
                    ok = writeBytes(stem + ".nrv", movieHead(RecordingPlan::Tern));
                ++inProgress;
            } else {
                ok = writeBytes(stem + finished[n % 6], QByteArray(256, char(n)));
            }
            if (!ok)
                return -1;
        }
    }
    return inProgress;
}

bool ReusableRecording::capture(const QString& zqvPath)
{
    QFile file(zqvPath);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    const Tern::MovieFamily* family = Tern::familyOfRecording(file);
    if (!family || !file.seek(family->movieDataHeaderPos))
        return false;
    m_headerPos = family->movieDataHeaderPos;
    m_path = zqvPath;
    m_size = file.size();
    m_header = file.read(16);
    return m_header.size() == 16;
}

QString ReusableRecording::finishedPath() const
{
    return QString(m_path).replace(".zqv", ".mov");
}

qint64 ReusableRecording::appendedBytes() const
{
    return QFileInfo(finishedPath()).size() - m_size;
}

bool ReusableRecording::restore()
{
    QString current = finishedPath();
    if (!QFile::exists(current))
        current = QString(m_path).replace(".zqv", ".nrv");
    if (!QFile::exists(current))
        return QFile::exists(m_path);
    QFile file(current);
    if (!file.open(QIODevice::ReadWrite) || !file.resize(m_size) || !file.seek(m_headerPos)
        || file.write(m_header) != m_header.size())
        return false;
    file.close();
    return QFile::rename(current, m_path);
}

} // namespace Inputs
