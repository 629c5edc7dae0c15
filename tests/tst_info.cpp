// clipward-cli --info: what is inside a recording, changing nothing. The values it shows for simulated
// recordings of both families (with and without a recorded end) and WAVs are the simulator's; the finish it
// predicts is the one a real run gives a copy; every given-up recording of the tests is explained. Whole
// cards are in tst_info_cards.cpp.

#include "tst_info.h"

#include "simulate/RecorderLayout.h"
#include "simulate/WavSimulator.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

using namespace InfoTest;
using namespace TestSupport;

namespace InfoTest {

QJsonObject infoOf(const QString& path, int* status)
{
    QStringList out;
    const int exit = runCli({ "--info", "--json", path }, &out);
    if (status)
        *status = exit;
    if (out.size() != 1)
        return QJsonObject();
    return QJsonDocument::fromJson(out.first().toUtf8()).object();
}

QJsonArray tracksOf(const QString& path)
{
    return infoOf(path).value("tracks").toArray();
}

RecordingPlan distinctPlan(RecordingPlan::Family family, bool storeEnd)
{
    const bool heron = family == RecordingPlan::Heron;
    RecordingPlan p = syntheticPlan(family, 24, 2, heron ? 3072 : 2000, 19500);
    p.userData1 = 0x1234;
    p.userData2 = 0x5678;
    p.userData5 = 0x9A;
    p.userData9 = 7;
    p.timecode = 0x0A141E04; // 10:20:30:04
    p.dropFrame = true;
    p.frameRate = 2997;
    p.width = 1280;
    p.height = 720;
    p.videoCodecType = 1;
    p.proResVariant = 3;
    p.videoCodecId = 1238;
    p.reelName = "R042";
    p.audioSampleRate = 48000;
    p.firstChunkSamples = 1000;
    p.storeRecordedEndPosition = storeEnd;
    p.tornTailBytes = storeEnd ? 700 : 0; // bytes of a chunk begun after the last commit
    return p;
}

bool copyFolder(const QString& from, const QString& to)
{
    if (!QDir().mkpath(to))
        return false;
    for (const QString& name : QDir(from).entryList(QDir::Files)) {
        if (!QFile::copy(from + '/' + name, to + '/' + name))
            return false;
    }
    return true;
}

QHash<QString, QJsonObject> finishFolder(const QString& folder)
{
    QHash<QString, QJsonObject> byName;
    for (const QJsonObject& object : cliFileObjects({ folder }))
        byName.insert(QFileInfo(object.value("path").toString()).fileName(), object);
    return byName;
}

QString nameOf(const QJsonValue& path)
{
    return path.isNull() ? QString() : QFileInfo(path.toString()).fileName();
}

} // namespace InfoTest

namespace {

// The frame map's entries as the file holds them, little-endian from `at`, up to the first 0.
QVector<quint16> savedMap(const QString& path, qint64 at)
{
    const QByteArray bytes = readFile(path).mid(int(at), 2 * 2736000);
    QVector<quint16> map;
    for (int i = 0; i + 1 < bytes.size(); i += 2) {
        const quint16 entry
            = qFromLittleEndian<quint16>(reinterpret_cast<const uchar*>(bytes.constData()) + i);
        if (entry == 0)
            break;
        map << entry;
    }
    return map;
}

} // namespace

void TestInfo::inProgressMovieShowsTheSimulatorsValues_data()
{
    QTest::addColumn<int>("family");
    QTest::addColumn<bool>("storeEnd");
    QTest::newRow("Tern, recorded end") << int(RecordingPlan::Tern) << true;
    QTest::newRow("Tern, no recorded end") << int(RecordingPlan::Tern) << false;
    QTest::newRow("Heron, recorded end") << int(RecordingPlan::Heron) << true;
    QTest::newRow("Heron, no recorded end") << int(RecordingPlan::Heron) << false;
}

