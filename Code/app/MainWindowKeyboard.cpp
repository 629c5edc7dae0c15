// The window from the keyboard: Alt and a letter to each control, Tab through them in reading order, Enter
// to start, and nothing typed into the path by an Alt that goes nowhere.

#include "MainWindow.h"
#include "ui_MainWindow.h"

#include "OutcomeView.h"

#include <QKeyEvent>
#include <QTabBar>
#include <QToolButton>

#include <iterator>

void MainWindow::setUpKeyboard()
{
    markMnemonics();
    chainTabOrder();

    // Enter in the path or the copies' folder field, or on Start when it has the focus, starts a run.
    ui->startButton->setAutoDefault(true);
    for (QLineEdit* field : {ui->drivePathEdit, ui->outputPathEdit}) {
        connect(field, &QLineEdit::returnPressed, this, &MainWindow::startIfEnabled);
        field->installEventFilter(this);
    }
    ui->drivePathEdit->setFocus();
}

void MainWindow::markMnemonics()
{
    // Alt and the underlined letter. The form file keeps the texts as designed, without the marks (its
    // own test reads them there); the marked texts replace them here.
    ui->scanAndFinalize->setText(tr("Scan and &finalize files."));
    ui->scanOnly->setText(tr("Scan &only, do not finalize."));
    ui->interchangeFinish->setText(tr("Finish for every &player (interchange)"));
    ui->label->setText(tr("&Drive/ path to scan:"));
    ui->label->setBuddy(ui->drivePathEdit);
    ui->browseButton->setText(tr("&Browse..."));
    ui->copyToFolder->setText(tr("Finish &copies in:"));
    ui->outputBrowseButton->setText(tr("Bro&wse..."));
    ui->startButton->setText(tr("&Start"));
    ui->exitButton->setText(tr("E&xit"));
}

void MainWindow::chainTabOrder()
{
    // The Files tab's table and button follow Exit while the tab is shown. The tabs themselves take no
    // focus, so the chain is the same as without them while the report shows; Alt+R and Alt+I choose them.
    QWidget* const chain[] = {ui->drivePathEdit, ui->browseButton, ui->copyToFolder, ui->outputPathEdit,
                              ui->outputBrowseButton, ui->scanAndFinalize, ui->scanOnly,
                              ui->interchangeFinish, ui->startButton, ui->exitButton, ui->outcomeTable,
                              m_outcomeView->saveButton()};
    for (size_t next = 1; next < std::size(chain); ++next)
        setTabOrder(chain[next - 1], chain[next]);
    ui->runViews->setFocusPolicy(Qt::NoFocus);
    ui->runViews->tabBar()->setFocusPolicy(Qt::NoFocus);
}

bool MainWindow::eventFilter(QObject* watched, QEvent* event)
{
    const bool field = watched == ui->drivePathEdit || watched == ui->outputPathEdit;
    if (field && event->type() == QEvent::KeyPress) {
        const auto* key = static_cast<QKeyEvent*>(event);
        if ((key->modifiers() & Qt::AltModifier) && !(key->modifiers() & Qt::ControlModifier)
            && !key->text().isEmpty())
            return true;
    }
    return QMainWindow::eventFilter(watched, event);
}

void MainWindow::startIfEnabled()
{
    if (ui->startButton->isEnabled())
        ui->startButton->click();
}

void MainWindow::focusStartOrPath()
{
    if (ui->startButton->isEnabled())
        ui->startButton->setFocus(Qt::TabFocusReason);
    else
        ui->drivePathEdit->setFocus(Qt::TabFocusReason);
}
