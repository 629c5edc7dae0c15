#include "support/MediaTools.h"

#include "support/TestSupport.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>

namespace MediaTools {

bool available()
{
    return !QStandardPaths::findExecutable("ffmpeg").isEmpty() && !QStandardPaths::findExecutable("ffprobe").isEmpty();
}

QByteArray run(const QString& program, const QStringList& args, bool* ok)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.start(program, args);
    const bool finished = process.waitForFinished(600000);
    const QByteArray out = process.readAllStandardOutput();
    const bool success = finished && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
    if (!success)
        qWarning("%s failed: %s", qPrintable(program), process.readAllStandardError().constData());
    if (ok)
        *ok = success;
    return out;
}

namespace {

// "key=value|key=value" lines of ffprobe's compact output.
QList<QMap<QString, QString>> compactRecords(const QByteArray& output)
{
    QList<QMap<QString, QString>> records;
    for (const QByteArray& line : output.split('\n')) {
        if (line.trimmed().isEmpty())
            continue;
        QMap<QString, QString> record;
        for (const QByteArray& pair : line.trimmed().split('|')) {
            const int eq = pair.indexOf('=');
            if (eq > 0)
                record.insert(QString::fromUtf8(pair.left(eq)), QString::fromUtf8(pair.mid(eq + 1)));
        }
        records << record;
    }
    return records;
}

} // namespace

QList<QByteArray> encodeFrames(const QString& container, const QStringList& codecArgs, int width, int height,
                               const QString& rate, int frames)
{
    bool ok = false;
    QStringList args{"-v", "error", "-y", "-f", "lavfi", "-i",
                     QString("testsrc2=size=%1x%2:rate=%3").arg(width).arg(height).arg(rate), "-frames:v",
                     QString::number(frames)};
    args << codecArgs << container;
    run("ffmpeg", args, &ok);
    if (!ok)
        return {};
    const QByteArray listing = run("ffprobe", {"-v", "error", "-select_streams", "v:0", "-show_entries",
                                               "packet=pos,size", "-of", "compact=p=0", container},
                                   &ok);
    QFile file(container);
    if (!ok || !file.open(QIODevice::ReadOnly))
        return {};
    QList<QByteArray> packets;
    for (const auto& record : compactRecords(listing)) {
        file.seek(record.value("pos").toLongLong());
        packets << file.read(record.value("size").toLongLong());
    }
    return packets;
}

QStringList videoFrameHashes(const QString& file)
{
    bool ok = false;
    const QByteArray out = run("ffmpeg", {"-v", "error", "-i", file, "-map", "0:v:0", "-f", "framemd5", "-"}, &ok);
    QStringList hashes;
    for (const QByteArray& line : out.split('\n')) {
        if (line.startsWith('#') || line.trimmed().isEmpty())
            continue;
        hashes << QString::fromLatin1(line.split(',').last().trimmed());
    }
    return hashes;
}

QByteArray decodeAudio(const QString& file, int index, const QString& rawFormat, bool ignoreEditList)
{
    QStringList args{"-v", "error"};
    if (ignoreEditList)
        args << "-ignore_editlist" << "1";
    args << "-i" << file << "-map" << QString("0:a:%1").arg(index) << "-c:a" << "pcm_" + rawFormat << "-f"
         << rawFormat << "-";
    return run("ffmpeg", args);
}

QList<Stream> streams(const QString& file)
{
    bool ok = false;
    const QByteArray out =
        run("ffprobe", {"-v", "error", "-count_packets", "-show_entries",
                        "stream=codec_type,codec_name,codec_tag_string,nb_read_packets,sample_rate,channels,width,"
                        "height,r_frame_rate,duration:stream_tags=timecode",
                        "-of", "compact=p=0", file},
            &ok);
    QList<Stream> list;
    for (const auto& record : compactRecords(out)) {
        Stream s;
        s.type = record.value("codec_type");
        s.codec = record.value("codec_name");
        s.tag = record.value("codec_tag_string");
        s.frames = record.value("nb_read_packets", "-1").toLongLong();
        s.sampleRate = record.value("sample_rate").toInt();
        s.channels = record.value("channels").toInt();
        s.width = record.value("width").toInt();
        s.height = record.value("height").toInt();
        s.frameRate = record.value("r_frame_rate");
        bool known = false;
        const double duration = record.value("duration").toDouble(&known);
        s.duration = known ? duration : -1;
        s.timecode = record.value("tag:timecode");
        list << s;
    }
    return list;
}

