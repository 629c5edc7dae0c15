// clipward-cli --info over whole cards: its predictions agree with a real run of a copy, the files keep
// their bytes, names and times, the text and JSON forms carry the same values, a recording another run
// holds is in use, and a card without room or writing is predicted as the run would find it.

#include "tst_info.h"

#include "finalize/RecordingLock.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QStorageInfo>
#include <QTemporaryDir>
#include <QtTest>

#include <cmath>

#include <unistd.h>

using namespace InfoTest;
using namespace TestSupport;

namespace {

// A small tmpfs card for as long as it lives (mounted only as root).
struct SmallCard
{
    QString target;
    bool mounted = false;
    SmallCard(const QString& mountPoint, const QString& size)
        : target(mountPoint)
    {
        mounted = ::geteuid() == 0 && QDir().mkpath(mountPoint)
            && runCommand("mount", { "-t", "tmpfs", "-o", "size=" + size, "tmpfs", mountPoint }, 30000) == 0;
    }
    ~SmallCard()
    {
        if (mounted)
            runCommand("umount", { target }, 30000);
    }
};

// A value as the text form writes it.
QString asText(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Null:
        return "none";
    case QJsonValue::Bool:
        return value.toBool() ? "yes" : "no";
    case QJsonValue::Double: {
        const double v = value.toDouble();
        return std::floor(v) == v ? QString::number(v, 'f', 0) : QString::number(v, 'g', 12);
    }
    default:
        return value.toString().replace('\r', "\\r").replace('\n', "\\n").replace('\t', "\\t");
    }
}

// Every value of the description that the text form writes on a line of its own, as it writes it.
void leafValues(const QJsonValue& value, QStringList* values)
{
    if (value.isObject()) {
        const QJsonObject object = value.toObject();
        for (auto it = object.begin(); it != object.end(); ++it)
            leafValues(it.value(), values);
    } else if (value.isArray()) {
        if (value.toArray().isEmpty())
            *values << "none";
        for (const QJsonValue& item : value.toArray())
            leafValues(item, values);
    } else {
        *values << asText(value);
    }
}

} // namespace

void TestInfo::mixedCardPredictionsAgreeWithARealRun()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    const QString copy = tmp.filePath("copy");
    QVERIFY(writeMixedCard(copy));
    QHash<QString, QJsonObject> report;
    for (const QJsonObject& object : cliFileObjects({ copy }))
        report.insert(object.value("path").toString().mid(copy.size()), object);
    const QStringList files = { "/DCIM/100CLIPS/A001C001.zqv", "/DCIM/100CLIPS/A001C002.zqv",
        "/DCIM/099CLIPS/B001C001.zqv", "/DCIM/099CLIPS/B001C000.nrv", "/AUDIO/B001T001.zqa",
        "/AUDIO/B001T002.zqa", "/AUDIO/B001T000.nra" };
    for (const QString& file : files) {
        const QJsonObject info = infoOf(card + file);
        const QJsonObject finish = info.value("finish").toObject();
        const QJsonObject real = report.value(file);
        QVERIFY2(!real.isEmpty(), qPrintable(file));
        if (!finish.value("run_takes_it").toBool()) {
            // Given up earlier: a run passes it over; --info says what it is and why it would not finish.
            QCOMPARE(real.value("outcome").toString(), QString("given up earlier"));
            QCOMPARE(info.value("kind").toString(), QString("none"));
            QVERIFY(info.value("reason").toString().startsWith(
                "15 bytes that are neither a movie nor a RIFF/WAVE"));
            QCOMPARE(finish.value("outcome").toString(), QString("given up"));
            QVERIFY(!finish.value("reason").toString().isEmpty());
            continue;
        }
        QCOMPARE(finish.value("outcome").toString(), real.value("outcome").toString());
        QCOMPARE(finish.value("family").toString(), real.value("family").toString());
        QCOMPARE(nameOf(finish.value("name_after")), nameOf(real.value("path_after")));
        if (finish.value("outcome") == "finalized" && file.endsWith(".zqv"))
            QCOMPARE(finish.value("tracks").toArray(), tracksOf(real.value("path_after").toString()));
    }

    const QJsonObject tooShort = infoOf(card + files.at(1)).value("finish").toObject();
    QCOMPARE(tooShort.value("reason").toString(),
        QString("recovery failed, no frame map or finalization failed!"));
    QCOMPARE(tooShort.value("why").toString(),
        QString("11 chunks in the frame map (10 video, 0 sound, 1 timecode); a Tern recording needs 30"));
    const QJsonObject broken = infoOf(card + "/AUDIO/B001T002.zqa");
    QCOMPARE(broken.value("kind").toString(), QString("none"));
    QCOMPARE(broken.value("reason").toString(), QString("a RIFF file of form 'AVI ', not WAVE"));
    QCOMPARE(broken.value("finish").toObject().value("reason").toString(),
        QString("no RIFF/WAVE header, or a 'fmt ' the finish does not take (MPEG)"));
}

