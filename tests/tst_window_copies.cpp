// Finishing copies from the window: the check box and the folder for the copies, remembered between
// sessions; Start asks for a folder when copies are chosen and refuses one inside the path; a run leaves
// the card as it was and gives the copies clipward-cli --output gives; the bar shows the share of the
// run's bytes copied; the choice is off during a run and reachable from the keyboard.

#include "MainWindow.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"
#include "support/WidgetLookup.h"
#include "support/WindowTest.h"

#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QStatusBar>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

using namespace TestSupport;

namespace {

QCheckBox* copiesBox(MainWindow& window)
{
    return child<QCheckBox>(&window, "copyToFolder");
}

QLineEdit* folderField(MainWindow& window)
{
    return child<QLineEdit>(&window, "outputPathEdit");
}

QPushButton* startButton(MainWindow& window)
{
    return child<QPushButton>(&window, "startButton");
}

// Chooses copies into `folder`, as a user does: the box clicked, the folder typed.
void chooseCopies(MainWindow& window, const QString& folder)
{
    if (!copiesBox(window)->isChecked())
        QTest::mouseClick(copiesBox(window), Qt::LeftButton, {}, QPoint(4, copiesBox(window)->height() / 2));
    folderField(window)->clear();
    QTest::keyClicks(folderField(window), folder);
}

} // namespace

class TestWindowCopies : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(useTestSettings(m_settingsDir)); }
    void init() { QSettings().clear(); }

    void offAtFirstAndRememberedBetweenSessions();
    void startNeedsAFolderWhenCopiesAreChosen();
    void aFolderInsideThePathIsRefused();
    void aRunFinishesCopiesAndLeavesTheCard();
    void theBarShowsTheRunsBytesCopied();
    void theChoiceIsOffDuringARun();
    void theKeyboardReachesTheChoice();

private:
    QTemporaryDir m_settingsDir;
};

void TestWindowCopies::offAtFirstAndRememberedBetweenSessions()
{
    {
        auto window = shownActiveWindow();
        QVERIFY(!copiesBox(*window)->isChecked());
        QVERIFY(!folderField(*window)->isEnabled());
        QVERIFY(!child<QPushButton>(window.get(), "outputBrowseButton")->isEnabled());
        chooseCopies(*window, "/backup/day1");
        QVERIFY(folderField(*window)->isEnabled());
        QVERIFY(child<QPushButton>(window.get(), "outputBrowseButton")->isEnabled());
    }
    auto next = shownActiveWindow();
    QVERIFY(copiesBox(*next)->isChecked());
    QCOMPARE(folderField(*next)->text(), QString("/backup/day1"));
    QVERIFY(folderField(*next)->isEnabled());

    // Off again: the folder is kept for the next time, but not used.
    QTest::mouseClick(copiesBox(*next), Qt::LeftButton, {}, QPoint(4, copiesBox(*next)->height() / 2));
    QVERIFY(!folderField(*next)->isEnabled());
    next.reset();
    auto third = shownActiveWindow();
    QVERIFY(!copiesBox(*third)->isChecked());
    QCOMPARE(folderField(*third)->text(), QString("/backup/day1"));
}

void TestWindowCopies::startNeedsAFolderWhenCopiesAreChosen()
{
    auto window = shownActiveWindow();
    QTest::keyClicks(child<QLineEdit>(window.get(), "drivePathEdit"), "/card");
    QVERIFY(startButton(*window)->isEnabled());
    chooseCopies(*window, QString());
    QVERIFY(!startButton(*window)->isEnabled());
    QTest::keyClicks(folderField(*window), "/backup");
    QVERIFY(startButton(*window)->isEnabled());
    folderField(*window)->clear();
    QVERIFY(!startButton(*window)->isEnabled());
    QTest::mouseClick(copiesBox(*window), Qt::LeftButton, {}, QPoint(4, copiesBox(*window)->height() / 2));
    QVERIFY(startButton(*window)->isEnabled()); // the card's files finished in place need no folder
}

void TestWindowCopies::aFolderInsideThePathIsRefused()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    const QMap<QString, QByteArray> before = snapshotTree(tmp.path());
    auto window = shownActiveWindow();
    chooseCopies(*window, card + "/copies");
    runOn(*window, card, false);
    QCOMPARE(window->statusBar()->currentMessage(),
             QString("Not started: the folder for the copies must not be inside the drive/path to scan."));
    QVERIFY(!logBox(*window)->toPlainText().contains("Checking drive")); // no run
    QCOMPARE(snapshotTree(tmp.path()), before);
}

