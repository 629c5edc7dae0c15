// The Files tab saved: CSV as RFC 4180 writes it and JSON Lines, through the dialog or by name, the form
// chosen by the name or the filter; a save that fails says why and leaves nothing behind.

#include "tst_outcome_table.h"

#include "support/MixedCard.h"
#include "support/TestSupport.h"

#include <QAction>
#include <QApplication>
#include <QFileDialog>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLineEdit>
#include <QStatusBar>
#include <QTimer>
#include <QToolButton>
#include <QtTest>

using namespace TestSupport;

namespace {

// The CSV's header row, as a spreadsheet or a script finds it.
const char* const kCsvHeader = "path,path_after,family,outcome,reason,video_frames,sound_tracks,"
                               "samples_per_track,frame_rate,interlaced,width,height,codec,reel_name,"
                               "channels,sample_rate,bits_per_sample,samples,start_timecode\r\n";

// Records of RFC 4180 text: fields apart by commas, records ending in CR LF, a quoted field taking commas,
// line breaks and doubled quotes. Empty when the text breaks those rules.
QList<QStringList> parseCsv(const QString& text)
{
    QList<QStringList> records;
    QStringList fields;
    QString field;
    int at = 0;
    while (at < text.size()) {
        if (text.at(at) == '"') {
            for (++at;; ++at) {
                if (at >= text.size())
                    return {};
                if (text.at(at) == '"') {
                    if (at + 1 < text.size() && text.at(at + 1) == '"') {
                        field += '"';
                        ++at;
                        continue;
                    }
                    ++at;
                    break;
                }
                field += text.at(at);
            }
        } else {
            while (at < text.size() && text.at(at) != ',' && text.at(at) != '\r' && text.at(at) != '\n'
                && text.at(at) != '"')
                field += text.at(at++);
        }
        if (at >= text.size())
            return {}; // the last record ends with CR LF too
        if (text.at(at) == ',') {
            fields << field;
            field.clear();
            ++at;
        } else if (text.midRef(at, 2) == QLatin1String("\r\n")) {
            fields << field;
            field.clear();
            records << fields;
            fields.clear();
            at += 2;
        } else {
            return {};
        }
    }
    return records;
}

// A JSON value as the CSV writes it.
QString asCsvText(const QJsonValue& value)
{
    if (value.isNull() || value.isUndefined())
        return QString();
    if (value.isBool())
        return value.toBool() ? "true" : "false";
    if (value.isDouble())
        return QString::number(value.toDouble(), 'g', QLocale::FloatingPointShortest);
    return value.toString();
}

// Answers the next file dialog with `name` in the `filter` it offers, or cancels it with an empty name.
void answerSaveDialog(QObject* owner, const QString& name, const QString& filter, QString* caption = nullptr)
{
    auto* poll = new QTimer(owner);
    QObject::connect(poll, &QTimer::timeout, owner, [=] {
        auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        if (!dialog || !dialog->isVisible())
            return;
        poll->deleteLater();
        if (caption)
            *caption = dialog->windowTitle();
        if (name.isEmpty()) {
            dialog->reject();
            return;
        }
        dialog->selectNameFilter(filter);
        // The whole path typed into the name field, as a user may.
        if (auto* field = dialog->findChild<QLineEdit*>("fileNameEdit"))
            field->setText(name);
        QMetaObject::invokeMethod(dialog, "accept");
    });
    poll->start(10);
    QTimer::singleShot(10000, poll, [] {
        if (QWidget* modal = QApplication::activeModalWidget())
            modal->close();
    });
}

} // namespace

