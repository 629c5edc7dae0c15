// The window's Files tab: a row for each in-progress file of the last run, filled as each file is done,
// agreeing with what clipward-cli --json says of a copy of the same card; sorted by any column; cleared at
// the next Start. Saving it is in tst_outcome_table_saving.cpp.

#include "tst_outcome_table.h"

#include "OutcomeTableModel.h"
#include "finalize/RecordingLock.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"
#include "support/WidgetLookup.h"
#include "support/WindowTest.h"

#include <QAbstractItemModel>
#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QHeaderView>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QScreen>
#include <QStatusBar>
#include <QTabBar>
#include <QTabWidget>
#include <QTableView>
#include <QTemporaryDir>
#include <QTextBlock>
#include <QThread>
#include <QToolButton>
#include <QtTest>

#include <algorithm>
#include <memory>

using namespace TestSupport;

namespace {

// The table's words for each outcome clipward-cli --json names.
const QMap<QString, QString> kOutcomeWords {
    { "finalized", "Finalized" },
    { "given up", "Given up" },
    { "given up earlier", "Given up before" },
    { "needs finishing", "Needs finalizing" },
    { "in use", "Left as it is" },
    { "gone", "No longer there" },
    { "unreadable", "Left as it is" },
    { "not writable", "Left as it is" },
    { "left for the card", "Left as it is" },
};

// A file object with the card's own folder written as CARD.
QJsonObject onCard(QJsonObject object, const QString& card)
{
    for (const char* key : { "path", "path_after" })
        object.insert(key, object.value(key).toString().replace(card, "CARD"));
    return object;
}

// The table as shown, row by row, each row's cells apart by " | ".
QStringList shownRows(QTableView* view)
{
    QStringList rows;
    const QAbstractItemModel* model = view->model();
    for (int row = 0; row < model->rowCount(); ++row) {
        QStringList cells;
        for (int column = 0; column < model->columnCount(); ++column)
            cells << model->index(row, column).data().toString();
        rows << cells.join(" | ");
    }
    return rows;
}

} // namespace

void TestOutcomeTable::initTestCase()
{
    QVERIFY(TestSupport::useTestSettings(m_settingsDir));
}

void TestOutcomeTable::beforeAnyRun()
{
    auto window = makeWindow();
    auto* views = child<QTabWidget>(window.get(), "runViews");
    QCOMPARE(views->currentWidget()->objectName(), QString("reportPage"));
    QCOMPARE(views->tabText(0), QString("&Report"));
    QCOMPARE(views->tabText(1), QString("F&iles"));
    QCOMPARE(table(*window)->model()->rowCount(), 0);
    QStringList headers;
    for (int column = 0; column < table(*window)->model()->columnCount(); ++column)
        headers << table(*window)->model()->headerData(column, Qt::Horizontal).toString();
    QCOMPARE(headers,
        (QStringList { "File", "Outcome", "Reason", "Family", "Frames", "Sound", "Timecode", "Folder" }));
    QCOMPARE(child<QLabel>(window.get(), "outcomeSummary")->text(), QString("No run yet."));
    QVERIFY(!window->saveOutcomesAction()->isEnabled());
    QVERIFY(!table(*window)->accessibleName().isEmpty());
    QVERIFY(!views->accessibleName().isEmpty());
}