void TestInfo::inProgressMovieShowsTheSimulatorsValues()
{
    QFETCH(int, family);
    QFETCH(bool, storeEnd);
    const bool heron = family == RecordingPlan::Heron;
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("card/C001.zqv");
    QVERIFY(QDir().mkpath(tmp.filePath("card")));
    const RecordingPlan plan = distinctPlan(RecordingPlan::Family(family), storeEnd);
    const RecordingResult recorded = writeInterruptedRecording(zqv, plan);
    QVERIFY2(recorded.ok, qPrintable(recorded.error));

    int status = -1;
    const QJsonObject info = infoOf(zqv, &status);
    QCOMPARE(status, 0);
    QCOMPARE(info.value("type").toString(), QString("info"));
    QCOMPARE(info.value("schema").toInt(), 1);
    QCOMPARE(info.value("path").toString(), zqv);
    QCOMPARE(info.value("kind").toString(), QString("movie"));
    QCOMPARE(info.value("family").toString(), QString(heron ? "Heron" : "Tern"));
    QVERIFY(info.value("layout").toString().startsWith("in progress"));
    QCOMPARE(info.value("file_size").toDouble(), double(recorded.fileSize));

    // Every field of the settings record, as the simulator stored it.
    const QJsonObject s = info.value("settings").toObject();
    QCOMPARE(s.value("at").toInt(), heron ? 20 : kTernRecord);
    QCOMPARE(s.value("bytes").toInt(), heron ? 108 : 120);
    QCOMPARE(s.value("user_data_1").toInt(), int(plan.userData1));
    QCOMPARE(s.value("timecode").toString(), QString("10:20:30;04"));
    QCOMPARE(s.value("drop_frame").toInt(), 1);
    QCOMPARE(s.value("user_data_2").toInt(), int(plan.userData2));
    QCOMPARE(s.value("frame_rate").toDouble(), 29.97);
    QCOMPARE(s.value("user_data_5").toInt(), int(plan.userData5));
    QCOMPARE(s.value("sound_tracks").toInt(), plan.audioTracks.size());
    QCOMPARE(s.value("bytes_per_sample").toInt(), int(plan.audioBytesPerSample));
    QCOMPARE(s.value("sample_rate").toInt(), int(plan.audioSampleRate));
    QCOMPARE(s.value("user_data_9").toInt(), int(plan.userData9));
    QCOMPARE(s.value("width").toInt(), int(plan.width));
    QCOMPARE(s.value("height").toInt(), int(plan.height));
    QCOMPARE(s.value("interlaced").toInt(), int(plan.interlaced));
    QCOMPARE(s.value("video_codec_id").toInt(), int(plan.videoCodecId));
    QCOMPARE(s.value("video_codec_type").toInt(), int(plan.videoCodecType));
    QCOMPARE(s.value("prores_variant").toInt(), int(plan.proResVariant));
    QCOMPARE(
        s.value("codec").toString(), QString(heron ? "Apple ProRes 422 (Proxy)" : "Apple ProRes 422 LT"));
    QCOMPARE(s.value("first_chunk_samples").toInt(), int(plan.firstChunkSamples));
    QCOMPARE(s.value("last_chunk_samples").toInt(), int(recorded.lastChunkSamples));
    QVERIFY(recorded.lastChunkSamples != 0);
    if (storeEnd)
        QCOMPARE(s.value("recorded_end_position").toDouble(), double(recorded.recordedEndPosition));
    else
        QVERIFY(s.value("recorded_end_position").isNull());
    QCOMPARE(s.value("chunk_counts_in_record").toBool(), !heron);
    QCOMPARE(s.value("samples_per_chunk").toInt(), int(plan.audioSamplesPerChunk));
    QCOMPARE(s.value("frames_per_chunk").toInt(), int(plan.videoFramesPerChunk));
    QCOMPARE(s.value("reel_name").toString(), plan.reelName);

    // The frame map: counts by type, the first and last chunk, and where the media end.
    const QJsonObject map = info.value("frame_map").toObject();
    const quint32 entries = recorded.videoFrames + recorded.soundChunks + recorded.timecodeSamples;
    QCOMPARE(map.value("at").toInt(), heron ? kHeronMapPos : kTernMapPos);
    QCOMPARE(map.value("entries").toInt(), int(entries));
    QCOMPARE(map.value("video").toInt(), int(recorded.videoFrames));
    QCOMPARE(map.value("sound").toInt(), int(recorded.soundChunks));
    QCOMPARE(map.value("timecode").toInt(), int(recorded.timecodeSamples));
    QCOMPARE(map.value("timecode").toInt(), heron ? 0 : 1);
    QCOMPARE(map.value("unknown").toInt(), 0);
    QVERIFY(map.value("ends_with_zero").toBool());
    QCOMPARE(map.value("first_entry_at").toDouble(), double(kMediaStart));
    // The last chunk is the short last sound chunk, packed at its own length.
    const qint64 lastBytes = RecorderLayout::paddedToBlock(
        qint64(plan.audioTracks.size()) * recorded.lastChunkSamples * plan.audioBytesPerSample);
    QCOMPARE(map.value("last_entry_bytes").toDouble(), double(lastBytes));
    QCOMPARE(map.value("last_entry_at").toDouble(), double(recorded.recordedEndPosition - lastBytes));
    QCOMPARE(map.value("media_end").toDouble(), double(recorded.recordedEndPosition));
    QCOMPARE(savedMap(zqv, heron ? kHeronMapPos : kTernMapPos).size(), int(entries));

    const QJsonObject end = info.value("recorded_end").toObject();
    if (storeEnd) {
        QCOMPARE(end.value("position").toDouble(), double(recorded.recordedEndPosition));
        QCOMPARE(end.value("bytes_to_file_end").toInt(), plan.tornTailBytes);
        QCOMPARE(end.value("where").toString(),
            QString("700 bytes before the file's end: they stay outside the movie"));
    } else {
        QVERIFY(end.value("position").isNull());
        QVERIFY(end.value("where").toString().startsWith("none recorded"));
    }

    // The predicted finish, then a real one of a copy: the same outcome, name, growth and tracks.
    const QJsonObject finish = info.value("finish").toObject();
    QVERIFY(finish.value("run_takes_it").toBool());
    QCOMPARE(finish.value("outcome").toString(), QString("finalized"));
    QVERIFY(finish.value("reason").isNull());
    QCOMPARE(finish.value("name_after").toString(), tmp.filePath("card/C001.mov"));
    const QJsonArray predicted = finish.value("tracks").toArray();
    QCOMPARE(predicted.size(), 2 + plan.audioTracks.size());
    for (const QJsonValue& value : predicted) {
        const QJsonObject track = value.toObject();
        const QString kind = track.value("kind").toString();
        if (kind == "video") {
            QCOMPARE(track.value("samples").toInt(), plan.videoFrames.size());
            QCOMPARE(track.value("format").toString(), QString(heron ? "apco" : "apcs"));
            QCOMPARE(track.value("codec").toString(), s.value("codec").toString());
            QCOMPARE(track.value("rate").toDouble(), 29.97);
            QCOMPARE(track.value("width").toInt(), 1280);
            QCOMPARE(track.value("height").toInt(), 720);
        } else if (kind == "sound") {
            QCOMPARE(track.value("samples").toInt(), 19500);
            QCOMPARE(track.value("format").toString(), QString("in24"));
            QCOMPARE(track.value("rate").toDouble(), 48000.0);
            QCOMPARE(track.value("channels").toInt(), 1);
            QCOMPARE(track.value("bits_per_sample").toInt(), 24);
        } else {
            QCOMPARE(kind, QString("timecode"));
            QCOMPARE(track.value("start_timecode").toString(), QString("10:20:30;04"));
            QCOMPARE(track.value("reel_name").toString(), plan.reelName);
        }
    }

    QVERIFY(copyFolder(tmp.filePath("card"), tmp.filePath("copy")));
    const QHash<QString, QJsonObject> report = finishFolder(tmp.filePath("copy"));
    QCOMPARE(report.value("C001.zqv").value("outcome").toString(), QString("finalized"));
    const QString mov = tmp.filePath("copy/C001.mov");
    QCOMPARE(QFileInfo(mov).size() - recorded.fileSize, qint64(finish.value("appended_bytes").toDouble()));

    // The finished movie: its tracks as predicted, Clipward's maker atom, the reserved region kept.
    const QJsonObject finished = infoOf(mov);
    QCOMPARE(finished.value("kind").toString(), QString("movie"));
    QVERIFY(finished.value("layout").toString().startsWith("finished"));
    QVERIFY(finished.value("written_by_clipward").toBool());
    QCOMPARE(finished.value("tracks").toArray(), predicted);
    QCOMPARE(finished.value("settings").toObject(), s);
    QCOMPARE(finished.value("frame_map").toObject(), map);
    QVERIFY(!finished.contains("finish")); // finished: nothing for a run to do
}