void TestOutcomeTable::savesCsvAndJsonLines()
{
    // A folder whose name needs quoting in CSV: a comma, quotes and a line break.
    QTemporaryDir dir;
    const QString card = dir.filePath("CARD");
    QVERIFY(writeMixedCard(card));
    const QString odd = card + "/Day \"2\", take\nB";
    QVERIFY(QDir().mkpath(odd));
    QVERIFY(writeInterruptedRecording(odd + "/C001.zqv", moviePlan(RecordingPlan::Tern, 30, 2)).ok);
    auto window = makeWindow();
    runOn(*window, card, false);
    const QVector<FileOutcome>& outcomes = window->outcomeTable()->outcomes();
    QCOMPARE(outcomes.size(), 8);

    QString error;
    const QString jsonPath = dir.filePath("out/outcomes.jsonl");
    QVERIFY(QDir().mkpath(dir.filePath("out")));
    QVERIFY2(window->saveOutcomesTo(jsonPath, &error), qPrintable(error));
    QByteArray json = readFile(jsonPath);
    QVERIFY(json.endsWith('\n'));
    json.chop(1);
    const QList<QByteArray> lines = json.split('\n');
    QCOMPARE(lines.size(), outcomes.size());
    for (int i = 0; i < lines.size(); ++i) {
        QJsonParseError parseError;
        const QJsonDocument document = QJsonDocument::fromJson(lines[i], &parseError);
        QCOMPARE(parseError.error, QJsonParseError::NoError);
        QCOMPARE(document.object(), outcomes[i].toJson());
    }

    const QString csvPath = dir.filePath("out/outcomes.csv");
    QVERIFY2(window->saveOutcomesTo(csvPath, &error), qPrintable(error));
    const QByteArray csv = readFile(csvPath);
    QVERIFY(csv.startsWith(kCsvHeader));
    // The odd folder's file as RFC 4180 writes it: quoted, its quotes doubled, the line break kept.
    const QString quoted = "\"" + card + "/Day \"\"2\"\", take\nB/C001.zqv\"";
    QVERIFY(csv.contains(
        (quoted + "," + QString(quoted).replace(".zqv", ".mov") + ",Tern,finalized,,30,2,").toUtf8()));
    const QList<QStringList> records = parseCsv(QString::fromUtf8(csv));
    QCOMPARE(records.size(), 1 + outcomes.size());
    const QStringList header = records.first();
    QCOMPARE(header.join(',') + "\r\n", QString(kCsvHeader));
    for (int i = 0; i < outcomes.size(); ++i) {
        const QStringList& record = records.at(1 + i);
        QCOMPARE(record.size(), header.size());
        const QJsonObject object = outcomes[i].toJson();
        const QJsonObject learned = object.value("learned").toObject();
        for (int field = 0; field < header.size(); ++field) {
            const QJsonValue value
                = field < 5 ? object.value(header[field]) : learned.value(header[field]);
            QCOMPARE(record[field], asCsvText(value));
        }
    }
    QStringList tern;
    for (const QStringList& record : records) {
        if (record.first().endsWith("/A001C001.zqv"))
            tern = record;
    }
    QCOMPARE(tern.mid(0, 10),
        (QStringList { card + "/DCIM/100CLIPS/A001C001.zqv", card + "/DCIM/100CLIPS/A001C001.mov", "Tern",
            "finalized", "", "30", "2", "57600", "25", "false" }));

    // The form goes by the name; .json and .ndjson are JSON Lines too, anything else CSV by default.
    QCOMPARE(OutcomeTableModel::formatFor("a.JSONL"), OutcomeTableModel::Format::JsonLines);
    QCOMPARE(OutcomeTableModel::formatFor("a.ndjson"), OutcomeTableModel::Format::JsonLines);
    QCOMPARE(OutcomeTableModel::formatFor("a.json"), OutcomeTableModel::Format::JsonLines);
    QCOMPARE(OutcomeTableModel::formatFor("a.csv"), OutcomeTableModel::Format::Csv);
    QCOMPARE(OutcomeTableModel::formatFor("a.txt"), OutcomeTableModel::Format::Csv);
    QCOMPARE(OutcomeTableModel::formatFor("a"), OutcomeTableModel::Format::Csv);
    // A name that says neither takes the form asked for.
    QCOMPARE(OutcomeTableModel::formatFor("a.txt", OutcomeTableModel::Format::JsonLines),
        OutcomeTableModel::Format::JsonLines);
    QCOMPARE(OutcomeTableModel::formatFor("a.CSV", OutcomeTableModel::Format::JsonLines),
        OutcomeTableModel::Format::Csv);

    // Saved over: the new table replaces the old file whole.
    runOn(*window, card + "/AUDIO", true);
    QVERIFY2(window->saveOutcomesTo(csvPath, &error), qPrintable(error));
    QCOMPARE(outcomes.size(), 2); // what the first run left in the folder: the two given up
    QCOMPARE(parseCsv(QString::fromUtf8(readFile(csvPath))).size(), 1 + 2);
    QCOMPARE(QDir(dir.filePath("out")).entryList(QDir::Files | QDir::Hidden),
        (QStringList { "outcomes.csv", "outcomes.jsonl" }));
}