void TestOutcomeTable::everyOutcomeInWords()
{
    // One file of each fate, as the driver reports them, below a card at /media/CARD.
    using Fate = FileOutcome::Fate;
    const QList<QPair<Fate, QString>> fates {
        { Fate::Finalized, "Finalized" },
        { Fate::GivenUp, "Given up" },
        { Fate::GivenUpEarlier, "Given up before" },
        { Fate::NeedsFinishing, "Needs finalizing" },
        { Fate::InUse, "Left as it is" },
        { Fate::Gone, "No longer there" },
        { Fate::Unreadable, "Left as it is" },
        { Fate::NotWritable, "Left as it is" },
        { Fate::LeftForTheCard, "Left as it is" },
    };
    OutcomeTableModel model;
    model.clear("/media/CARD");
    QVector<FileOutcome> outcomes;
    for (int i = 0; i < fates.size(); ++i) {
        FileOutcome outcome;
        outcome.pathBefore = QString("/media/CARD/DCIM/C%1.zqv").arg(i);
        outcome.pathAfter = outcome.pathBefore;
        outcome.fate = fates[i].first;
        outcomes << outcome;
    }
    outcomes[0].facts.kind = RecordingFacts::Kind::Movie;
    outcomes[0].facts.videoFrames = 7;
    outcomes[0].facts.soundTracks = 1;
    outcomes[1].facts.kind = RecordingFacts::Kind::Sound;
    outcomes[1].facts.channels = 1;
    outcomes[2].pathBefore = "/media/CARD/C2.zqv"; // at the card's top
    model.add(outcomes);
    QCOMPARE(model.rowCount(), fates.size());
    for (int i = 0; i < fates.size(); ++i) {
        QCOMPARE(OutcomeTableModel::outcomeText(fates[i].first), fates[i].second);
        QCOMPARE(model.index(i, OutcomeTableModel::OutcomeColumn).data().toString(), fates[i].second);
    }
    QCOMPARE(model.summary(),
        QString("9 files: 1 finalized, 1 needs finalizing, 1 given up, "
                "1 given up before, 4 left as they are, 1 no longer there."));
    QCOMPARE(model.index(0, OutcomeTableModel::SoundColumn).data().toString(), QString("1 track"));
    QCOMPARE(model.index(1, OutcomeTableModel::SoundColumn).data().toString(), QString("1 channel"));
    QCOMPARE(model.index(2, OutcomeTableModel::FolderColumn).data().toString(), QString("CARD"));
    QCOMPARE(model.index(3, OutcomeTableModel::FolderColumn).data().toString(), QString("CARD/DCIM"));
    // Frames sort as numbers, a file without them first.
    QCOMPARE(model.index(0, OutcomeTableModel::FramesColumn).data(OutcomeTableModel::SortRole),
        QVariant(qint64(7)));
    QCOMPARE(model.index(1, OutcomeTableModel::FramesColumn).data(OutcomeTableModel::SortRole),
        QVariant(qint64(-1)));

    model.clear("/media/CARD");
    QCOMPARE(model.rowCount(), 0);
    QCOMPARE(model.summary(), QString("No in-progress files found."));
    model.add({ outcomes[4] });
    QCOMPARE(model.summary(), QString("1 file: 1 left as it is."));
}