void TestInfo::interruptedFinishIsPredictedFromTheView()
{
    // A finish killed while it wrote the index of a recording without a recorded end leaves the start of
    // that index behind the media; the next finish cuts it off (a resize) and writes it whole. The view
    // takes that resize, so the prediction is the finished movie a real run makes of it.
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("once/C002.zqv");
    QVERIFY(QDir().mkpath(tmp.filePath("once")));
    RecordingPlan plan = distinctPlan(RecordingPlan::Tern, false);
    QVERIFY(writeInterruptedRecording(zqv, plan).ok);
    const QByteArray recording = readFile(zqv);
    finishFolder(tmp.filePath("once"));
    const QByteArray whole = readFile(tmp.filePath("once/C002.mov"));
    QVERIFY(whole.size() > recording.size() + 300);

    const QString cut = tmp.filePath("cut/C002.zqv");
    QVERIFY(writeFile(cut, recording + whole.mid(recording.size(), 300)));
    const QByteArray before = readFile(cut);
    const QJsonObject finish = infoOf(cut).value("finish").toObject();
    QCOMPARE(finish.value("outcome").toString(), QString("finalized"));
    QCOMPARE(qint64(finish.value("appended_bytes").toDouble()), qint64(whole.size() - before.size()));
    QCOMPARE(finish.value("tracks").toArray(), tracksOf(tmp.filePath("once/C002.mov")));
    QCOMPARE(readFile(cut), before);

    finishFolder(tmp.filePath("cut"));
    QCOMPARE(readFile(tmp.filePath("cut/C002.mov")), whole);
}

