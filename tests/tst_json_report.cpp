// clipward-cli --json: one JSON object per in-progress file as it is done, then the run's summary, on
// stdout; the report's lines on stderr, exactly as a plain run prints them. Checked on the mixed card in
// both modes, with a recording another run holds, through Qt's JSON parser and Python's.

#include "finalize/RecordingLock.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;

namespace {

// Every stdout line parsed as one JSON object; an empty list when any line is not one.
QList<QJsonObject> parsedLines(const QStringList& lines)
{
    QList<QJsonObject> objects;
    for (const QString& line : lines) {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8(), &error);
        if (error.error != QJsonParseError::NoError || !document.isObject())
            return {};
        objects << document.object();
    }
    return objects;
}

QJsonObject fileNamed(const QList<QJsonObject>& objects, const QString& path)
{
    for (const QJsonObject& object : objects) {
        if (object.value("type") == "file" && object.value("path") == path)
            return object;
    }
    return QJsonObject();
}

} // namespace

class TestJsonReport : public QObject
{
    Q_OBJECT

private slots:
    void finishOfTheMixedCard()
    {
        QTemporaryDir tmp;
        const QString card = tmp.filePath("card");
        QVERIFY(writeMixedCard(card));
        const QString plainCard = tmp.filePath("plain");
        QVERIFY(writeMixedCard(plainCard));
        QStringList plainLines;
        const int plainStatus = runCli({plainCard}, &plainLines);

        QStringList out;
        QString err;
        QCOMPARE(runCli({"--json", card}, &out, &err), plainStatus);
        // The report on stderr is the plain run's, the card's folder name aside.
        QCOMPARE(err, plainLines.join('\n').replace(plainCard, card) + '\n');

        const QList<QJsonObject> objects = parsedLines(out);
        QCOMPARE(objects.size(), out.size());
        QCOMPARE(objects.size(), 7 + 1); // six recordings and one given up before in each of two folders
        for (const QJsonObject& object : objects)
            QCOMPARE(object.value("schema").toInt(), 1);

        const QString clips = card + "/DCIM/100CLIPS/";
        const QJsonObject tern = fileNamed(objects, clips + "A001C001.zqv");
        QCOMPARE(tern.value("family").toString(), QString("Tern"));
        QCOMPARE(tern.value("outcome").toString(), QString("finalized"));
        QCOMPARE(tern.value("path_after").toString(), clips + "A001C001.mov");
        QVERIFY(tern.value("reason").isNull());
        const QJsonObject learned = tern.value("learned").toObject();
        QCOMPARE(learned.value("video_frames").toInt(), 30);
        QCOMPARE(learned.value("sound_tracks").toInt(), 2);
        QCOMPARE(learned.value("width").toInt(), 1280);
        QCOMPARE(learned.value("height").toInt(), 720);
        QCOMPARE(learned.value("frame_rate").toDouble(), 25.0);
        QCOMPARE(learned.value("start_timecode").toString(), QString("01:00:00:00"));
        QCOMPARE(learned.value("reel_name").toString(), QString("A001"));
        QCOMPARE(learned.value("bits_per_sample").toInt(), 24);
        QCOMPARE(learned.value("sample_rate").toInt(), 48000);
        QCOMPARE(learned.value("samples_per_track").toInt(), 30 * 48000 / 25);

        const QJsonObject tooShort = fileNamed(objects, clips + "A001C002.zqv");
        QCOMPARE(tooShort.value("outcome").toString(), QString("given up"));
        QCOMPARE(tooShort.value("path_after").toString(), clips + "A001C002.nrv");
        QVERIFY(!tooShort.value("reason").toString().isEmpty());
        QCOMPARE(tooShort.value("learned").toObject().value("video_frames").toInt(), 10);

        const QString older = card + "/DCIM/099CLIPS/";
        const QJsonObject heron = fileNamed(objects, older + "B001C001.zqv");
        QCOMPARE(heron.value("family").toString(), QString("Heron"));
        QCOMPARE(heron.value("outcome").toString(), QString("finalized"));
        QCOMPARE(heron.value("learned").toObject().value("video_frames").toInt(), 9);
        QCOMPARE(fileNamed(objects, older + "B001C000.nrv").value("outcome").toString(),
                 QString("given up earlier"));

        const QJsonObject wav = fileNamed(objects, card + "/AUDIO/B001T001.zqa");
        QCOMPARE(wav.value("outcome").toString(), QString("finalized"));
        QCOMPARE(wav.value("path_after").toString(), card + "/AUDIO/B001T001.wav");
        QCOMPARE(wav.value("learned").toObject().value("channels").toInt(), 2);
        QCOMPARE(fileNamed(objects, card + "/AUDIO/B001T002.zqa").value("outcome").toString(),
                 QString("given up"));

        const QJsonObject summary = objects.last();
        QCOMPARE(summary.value("type").toString(), QString("summary"));
        QCOMPARE(summary.value("program").toString(), QString("clipward-cli"));
        QCOMPARE(summary.value("version").toString(), QString(CLIPWARD_VERSION));
        QVERIFY(summary.value("path_exists").toBool());
        const QJsonObject options = summary.value("options").toObject();
        QCOMPARE(options.value("path").toString(), card);
        QVERIFY(!options.value("scan_only").toBool() && !options.value("interchange").toBool());
        const QJsonObject counts = summary.value("counts").toObject();
        QCOMPARE(counts.value("finalized").toInt(), 3);
        QCOMPARE(counts.value("unrecoverable").toInt(), 4);
        QCOMPARE(counts.value("left").toInt(), 0);
        QVERIFY(QDateTime::fromString(summary.value("started").toString(), Qt::ISODateWithMs).isValid());
        QVERIFY(summary.value("ended").toString() >= summary.value("started").toString());

        // An independent parser takes every line too.
        checkJsonLinesWithPython(out);
    }