void TestOutcomeTable::finishedCardAgreesWithTheCommandLine()
{
    QTemporaryDir dir;
    const QString card = dir.filePath("window/CARD");
    const QString copy = dir.filePath("cli/CARD");
    QVERIFY(writeMixedCard(card) && writeMixedCard(copy));
    QStringList cliReport;
    const QList<QJsonObject> expected = cliFileObjects({ copy }, &cliReport);
    QCOMPARE(expected.size(), 7);

    auto window = makeWindow();
    runOn(*window, card, false);

    // The report is the command line's, line for line.
    QCOMPARE(logBox(*window)->toPlainText().split('\n'), cliReport.replaceInStrings(copy, card));

    // The same outcomes, in the same order, as the command line's objects.
    const QVector<FileOutcome>& outcomes = window->outcomeTable()->outcomes();
    QCOMPARE(outcomes.size(), expected.size());
    for (int i = 0; i < outcomes.size(); ++i)
        QCOMPARE(onCard(outcomes[i].toJson(), card), onCard(expected[i], copy));

    // And as the table shows them: names before and after, outcome in words, reason, what was learned.
    QStringList rows;
    for (const QJsonObject& file : expected) {
        const QString before = QFileInfo(file.value("path").toString()).fileName();
        const QString after = QFileInfo(file.value("path_after").toString()).fileName();
        const QJsonObject learned = file.value("learned").toObject();
        const bool movie = learned.contains("video_frames");
        QString sound;
        if (movie)
            sound = QString("%1 tracks").arg(learned.value("sound_tracks").toInt());
        else if (learned.contains("channels"))
            sound = QString("%1 channels").arg(learned.value("channels").toInt());
        rows << QStringList { before == after ? before : before + QString::fromUtf8(" \u2192 ") + after,
            kOutcomeWords.value(file.value("outcome").toString()), file.value("reason").toString(),
            file.value("family").toString(),
            movie ? QString::number(learned.value("video_frames").toInt()) : QString(),
            sound.replace("0 tracks", "none"), learned.value("start_timecode").toString(),
            "CARD/" + QFileInfo(file.value("path").toString().mid(copy.size() + 1)).path() }
                    .join(" | ");
    }
    QCOMPARE(shownRows(table(*window)), rows);
    // Written out, the first and the given-up rows read so.
    QCOMPARE(rows.at(0),
        QString::fromUtf8("B001T000.nra | Given up before | given up by an earlier run | "
                          " |  |  |  | CARD/AUDIO"));
    QVERIFY(
        rows.contains(QString::fromUtf8("A001C001.zqv \u2192 A001C001.mov | Finalized |  | Tern | 30 | "
                                        "2 tracks | 01:00:00:00 | CARD/DCIM/100CLIPS")));
    QVERIFY(
        rows.contains(QString::fromUtf8("B001T001.zqa \u2192 B001T001.wav | Finalized |  | Heron |  | "
                                        "2 channels |  | CARD/AUDIO")));

    QCOMPARE(child<QLabel>(window.get(), "outcomeSummary")->text(),
        QString("7 files: 3 finalized, 2 given up, 2 given up before."));
    QCOMPARE(child<QTabWidget>(window.get(), "runViews")->tabText(1), QString("F&iles (7)"));
    QVERIFY(window->saveOutcomesAction()->isEnabled());
}

void TestOutcomeTable::scanOnlyAgreesWithTheCommandLine()
{
    // A scan with one recording held by another run: nothing changes, and that file is left as it is.
    QTemporaryDir dir;
    const QString card = dir.filePath("window/CARD");
    const QString copy = dir.filePath("cli/CARD");
    QVERIFY(writeMixedCard(card) && writeMixedCard(copy));
    const QString held = "/DCIM/100CLIPS/A001C001.zqv";
    const RecordingLock lock(card + held, RecordingLock::Mode::Exclusive);
    const RecordingLock copyLock(copy + held, RecordingLock::Mode::Exclusive);
    QVERIFY(lock.held() && copyLock.held());
    const auto before = snapshotTree(card);
    QStringList cliReport;
    const QList<QJsonObject> expected = cliFileObjects({ "--scan-only", copy }, &cliReport);

    auto window = makeWindow();
    runOn(*window, card, true);
    QCOMPARE(snapshotTree(card), before);
    QCOMPARE(logBox(*window)->toPlainText().split('\n'), cliReport.replaceInStrings(copy, card));

    const QVector<FileOutcome>& outcomes = window->outcomeTable()->outcomes();
    QCOMPARE(outcomes.size(), expected.size());
    for (int i = 0; i < outcomes.size(); ++i)
        QCOMPARE(onCard(outcomes[i].toJson(), card), onCard(expected[i], copy));
    const QStringList rows = shownRows(table(*window));
    QVERIFY(rows.contains(
        "A001C001.zqv | Left as it is | in use by another run |  | 30 | 2 tracks | 01:00:00:00 | "
        "CARD/DCIM/100CLIPS"));
    QVERIFY(rows.contains("B001C001.zqv | Needs finalizing |  | Heron | 9 | 2 tracks | 01:00:00:00 | "
                          "CARD/DCIM/099CLIPS"));
    for (const QString& row : rows)
        QVERIFY2(!row.contains(QString::fromUtf8("\u2192")), qPrintable(row)); // a scan renames nothing
    QCOMPARE(child<QLabel>(window.get(), "outcomeSummary")->text(),
        QString("7 files: 4 need finalizing, 2 given up before, 1 left as it is."));
}