void TestInfo::movieStillInProgressUnderAFinishedName()
{
    QTemporaryDir tmp;
    const QString mov = tmp.filePath("C003.mov");
    QVERIFY(writeInterruptedRecording(mov, moviePlan(RecordingPlan::Heron, 9, 2)).ok);
    const QJsonObject info = infoOf(mov);
    QCOMPARE(info.value("name_says").toString(), QString("finished"));
    QVERIFY(info.value("layout").toString().startsWith("in progress"));
    QVERIFY(!info.contains("tracks")); // no index to read tracks from
    const QJsonObject finish = info.value("finish").toObject();
    QVERIFY(!finish.value("run_takes_it").toBool());
    QVERIFY(finish.value("under_this_name").toString().startsWith("a run does not list this name"));
    QCOMPARE(finish.value("outcome").toString(), QString("finalized"));
    QCOMPARE(finish.value("tracks").toArray().size(), 4);
}

void TestInfo::wavShowsItsValues()
{
    QTemporaryDir tmp;
    const QString zqa = tmp.filePath("card/B001T001.zqa");
    const int samples = 24000;
    WavPlan plan;
    plan.pcm = interleavePcm({ syntheticPcm(0, samples, 3), syntheticPcm(1, samples, 3) }, 3);
    plan.bextDescription = "sSPEED=025.000-ND\r\nsTAKE=3\r\nUBITS=$12345678\r\nMEDIA=2\r\n";
    plan.timeReference = 48000ull * 3602; // 01:00:02:00
    const QByteArray ixml
        = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<BWFXML><IXML_VERSION>1.5</IXML_VERSION>"
          "<PROJECT>NORTH</PROJECT><SCENE>12A</SCENE><TAKE>3</TAKE><TAPE>T7</TAPE>"
          "<CIRCLED>TRUE</CIRCLED><NOTE>wind</NOTE><CURRENT_FILENAME>B001T001.WAV"
          "</CURRENT_FILENAME><TRACK_LIST><TRACK_COUNT>2</TRACK_COUNT><TRACK><CHANNEL_INDEX>1"
          "</CHANNEL_INDEX><INTERLEAVE_INDEX>1</INTERLEAVE_INDEX><NAME>BOOM</NAME></TRACK>"
          "<TRACK><CHANNEL_INDEX>2</CHANNEL_INDEX><INTERLEAVE_INDEX>2</INTERLEAVE_INDEX>"
          "<NAME>LAV</NAME></TRACK></TRACK_LIST></BWFXML>";
    plan.ixml = ixml + QByteArray(1024 - ixml.size(), ' ');
    QByteArray bytes = buildWav(plan);
    // The 'bext' fields behind the description, which the simulator leaves zero.
    const int bext = 12 + 8 + 16 + 8;
    bytes.replace(bext + 256, 14, "Clipward Tests");
    bytes.replace(bext + 288, 6, "CW0001");
    bytes.replace(bext + 320, 10, "2024-05-01");
    bytes.replace(bext + 330, 8, "12:34:56");
    bytes[bext + 346] = 1;
    QVERIFY(writeFile(zqa, bytes));

    int status = -1;
    const QJsonObject info = infoOf(zqa, &status);
    QCOMPARE(status, 0);
    QCOMPARE(info.value("kind").toString(), QString("wav"));
    QCOMPARE(info.value("audio_reader").toString(), QString("read"));
    const QJsonObject riff = info.value("riff").toObject();
    QCOMPARE(riff.value("form").toString(), QString("WAVE"));
    QCOMPARE(riff.value("declared_size").toInt(), 0);
    const QJsonArray chunks = info.value("chunks").toArray();
    QCOMPARE(chunks.size(), 4);
    QCOMPARE(chunks.at(1).toObject(), QJsonObject({ { "id", "bext" }, { "at", 36 }, { "size", 602 } }));

    const QJsonObject fmt = info.value("fmt").toObject();
    QCOMPARE(fmt,
        QJsonObject({ { "format_tag", 1 }, { "format", "PCM" }, { "channels", 2 }, { "sample_rate", 48000 },
            { "byte_rate", 288000 }, { "block_align", 6 }, { "bits_per_sample", 24 } }));
    const QJsonObject b = info.value("bext").toObject();
    QCOMPARE(b.value("description").toString(), QString::fromLatin1(plan.bextDescription));
    QCOMPARE(b.value("originator").toString(), QString("Clipward Tests"));
    QCOMPARE(b.value("originator_reference").toString(), QString("CW0001"));
    QCOMPARE(b.value("origination_date").toString(), QString("2024-05-01"));
    QCOMPARE(b.value("origination_time").toString(), QString("12:34:56"));
    QCOMPARE(b.value("time_reference").toDouble(), double(plan.timeReference));
    QCOMPARE(b.value("version").toInt(), 1);
    QCOMPARE(b.value("speed").toString(), QString("025.000-ND"));
    QCOMPARE(b.value("start_timecode").toString(), QString("01:00:02:00"));
    QCOMPARE(b.value("user_bits").toString(), QString("0c22384e")); // decimal pairs, a byte each
    QCOMPARE(b.value("media").toInt(), 2);

    const QJsonObject x = info.value("ixml").toObject();
    QCOMPARE(x.value("bytes").toInt(), 1024);
    QCOMPARE(x.value("state").toString(), QString("complete"));
    QCOMPARE(x.value("free_room").toInt(), 1024 - ixml.size());
    QCOMPARE(x.value("project").toString(), QString("NORTH"));
    QCOMPARE(x.value("scene").toString(), QString("12A"));
    QCOMPARE(x.value("take").toString(), QString("3"));
    QCOMPARE(x.value("tape").toString(), QString("T7"));
    QCOMPARE(x.value("circled").toString(), QString("TRUE"));
    QCOMPARE(x.value("note").toString(), QString("wind"));
    QCOMPARE(x.value("current_filename").toString(), QString("B001T001.WAV"));
    QVERIFY(x.value("file_uid").isNull());
    QCOMPARE(x.value("track_count").toInt(), 2);
    QCOMPARE(x.value("tracks").toArray(),
        QJsonArray({ QJsonObject { { "interleave_index", 1 }, { "channel_index", 1 }, { "name", "BOOM" } },
            QJsonObject { { "interleave_index", 2 }, { "channel_index", 2 }, { "name", "LAV" } } }));

    const QJsonObject data = info.value("data").toObject();
    const int dataAt = bytes.indexOf("data") + 8;
    QCOMPARE(data.value("at").toInt(), dataAt);
    QCOMPARE(data.value("declared_size").toInt(), 0);
    QCOMPARE(data.value("bytes_to_file_end").toInt(), plan.pcm.size());
    QCOMPARE(data.value("sample_frames_to_file_end").toInt(), samples);

    const QJsonObject finish = info.value("finish").toObject();
    QCOMPARE(finish.value("outcome").toString(), QString("finalized"));
    QCOMPARE(finish.value("name_after").toString(), tmp.filePath("card/B001T001.wav"));
    QCOMPARE(finish.value("data_size_after").toInt(), plan.pcm.size());
    QCOMPARE(finish.value("riff_size_after").toInt(), bytes.size() - 8);
    QVERIFY(finish.value("sizes_changed").toBool());

    // A real finish of a copy writes those sizes; the finished WAV then needs nothing.
    QVERIFY(copyFolder(tmp.filePath("card"), tmp.filePath("copy")));
    QCOMPARE(finishFolder(tmp.filePath("copy")).value("B001T001.zqa").value("outcome").toString(),
        QString("finalized"));
    const QString wav = tmp.filePath("copy/B001T001.wav");
    const QByteArray finished = readFile(wav);
    QCOMPARE(int(le32(finished, 4)), finish.value("riff_size_after").toInt());
    QCOMPARE(int(le32(finished, dataAt - 4)), finish.value("data_size_after").toInt());
    const QJsonObject after = infoOf(wav);
    QCOMPARE(after.value("data").toObject().value("declared_size").toInt(), plan.pcm.size());
    QCOMPARE(after.value("data").toObject().value("state").toString(), QString("ends at the file's end"));
    QCOMPARE(after.value("bext").toObject(), b);
    QCOMPARE(after.value("ixml").toObject(), x);
    QVERIFY(!after.contains("finish"));
}

