#pragma once

// Failures while finishing a recording, one test class over two files: tst_faults.cpp fails and kills the
// library's writes in this process; tst_faults_runs.cpp kills, limits and traces runs of clipward-cli.

#include "simulate/RecordingSimulator.h"
#include "support/TestSupport.h"

#include <QByteArray>
#include <QObject>

namespace FaultsTest {

const qint64 kDatPos = 5472240;
const qint64 kMediaStart = 5472256;
const QByteArray kUnclosedHeader = TestSupport::hex("00000001 6d646174 0000000000000010");

// A recording of `family`: `frames` frames of video and two tracks of 24-bit sound.
RecordingPlan plan(RecordingPlan::Family family, bool storeEnd, int frames = 45);
// A recording cut off as power failing leaves it: the last frame map entries unsaved (it is saved every
// few chunks) and a chunk torn at the end.
RecordingPlan tornPlan(RecordingPlan::Family family, bool storeEnd);
// The recording's own bytes are intact: the reserved region and everything up to the media end.
void verifyUntouched(const QByteArray& before, const QByteArray& after, qint64 mediaEnd);

} // namespace FaultsTest

class TestFaults : public QObject
{
    Q_OBJECT

private slots:
    void everyFailingWriteLeavesARetryableFile_data();
    void everyFailingWriteLeavesARetryableFile();
    void killedAtRandomMomentsIsCompletedToTheSameBytes();
    void killedAtEveryWriteIsCompletedToTheSameBytes_data();
    void killedAtEveryWriteIsCompletedToTheSameBytes();
    void fileSizeLimitLeavesTheTakeForALaterRun();
    void noWriteLandsPastTheEndOfTheFile_data() { everyFailingWriteLeavesARetryableFile_data(); }
    void noWriteLandsPastTheEndOfTheFile();
    void indexReachesTheDiskBeforeTheHeaderAndTheName();
    void killedAtEverySystemCallIsCompletedByTheNextRun_data()
    {
        everyFailingWriteLeavesARetryableFile_data();
    }
    void killedAtEverySystemCallIsCompletedByTheNextRun();
    void rewriteKilledAtEverySystemCallIsCompletedByTheNextRewrite_data()
    {
        killedAtEverySystemCallIsCompletedByTheNextRun_data();
    }
    void rewriteKilledAtEverySystemCallIsCompletedByTheNextRewrite();
    void restoreKilledAtEverySystemCallIsCompletedByTheNextRestore_data()
    {
        killedAtEverySystemCallIsCompletedByTheNextRun_data();
    }
    void restoreKilledAtEverySystemCallIsCompletedByTheNextRestore();
};