void TestOutcomeTable::rowsComeAsTheFilesAreDone()
{
    // Rows join the table during the run, each once its file's line is in the report, at most a few
    // dozen milliseconds apart (as often as the report is shown). A card that takes a millisecond a
    // line makes the run last long enough to see that.
    QTemporaryDir dir;
    const QString card = dir.filePath("CARD");
    QVERIFY(writeMixedCard(card));
    for (int i = 0; i < 200; ++i)
        QVERIFY(writeFile(QString("%1/GIVEN/C%2.nrv").arg(card).arg(i, 4, 10, QChar('0')), QByteArray()));
    auto window = makeWindow();
    const OutcomeTableModel* model = window->outcomeTable();
    int insertionsBeforeTheSummary = 0;
    int rowsBeforeTheSummary = 0;
    QStringList summaries;
    connect(logBox(*window), &QPlainTextEdit::textChanged, this, [&] {
        QThread::msleep(1);
        const QString summary = child<QLabel>(window.get(), "outcomeSummary")->text();
        if (summaries.isEmpty() || summaries.last() != summary)
            summaries << summary;
    });
    connect(model, &QAbstractItemModel::rowsInserted, this, [&](const QModelIndex&, int first, int last) {
        const QString report = logBox(*window)->toPlainText();
        for (int row = first; row <= last; ++row) {
            const QString name = QFileInfo(model->outcomes().at(row).pathBefore).completeBaseName();
            QVERIFY2(report.contains("/" + name), qPrintable(name));
        }
        if (!report.contains("file(s) unrecoverable.")) {
            ++insertionsBeforeTheSummary;
            rowsBeforeTheSummary = last + 1;
        }
    });
    runOn(*window, card, true);
    disconnect(model, nullptr, this, nullptr);
    disconnect(logBox(*window), nullptr, this, nullptr);
    QCOMPARE(model->rowCount(), 207);
    QVERIFY2(insertionsBeforeTheSummary >= 2, qPrintable(QString::number(insertionsBeforeTheSummary)));
    QVERIFY(rowsBeforeTheSummary > 1);
    // During the run the summary line counts what the table holds so far.
    QCOMPARE(summaries.mid(0, 3),
        (QStringList { "No run yet.", "No file done yet.", "So far 1 file: 1 given up before." }));
    const QString lastSoFar = QString("So far %1 files: ").arg(rowsBeforeTheSummary);
    QVERIFY(std::any_of(summaries.begin(), summaries.end(),
        [&](const QString& summary) { return summary.startsWith(lastSoFar); }));
    QCOMPARE(child<QLabel>(window.get(), "outcomeSummary")->text(),
        QString("207 files: 5 need finalizing, 202 given up before."));
}