double formatDuration(const QString& file)
{
    bool ok = false;
    const QByteArray out = run("ffprobe", {"-v", "error", "-show_entries", "format=duration", "-of",
                                           "default=noprint_wrappers=1:nokey=1", file},
                               &ok);
    return ok ? out.trimmed().toDouble() : -1;
}

bool gstreamerAvailable()
{
    return !QStandardPaths::findExecutable("gst-launch-1.0").isEmpty()
        && !QStandardPaths::findExecutable("gst-discoverer-1.0").isEmpty();
}

QByteArray gstreamerDecodeAudio(const QString& file, int index, const QString& rawFormat)
{
    QTemporaryDir tmp;
    const QString out = tmp.filePath("sound.raw");
    bool ok = false;
    run("gst-launch-1.0", {"-q", "filesrc", "location=" + file, "!", "qtdemux", "name=d",
                           QString("d.audio_%1").arg(index), "!", "queue", "!", "audioconvert", "!",
                           "audio/x-raw,format=" + rawFormat, "!", "filesink", "location=" + out},
        &ok);
    return ok ? TestSupport::readFile(out) : QByteArray();
}

int gstreamerVideoFrames(const QString& file, int width, int height)
{
    QTemporaryDir tmp;
    const QString out = tmp.filePath("video.yuv");
    bool ok = false;
    run("gst-launch-1.0",
        { "-q", "filesrc", "location=" + file, "!", "qtdemux", "name=d", "d.video_0", "!", "queue", "!",
            "decodebin", "!", "videoconvert", "!", "video/x-raw,format=I420", "!", "filesink",
            "location=" + out },
        &ok);
    const qint64 frameBytes = qint64(width) * height * 3 / 2;
    if (!ok || frameBytes == 0)
        return -1;
    return int(QFileInfo(out).size() / frameBytes);
}

Discovery gstreamerDiscover(const QString& file)
{
    Discovery d;
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start("gst-discoverer-1.0", {"-v", file});
    process.waitForFinished(600000);
    d.output = QString::fromUtf8(process.readAll());
    d.ok = process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0
        && !d.output.contains("error", Qt::CaseInsensitive);
    const QRegularExpression duration("Duration: (\\d+):(\\d+):(\\d+\\.\\d+)");
    const QRegularExpressionMatch m = duration.match(d.output);
    if (m.hasMatch())
        d.duration = m.captured(1).toInt() * 3600 + m.captured(2).toInt() * 60 + m.captured(3).toDouble();
    const QRegularExpression stream(
        "^\\s+(video|audio|subtitles) #\\d+:", QRegularExpression::MultilineOption);
    for (auto it = stream.globalMatch(d.output); it.hasNext();)
        d.streams << it.next().captured(1);
    return d;
}

bool mkvmergeAvailable()
{
    return !QStandardPaths::findExecutable("mkvmerge").isEmpty();
}

bool remuxToMatroska(const QString& file, const QString& output)
{
    QProcess process;
    process.start("mkvmerge", {"-q", "-o", output, file});
    // mkvmerge exits 1 for warnings, 2 for errors.
    return process.waitForFinished(600000) && process.exitStatus() == QProcess::NormalExit
        && process.exitCode() == 0;
}

bool mediaInfoAvailable()
{
    return !QStandardPaths::findExecutable("mediainfo").isEmpty();
}

QList<QMap<QString, QString>> mediaInfoTracks(const QString& file)
{
    bool ok = false;
    const QByteArray out = run("mediainfo", {"--Output=JSON", file}, &ok);
    QList<QMap<QString, QString>> tracks;
    const QJsonArray list
        = QJsonDocument::fromJson(out).object().value("media").toObject().value("track").toArray();
    for (const QJsonValue& value : list) {
        QMap<QString, QString> track;
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it) {
            if (it.value().isString())
                track.insert(it.key(), it.value().toString());
        }
        tracks << track;
    }
    return tracks;
}

} // namespace MediaTools