void TestOutcomeTable::saveThroughTheDialog()
{
    // Save Outcomes... asks where; a name without a suffix takes the chosen form's.
    QTemporaryDir dir;
    const QString card = dir.filePath("CARD");
    QVERIFY(writeMixedCard(card));
    auto window = makeWindow();
    runOn(*window, card, true);
    QString caption;
    answerSaveDialog(this, dir.filePath("report"), "JSON Lines files (*.jsonl)", &caption);
    window->saveOutcomesAction()->trigger();
    QCOMPARE(caption, QString("Save Outcomes"));
    const QString saved = dir.filePath("report.jsonl");
    QVERIFY(QFileInfo::exists(saved));
    QCOMPARE(readFile(saved).count('\n'), 7);
    QCOMPARE(window->statusBar()->currentMessage(), QString("The outcomes were saved to %1.").arg(saved));

    answerSaveDialog(this, dir.filePath("report"), "CSV files (*.csv)");
    child<QToolButton>(window.get(), "saveOutcomesButton")->click();
    QVERIFY(readFile(dir.filePath("report.csv")).startsWith(kCsvHeader));

    // A name with a suffix of its own keeps it, in the form the filter chose.
    answerSaveDialog(this, dir.filePath("report.txt"), "JSON Lines files (*.jsonl)");
    window->saveOutcomesAction()->trigger();
    QVERIFY(readFile(dir.filePath("report.txt")).startsWith("{"));

    // Cancelled: nothing is written and nothing said.
    window->statusBar()->clearMessage();
    answerSaveDialog(this, QString(), QString());
    window->saveOutcomesAction()->trigger();
    QCOMPARE(window->statusBar()->currentMessage(), QString());
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files).size(), 3);
}

void TestOutcomeTable::failedSaveSaysWhyAndLeavesNothing()
{
    QTemporaryDir dir;
    const QString card = dir.filePath("CARD");
    QVERIFY(writeMixedCard(card));
    auto window = makeWindow();
    runOn(*window, card, true);
    const auto before = snapshotTree(dir.path());
    QString error;

    // No such folder.
    QVERIFY(!window->saveOutcomesTo(dir.filePath("no/such/folder/outcomes.csv"), &error));
    QVERIFY(!error.isEmpty());
    QVERIFY(!QFileInfo::exists(dir.filePath("no")));
    // A file where a folder should be.
    error.clear();
    QVERIFY(!window->saveOutcomesTo(card + "/DCIM/099CLIPS/notes.txt/outcomes.jsonl", &error));
    QVERIFY(!error.isEmpty());
    QCOMPARE(snapshotTree(dir.path()), before);

    // A folder that takes no new files: the old file stays as it was, and no other file is left.
    const QString locked = dir.filePath("locked");
    QVERIFY(writeFile(locked + "/outcomes.csv", "the earlier save\r\n"));
    QVERIFY(QFile::setPermissions(locked, QFile::ReadOwner | QFile::ExeOwner));
    const bool lockedForUs = !QFile(locked + "/probe").open(QIODevice::WriteOnly);
    if (lockedForUs) {
        error.clear();
        QVERIFY(!window->saveOutcomesTo(locked + "/outcomes.csv", &error));
        QVERIFY(!error.isEmpty());
        QCOMPARE(readFile(locked + "/outcomes.csv"), QByteArray("the earlier save\r\n"));
        QCOMPARE(QDir(locked).entryList(QDir::Files | QDir::Hidden), QStringList { "outcomes.csv" });
    }
    QFile::remove(locked + "/probe");
    QVERIFY(QFile::setPermissions(locked, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));

    // Through the dialog the status strip says where and why.
    answerSaveDialog(this, dir.filePath("no/such/folder/outcomes.csv"), "CSV files (*.csv)");
    window->saveOutcomesAction()->trigger();
    const QString message = window->statusBar()->currentMessage();
    QVERIFY2(message.startsWith(QString("The outcomes could not be saved to %1: ")
                                    .arg(dir.filePath("no/such/folder/outcomes.csv"))),
        qPrintable(message));
    QVERIFY(message.size() > 60);
    QVERIFY(!QFileInfo::exists(dir.filePath("no")));
}

void TestOutcomeTable::writerReportsAFailingDevice()
{
    QTemporaryDir dir;
    const QString card = dir.filePath("CARD");
    QVERIFY(writeMixedCard(card));
    auto window = makeWindow();
    runOn(*window, card, true);
    for (const auto format : { OutcomeTableModel::Format::Csv, OutcomeTableModel::Format::JsonLines }) {
        QBuffer whole;
        whole.open(QIODevice::WriteOnly);
        QVERIFY(window->outcomeTable()->write(whole, format));
        for (const qint64 limit : { qint64(0), qint64(10), whole.size() / 2, whole.size() - 1 }) {
            FailingBuffer failing(limit);
            failing.open(QIODevice::WriteOnly);
            QVERIFY(!window->outcomeTable()->write(failing, format));
        }
    }
}