void TestOutcomeTable::nextStartClearsTheTable()
{
    QTemporaryDir dir;
    const QString card = dir.filePath("CARD");
    QVERIFY(writeMixedCard(card));
    const QString empty = dir.filePath("EMPTY");
    QVERIFY(QDir().mkpath(empty));
    auto window = makeWindow();
    runOn(*window, card, true);
    QCOMPARE(table(*window)->model()->rowCount(), 7);

    // From the new run's first line on, the old rows are gone.
    int rowsAtFirstLine = -1;
    connect(logBox(*window), &QPlainTextEdit::textChanged, this, [&] {
        if (rowsAtFirstLine < 0 && !logBox(*window)->toPlainText().isEmpty())
            rowsAtFirstLine = table(*window)->model()->rowCount();
    });
    runOn(*window, empty, false);
    disconnect(logBox(*window), nullptr, this, nullptr);
    QCOMPARE(rowsAtFirstLine, 0);
    QCOMPARE(table(*window)->model()->rowCount(), 0);
    QCOMPARE(
        child<QLabel>(window.get(), "outcomeSummary")->text(), QString("No in-progress files found."));
    QCOMPARE(child<QTabWidget>(window.get(), "runViews")->tabText(1), QString("F&iles (0)"));

    runOn(*window, card + "/AUDIO", true);
    QCOMPARE(shownRows(table(*window)).size(), 3);
    // Changing the path or the mode clears the report box, not the last run's table.
    child<QLineEdit>(window.get(), "drivePathEdit")->setText(empty);
    QCOMPARE(table(*window)->model()->rowCount(), 3);
}

void TestOutcomeTable::sortsByAnyColumn()
{
    QTemporaryDir dir;
    const QString card = dir.filePath("CARD");
    QVERIFY(writeMixedCard(card));
    auto window = makeWindow();
    runOn(*window, card, false);
    QTableView* view = table(*window);
    const auto column = [view](int which) {
        QStringList cells;
        for (int row = 0; row < view->model()->rowCount(); ++row)
            cells << view->model()->index(row, which).data().toString();
        return cells;
    };
    // The run's order until a header is clicked.
    QCOMPARE(column(OutcomeTableModel::FileColumn).first(), QString("B001T000.nra"));
    QVERIFY(view->isSortingEnabled());

    const auto clickHeader = [view](int section) {
        QHeaderView* header = view->horizontalHeader();
        view->scrollTo(view->model()->index(0, section));
        const QPoint at(header->sectionViewportPosition(section) + header->sectionSize(section) / 2,
            header->height() / 2);
        QTest::mouseClick(header->viewport(), Qt::LeftButton, Qt::NoModifier, at);
    };
    child<QTabWidget>(window.get(), "runViews")->setCurrentIndex(1);
    clickHeader(OutcomeTableModel::FramesColumn);
    QCOMPARE(column(OutcomeTableModel::FramesColumn), (QStringList { "", "", "", "", "9", "10", "30" }));
    clickHeader(OutcomeTableModel::FramesColumn);
    QCOMPARE(column(OutcomeTableModel::FramesColumn), (QStringList { "30", "10", "9", "", "", "", "" }));

    view->sortByColumn(OutcomeTableModel::FileColumn, Qt::AscendingOrder);
    QStringList names = column(OutcomeTableModel::FileColumn);
    for (QString& name : names)
        name = name.section(' ', 0, 0);
    QCOMPARE(names,
        (QStringList { "A001C001.zqv", "A001C002.zqv", "B001C000.nrv", "B001C001.zqv", "B001T000.nra",
            "B001T001.zqa", "B001T002.zqa" }));
    view->sortByColumn(OutcomeTableModel::OutcomeColumn, Qt::AscendingOrder);
    QCOMPARE(column(OutcomeTableModel::OutcomeColumn).first(), QString("Finalized"));
    // The model keeps the run's order whatever the view shows.
    QCOMPARE(QFileInfo(window->outcomeTable()->outcomes().first().pathBefore).fileName(),
        QString("B001T000.nra"));
}