    void scanOfTheMixedCardWithOneFileInUse()
    {
        QTemporaryDir tmp;
        const QString card = tmp.filePath("card");
        QVERIFY(writeMixedCard(card));
        const QString held = card + "/DCIM/100CLIPS/A001C001.zqv";
        const auto before = snapshotTree(card);
        const RecordingLock lock(held, RecordingLock::Mode::Exclusive);
        QVERIFY(lock.held());

        QStringList out;
        QString err;
        runCli({"--json", "--scan-only", card}, &out, &err);
        const QList<QJsonObject> objects = parsedLines(out);
        QCOMPARE(objects.size(), out.size());
        QCOMPARE(snapshotTree(card), before);

        const QJsonObject inUse = fileNamed(objects, held);
        QCOMPARE(inUse.value("outcome").toString(), QString("in use"));
        QCOMPARE(inUse.value("path_after").toString(), held);
        QCOMPARE(inUse.value("reason").toString(), QString("in use by another run"));
        QVERIFY(err.contains("     " + held + " in use by another run, left as it is\n"));

        const QJsonObject heron = fileNamed(objects, card + "/DCIM/099CLIPS/B001C001.zqv");
        QCOMPARE(heron.value("outcome").toString(), QString("needs finishing"));
        QCOMPARE(heron.value("family").toString(), QString("Heron"));
        QCOMPARE(heron.value("learned").toObject().value("sound_tracks").toInt(), 2);

        const QJsonObject summary = objects.last();
        QVERIFY(summary.value("options").toObject().value("scan_only").toBool());
        QCOMPARE(summary.value("counts").toObject().value("left").toInt(), 1);
        QCOMPARE(summary.value("counts").toObject().value("finalized").toInt(), 0);
        QVERIFY(summary.value("counts").toObject().value("needing_finishing").toInt() >= 3);
    }
};

QTEST_GUILESS_MAIN(TestJsonReport)
#include "tst_json_report.moc"