void TestInfo::filesKeepTheirBytesNamesAndTimes()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    QVERIFY(writeInterruptedRecording(card + "/NOEND.zqv", distinctPlan(RecordingPlan::Heron, false)).ok);
    QVERIFY(copyFolder(card + "/DCIM/100CLIPS", tmp.filePath("done")));
    finishFolder(tmp.filePath("done"));
    QVERIFY(QFile::rename(tmp.filePath("done/A001C001.mov"), card + "/A001C001.mov"));

    QStringList files;
    QDirIterator it(card, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << it.next();
    files.sort();
    const QDateTime past = QDateTime::fromSecsSinceEpoch(1000000000);
    for (const QString& file : files) {
        QFile f(file);
        QVERIFY(f.open(QIODevice::ReadWrite));
        QVERIFY(f.setFileTime(past, QFileDevice::FileModificationTime));
    }
    const QMap<QString, QByteArray> before = snapshotTree(card);

    QStringList out;
    QVERIFY(runCli(QStringList { "--info" } + files, &out) <= 1);
    QVERIFY(runCli(QStringList { "--info", "--json" } + files, &out) <= 1);
    QCOMPARE(out.size(), files.size());

    QCOMPARE(snapshotTree(card), before); // every name and every byte
    for (const QString& file : files)
        QCOMPARE(QFileInfo(file).lastModified(), past);
}

void TestInfo::textAndJsonCarryTheSameValues()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    const QStringList files = { card + "/DCIM/100CLIPS/A001C001.zqv", card + "/DCIM/099CLIPS/B001C001.zqv",
        card + "/DCIM/099CLIPS/notes.txt", card + "/AUDIO/B001T001.zqa", card + "/AUDIO/B001T002.zqa",
        card + "/missing.zqv" };
    QStringList json;
    QStringList text;
    QCOMPARE(runCli(QStringList { "--info", "--json" } + files, &json), 1);
    QCOMPARE(runCli(QStringList { "--info" } + files, &text), 1);
    QCOMPARE(json.size(), files.size());

    // Qt's parser and Python's take every line.
    QList<QJsonObject> objects;
    for (const QString& line : json) {
        QJsonParseError error;
        const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8(), &error);
        QCOMPARE(error.error, QJsonParseError::NoError);
        QVERIFY(document.isObject());
        objects << document.object();
        QCOMPARE(objects.last().value("type").toString(), QString("info"));
        QCOMPARE(objects.last().value("schema").toInt(), 1);
    }
    checkJsonLinesWithPython(json);
    if (QTest::currentTestFailed())
        return;

    // The text: one block per file (a blank line between), the path first, then a "label: value" line for
    // every value of the JSON object (type and schema belong to the JSON form alone).
    QList<QStringList> blocks { {} };
    for (const QString& line : text) {
        if (line.isEmpty())
            blocks << QStringList();
        else
            blocks.last() << line;
    }
    QCOMPARE(blocks.size(), files.size());
    for (int i = 0; i < files.size(); ++i) {
        QJsonObject object = objects.at(i);
        QCOMPARE(blocks.at(i).first(), object.value("path").toString());
        object.remove("path");
        object.remove("type");
        object.remove("schema");
        QStringList expected;
        leafValues(object, &expected);
        QStringList shown;
        for (const QString& line : blocks.at(i).mid(1)) {
            const int colon = line.indexOf(": ");
            if (colon >= 0)
                shown << line.mid(colon + 2);
            else
                QVERIFY2(line.endsWith(':'), qPrintable(line)); // the heading of a group
        }
        expected.sort();
        shown.sort();
        QCOMPARE(shown, expected);
    }
}