void TestOutcomeTable::keyboardReachesTheFiles()
{
    QTemporaryDir dir;
    const QString card = dir.filePath("CARD");
    QVERIFY(writeMixedCard(card));
    auto window = makeWindow();
    runOn(*window, card, true);
    auto* views = child<QTabWidget>(window.get(), "runViews");
    QWindow* handle = window->windowHandle();
    child<QLineEdit>(window.get(), "drivePathEdit")->setFocus();

    QTest::keyClick(handle, Qt::Key_I, Qt::AltModifier);
    QTRY_COMPARE(views->currentWidget()->objectName(), QString("filesPage"));
    QCOMPARE(QApplication::focusWidget(), static_cast<QWidget*>(table(*window)));
    QVERIFY(!table(*window)->tabKeyNavigation()); // Tab leaves the table
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
    QCOMPARE(QApplication::focusWidget()->objectName(), QString("saveOutcomesButton"));
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
    QCOMPARE(QApplication::focusWidget()->objectName(), QString("drivePathEdit"));
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Backtab, Qt::ShiftModifier);
    QCOMPARE(QApplication::focusWidget()->objectName(), QString("saveOutcomesButton"));

    // Copy takes the selected rows as the table shows them.
    table(*window)->setFocus();
    table(*window)->selectionModel()->select(table(*window)->model()->index(0, 0),
        QItemSelectionModel::ClearAndSelect | QItemSelectionModel::Rows);
    QTest::keyClick(handle, Qt::Key_C, Qt::ControlModifier);
    QCOMPARE(
        QApplication::clipboard()->text(), shownRows(table(*window)).first().replace(" | ", "\t") + '\n');

    QTest::keyClick(handle, Qt::Key_R, Qt::AltModifier);
    QTRY_COMPARE(views->currentWidget()->objectName(), QString("reportPage"));
    QCOMPARE(QApplication::focusWidget()->objectName(), QString("startButton"));
    QVERIFY(!child<QToolButton>(window.get(), "saveOutcomesButton")->isVisible());
    QCOMPARE(window->saveOutcomesAction()->shortcut(), QKeySequence("Ctrl+Shift+S"));
}

void TestOutcomeTable::filesTabFitsSmallWindows_data()
{
    QTest::addColumn<QSize>("area");
    QTest::newRow("minimum") << QSize();
    QTest::newRow("1024 x 600") << QSize(1024, 600);
    QTest::newRow("640 x 400") << QSize(640, 400);
}

void TestOutcomeTable::filesTabFitsSmallWindows()
{
    QFETCH(QSize, area);
    QTemporaryDir dir;
    const QString card = dir.filePath("CARD");
    QVERIFY(writeMixedCard(card));
    auto window = makeWindow();
    const QSize minimum = window->minimumSizeHint();
    runOn(*window, card, false);
    child<QTabWidget>(window.get(), "runViews")->setCurrentIndex(1);
    if (area.isEmpty())
        window->resize(window->minimumSizeHint());
    else
        window->fitIntoScreenArea(QRect(QPoint(0, 0), area));
    QCoreApplication::processEvents();
    QCOMPARE(window->minimumSizeHint(), minimum); // a run's table does not make the window larger
    QVERIFY(!area.isValid() || QRect(QPoint(0, 0), area).contains(window->frameGeometry()));

    // The header and a row show; the summary and Save Outcomes... are whole.
    QTableView* view = table(*window);
    QVERIFY(view->viewport()->height() >= view->rowHeight(0));
    QLabel* summary = child<QLabel>(window.get(), "outcomeSummary");
    QVERIFY2(summary->height() >= summary->heightForWidth(summary->width()),
        qPrintable(
            QString("%1 < %2").arg(summary->height()).arg(summary->heightForWidth(summary->width()))));
    QToolButton* save = child<QToolButton>(window.get(), "saveOutcomesButton");
    QVERIFY(save->isVisible());
    QVERIFY(save->width() >= save->sizeHint().width());
    QVERIFY(window->rect().contains(save->mapTo(window.get(), save->rect().bottomRight())));
    QTabBar* tabs = child<QTabWidget>(window.get(), "runViews")->tabBar();
    for (int tab = 0; tab < tabs->count(); ++tab)
        QVERIFY(tabs->tabRect(tab).width()
            >= tabs->fontMetrics().horizontalAdvance(tabs->tabText(tab).remove('&')));
}


QTEST_MAIN(TestOutcomeTable)