void TestWindowCopies::aRunFinishesCopiesAndLeavesTheCard()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    const QString out = tmp.filePath("out");
    QVERIFY(writeMixedCard(card));
    const QMap<QString, QByteArray> before = snapshotTree(card);
    auto window = shownActiveWindow();
    chooseCopies(*window, out);
    runOn(*window, card, false);

    QCOMPARE(snapshotTree(card), before);
    const QStringList lines = logLines(*window);
    QVERIFY(lines.contains(QString("Finished copies go to %1; nothing on the card is written.").arg(out)));
    QVERIFY(lines.contains(QString("     %1/DCIM/100CLIPS/A001C001.mov (Tern) Finalized").arg(out)));

    // The same copies clipward-cli --output makes of an identical card.
    const QString sameCard = tmp.filePath("same");
    QVERIFY(writeMixedCard(sameCard));
    QStringList cliLines;
    runCli({"--output", tmp.filePath("cli"), sameCard}, &cliLines);
    const QMap<QString, QByteArray> copies = placedCopies(out);
    QCOMPARE(copies.size(), 5);
    QCOMPARE(copies, placedCopies(tmp.filePath("cli")));
    QCOMPARE(window->outcomeTable()->rowCount(), 7);
}

void TestWindowCopies::theBarShowsTheRunsBytesCopied()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    auto window = shownActiveWindow();
    QProgressBar* bar = child<QProgressBar>(window.get(), "progressBar");
    struct Shown
    {
        int maximum;
        int value;
        QString text;
        bool linesHeld; // lines logged but held back from the box
    };
    QList<Shown> shown;
    connect(bar, &QProgressBar::valueChanged, this, [&](int value) {
        shown.append({bar->maximum(), value, bar->text(), !logBox(*window)->updatesEnabled()});
    });
    chooseCopies(*window, tmp.filePath("out"));
    runOn(*window, card, false);

    QVERIFY(!shown.isEmpty());
    int before = 0;
    for (const Shown& each : shown) {
        QCOMPARE(each.maximum, 1000);
        QVERIFY(each.value >= before);
        QVERIFY2(each.text.startsWith("Copying "), qPrintable(each.text));
        QVERIFY(!each.linesHeld); // the lines before a copy show while it goes
        before = each.value;
    }
    QCOMPARE(shown.first().text, QString("Copying 1 of 5: 0%"));
    QCOMPARE(shown.last().value, 1000);
    QCOMPARE(shown.last().text, QString("Copying 5 of 5: 100%"));
    // After the run the bar is hidden and busy again for the next one.
    QVERIFY(!bar->isVisible());
    QCOMPARE(bar->format(), QString());
}

void TestWindowCopies::theChoiceIsOffDuringARun()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("card");
    QVERIFY(writeMixedCard(card));
    auto window = shownActiveWindow();
    chooseCopies(*window, tmp.filePath("out"));
    int linesWithChoiceOn = 0;
    int linesSeen = 0;
    connect(logBox(*window), &QPlainTextEdit::textChanged, this, [&] {
        ++linesSeen;
        const bool on = copiesBox(*window)->isEnabled() || folderField(*window)->isEnabled()
            || child<QPushButton>(window.get(), "outputBrowseButton")->isEnabled();
        if (on && !logBox(*window)->toPlainText().isEmpty())
            ++linesWithChoiceOn;
    });
    runOn(*window, card, false);
    disconnect(logBox(*window), nullptr, this, nullptr);
    QVERIFY(linesSeen > 10);
    QCOMPARE(linesWithChoiceOn, 0);
    QVERIFY(copiesBox(*window)->isEnabled());
    QVERIFY(folderField(*window)->isEnabled());
}

void TestWindowCopies::theKeyboardReachesTheChoice()
{
    auto window = shownActiveWindow();
    QTest::keyClicks(QApplication::focusWidget(), "/card");
    // Alt+C turns copies on, as a click does.
    QTest::keyClick(window->windowHandle(), Qt::Key_C, Qt::AltModifier);
    QTRY_VERIFY(copiesBox(*window)->isChecked());
    child<QLineEdit>(window.get(), "drivePathEdit")->setFocus();
    const QStringList forward{"browseButton", "copyToFolder", "outputPathEdit", "outputBrowseButton",
                              "scanAndFinalize"};
    for (const QString& expected : forward) {
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        QCOMPARE(QApplication::focusWidget()->objectName(), expected);
    }
    // Alt with a letter that is no mnemonic types nothing into the folder field.
    folderField(*window)->setFocus();
    QTest::keyClick(window->windowHandle(), Qt::Key_Q, Qt::AltModifier);
    QCOMPARE(folderField(*window)->text(), QString());
    QCOMPARE(child<QPushButton>(window.get(), "outputBrowseButton")->text(), QString("Bro&wse..."));
}

QTEST_MAIN(TestWindowCopies)
#include "tst_window_copies.moc"