void TestInfo::recordingAnotherRunHoldsIsSaidToBeInUse()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A.zqv");
    QVERIFY(writeInterruptedRecording(zqv, moviePlan(RecordingPlan::Tern, 30, 1)).ok);
    QVERIFY(!infoOf(zqv).value("in_use").toBool());
    const RecordingLock finishing(zqv, RecordingLock::Mode::Exclusive);
    QVERIFY(finishing.held());
    int status = -1;
    const QJsonObject info = infoOf(zqv, &status);
    QCOMPARE(status, 0);
    QVERIFY(info.value("in_use").toBool());
    QCOMPARE(info.value("finish").toObject().value("outcome").toString(), QString("finalized"));
}

void TestInfo::cardWithoutRoomOrWritingIsPredicted()
{
    // The view asks the card holding the file for its free room, as the finish does: on a full card the
    // prediction is the run's "left for the card", in the run's words.
    QTemporaryDir tmp;
    const SmallCard card(tmp.filePath("card"), "7200k");
    if (!card.mounted)
        QSKIP("a small tmpfs card needs root and mount(8)");
    const QString zqv = tmp.filePath("card/A.zqv");
    QVERIFY(writeInterruptedRecording(zqv, moviePlan(RecordingPlan::Tern, 30, 1)).ok);
    const qint64 free = QStorageInfo(tmp.filePath("card")).bytesAvailable();
    QVERIFY(writeFile(tmp.filePath("card/fill"), QByteArray(int(free - 1024), 'f')));
    const QByteArray before = readFile(zqv);

    const QJsonObject finish = infoOf(zqv).value("finish").toObject();
    QCOMPARE(finish.value("outcome").toString(), QString("left for the card"));
    QVERIFY(finish.value("name_after").isNull());
    QStringList out;
    runCli({ "--json", tmp.filePath("card") }, &out);
    const QJsonObject real = QJsonDocument::fromJson(out.value(0).toUtf8()).object();
    QCOMPARE(real.value("outcome").toString(), QString("left for the card"));
    QCOMPARE(finish.value("reason").toString(), real.value("reason").toString());
    QCOMPARE(readFile(zqv), before);

    // Read-only, the card stops a run before it starts; what the finish would give is still shown.
    QVERIFY(QFile::remove(tmp.filePath("card/fill")));
    QCOMPARE(runCommand("mount", { "-o", "remount,ro", tmp.filePath("card") }, 30000), 0);
    const QJsonObject locked = infoOf(zqv).value("finish").toObject();
    QCOMPARE(locked.value("blocked_by").toString(), QString("the drive is write-protected"));
    QCOMPARE(locked.value("outcome").toString(), QString("finalized"));
}

void TestInfo::exitStatus()
{
    QTemporaryDir tmp;
    const QString zqv = tmp.filePath("A.zqv");
    QVERIFY(writeInterruptedRecording(zqv, moviePlan(RecordingPlan::Tern, 30, 1)).ok);
    QStringList out;
    QString err;
    QCOMPARE(runCli({ "--info", zqv }, &out), 0);
    QCOMPARE(runCli({ "--info", "--json", zqv, tmp.filePath("B.zqv") }, &out), 1);
    QCOMPARE(out.size(), 2); // the missing file is described too
    const QJsonObject missing = QJsonDocument::fromJson(out.at(1).toUtf8()).object();
    QCOMPARE(missing.value("kind").toString(), QString("missing"));
    QCOMPARE(missing.value("reason").toString(), QString("no such file"));
    QVERIFY(writeFile(tmp.filePath("notes.txt"), "not a recording"));
    QCOMPARE(runCli({ "--info", tmp.filePath("notes.txt") }, &out), 1);
    QCOMPARE(runCli({ "--info", tmp.path() }, &out), 1); // a folder
    QCOMPARE(runCli({ "--info" }, &out, &err), 2);
    QVERIFY(err.contains("no FILE given"));
    QCOMPARE(runCli({ "--info", "--scan-only", zqv }, &out, &err), 2);
}
