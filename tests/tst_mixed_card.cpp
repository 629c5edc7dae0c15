// One finalize run over a card holding both recorder families' movies, audio files, given-up files and
// nested folders: the exact log, the exit status and the names left behind.

#include "support/AtomWalker.h"
#include "support/MixedCard.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

using namespace TestSupport;
using namespace AtomWalker;

namespace {

QString recordedLine(const QByteArray& movie)
{
    const Atom moov = find(movie, "moov");
    return QString("Recorded FILE Last Position Start:%1 End:%2 Size:%3")
        .arg(moov.offset)
        .arg(moov.end())
        .arg(moov.size);
}

// What finishing a Tern movie logs, read back from the finished file: one pair of lines per offset table.
QStringList ternLines(const QString& zqv, const QByteArray& movie)
{
    QStringList lines{"doing tern finalize", QString("********************* %1 needs to be restored!").arg(zqv)};
    for (int trak = 1;; ++trak) {
        const Atom co64 = find(movie, QString("moov/trak:%1/mdia/minf/stbl/co64").arg(trak));
        if (!co64.valid())
            break;
        const quint32 entries = be32(movie, co64.offset + 12);
        lines << QString("stream %1 entries (%2)").arg(entries).arg(co64.offset + 16, 0, 16)
              << QString("done streaming %1 entries").arg(entries);
    }
    return lines << recordedLine(movie);
}

} // namespace

class TestMixedCard : public QObject
{
    Q_OBJECT

private slots:
    void wholeCardInOneRun();
};

void TestMixedCard::wholeCardInOneRun()
{
    QTemporaryDir tmp;
    const QString card = tmp.filePath("CARD");
    const QString clips = card + "/DCIM/100CLIPS";
    const QString old = card + "/DCIM/099CLIPS";
    const QString audio = card + "/AUDIO";
    QVERIFY(writeMixedCard(card));

    QStringList out;
    QCOMPARE(runCli({card}, &out), 1);

    const QByteArray a1 = readFile(clips + "/A001C001.mov");
    const QByteArray b1 = readFile(old + "/B001C001.mov");
    QStringList expected{"Checking drive: " + card.left(2), "Scanning for unfinalized files.",
                         "Scanning folder: " + card, "Scanning folder: " + audio,
                         "     " + audio + "/B001T000.nra Unrecoverable", "doing heron finalize",
                         "     " + audio + "/B001T001.wav (Heron) Finalized", "doing heron finalize",
                         "     " + audio + "/B001T002.nra (Heron) Unrecoverable",
                         "Scanning folder: " + audio + "/EMPTY", "Scanning folder: " + card + "/DCIM",
                         "Scanning folder: " + old, "     " + old + "/B001C000.nrv Unrecoverable",
                         "doing heron finalize", recordedLine(b1),
                         "     " + old + "/B001C001.mov (Heron) Finalized", "Scanning folder: " + clips};
    expected << ternLines(clips + "/A001C001.zqv", a1) << "     " + clips + "/A001C001.mov (Tern) Finalized";
    // 10 frames, no sound and the timecode sample: too few chunks to finish.
    expected << "doing tern finalize"
             << "********************* " + clips + "/A001C002.zqv needs to be restored!"
             << "********************* " + clips
                    + "/A001C002.zqv recovery failed, no frame map or finalization failed!"
             << "     " + clips + "/A001C002.nrv (Tern) Unrecoverable"
             << " "
             << "4 file(s) unrecoverable."
             << "3 file(s) have been successfully finalized.";
    QCOMPARE(out, expected);

    QStringList names;
    for (const auto& key : snapshotTree(card).keys())
        names << key;
    QCOMPARE(names, QStringList({"AUDIO/B001T000.nra", "AUDIO/B001T001.wav", "AUDIO/B001T002.nra",
                                 "DCIM/099CLIPS/B001C000.nrv", "DCIM/099CLIPS/B001C001.mov",
                                 "DCIM/099CLIPS/notes.txt", "DCIM/100CLIPS/A001C001.mov",
                                 "DCIM/100CLIPS/A001C002.nrv"}));
}

QTEST_GUILESS_MAIN(TestMixedCard)
#include "tst_mixed_card.moc"
