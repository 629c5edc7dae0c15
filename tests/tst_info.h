#pragma once

// clipward-cli --info, one test class over two files: tst_info.cpp describes single recordings of both
// families and WAVs and explains the given-up ones; tst_info_cards.cpp takes whole cards, against a real
// run, in both forms, and what the card itself decides.

#include "simulate/RecordingSimulator.h"

#include <QHash>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>

namespace InfoTest {

const qint64 kMediaStart = 5472256;
const qint64 kDatPos = 5472240;
const int kTernRecord = 36;
const int kTernMapPos = 156;
const int kHeronMapPos = 128;

// The file's description as --info --json gives it; an empty object when the output is not one object.
QJsonObject infoOf(const QString& path, int* status = nullptr);
QJsonArray tracksOf(const QString& path);
// A recording of `family` with settings of its own rather than the defaults.
RecordingPlan distinctPlan(RecordingPlan::Family family, bool storeEnd);
// Copies every file of `from` into the new folder `to`.
bool copyFolder(const QString& from, const QString& to);
// The report objects of a real run (clipward-cli --json FOLDER), by the file's name.
QHash<QString, QJsonObject> finishFolder(const QString& folder);
QString nameOf(const QJsonValue& path);

} // namespace InfoTest

class TestInfo : public QObject
{
    Q_OBJECT

private slots:
    void inProgressMovieShowsTheSimulatorsValues_data();
    void inProgressMovieShowsTheSimulatorsValues();
    void interruptedFinishIsPredictedFromTheView();
    void movieStillInProgressUnderAFinishedName();
    void wavShowsItsValues();
    void givenUpRecordingsAreExplained();
    void mixedCardPredictionsAgreeWithARealRun();
    void filesKeepTheirBytesNamesAndTimes();
    void textAndJsonCarryTheSameValues();
    void recordingAnotherRunHoldsIsSaidToBeInUse();
    void cardWithoutRoomOrWritingIsPredicted();
    void exitStatus();
};