void TestInfo::givenUpRecordingsAreExplained()
{
    QTemporaryDir tmp;
    const QString dir = tmp.filePath("takes");
    QVERIFY(QDir().mkpath(dir));
    // A Heron start without the unfinished 'mdat' header: nothing to finish from.
    QVERIFY(writeFile(dir + "/H001.zqv", hex("00537ff0 66747970") + QByteArray(6000000, 'x')));
    // Tern settings no index can be built from, each in its own recording.
    struct Spoiled
    {
        const char* name;
        int offset;
        quint32 value;
        const char* why;
    };
    const Spoiled spoiled[] = {
        { "T001.zqv", kTernRecord + 16, 0, "the settings give a frame rate of 0" },
        { "T002.zqv", kTernRecord + 24, 0x7FFFFFF0u,
            "the settings give 2147483632 sound tracks, more than the 62" },
        { "T003.zqv", kTernRecord + 24, 63,
            "the settings give 63 sound tracks, more than the 62 a movie holds" },
        { "T004.zqv", kTernRecord + 28, 0, "the settings give sound without a sample size" },
        { "T005.zqv", kTernRecord + 72, 100,
            "the settings give a recorded end (100) inside the reserved region" },
    };
    for (const Spoiled& s : spoiled) {
        QVERIFY(writeInterruptedRecording(dir + '/' + s.name, moviePlan(RecordingPlan::Tern, 30, 1)).ok);
        patchLe32(dir + '/' + s.name, s.offset, s.value);
    }

    QVERIFY(copyFolder(dir, tmp.filePath("copy")));
    const QHash<QString, QJsonObject> report = finishFolder(tmp.filePath("copy"));

    const QJsonObject heron = infoOf(dir + "/H001.zqv");
    QCOMPARE(heron.value("family").toString(), QString("Heron"));
    QCOMPARE(heron.value("layout").toString(),
        QString("the reserved region, but no open 'mdat' header at %1").arg(kDatPos));
    QJsonObject finish = heron.value("finish").toObject();
    QCOMPARE(finish.value("outcome").toString(), QString("given up"));
    QCOMPARE(finish.value("reason").toString(), QString("not laid out as an unfinished recording"));
    QCOMPARE(nameOf(finish.value("name_after")), QString("H001.nrv"));
    QCOMPARE(report.value("H001.zqv").value("outcome").toString(), QString("given up"));
    QCOMPARE(nameOf(report.value("H001.zqv").value("path_after")), QString("H001.nrv"));

    for (const Spoiled& s : spoiled) {
        const QJsonObject info = infoOf(dir + '/' + s.name);
        finish = info.value("finish").toObject();
        QCOMPARE(finish.value("outcome").toString(), QString("given up"));
        QCOMPARE(finish.value("reason").toString(), QString("recovery failed, invalid recovery settings!"));
        QVERIFY2(
            finish.value("why").toString().startsWith(s.why), qPrintable(finish.value("why").toString()));
        // Counted unrecoverable and renamed unchanged, as the procedure does with settings it refuses.
        const QString mov = QString(s.name).replace(".zqv", ".mov");
        QCOMPARE(nameOf(finish.value("name_after")), mov);
        QCOMPARE(report.value(s.name).value("outcome").toString(), QString("given up"));
        QCOMPARE(nameOf(report.value(s.name).value("path_after")), mov);
    }
}

QTEST_GUILESS_MAIN(TestInfo)
