// Resuming a finish that was killed: an unfinished recording (settings record and frame map from the
// input, as RecoveryHarness::readInput describes, a map asked to be repeated repeated to 65,536 entries)
// is written to a real file twice. One copy is finished undisturbed. The other is finished by a process
// "killed" at one of its writes, chosen by the input: that write and every later one never happen, the
// cut-back of a failed close included. The killed copy is then finished again, as the next run would,
// and must end exactly as the undisturbed copy did, byte for byte and with the same outcome; with no
// recorded end this is the path that recognises a partial index past the media and cuts it off.
//
// Input: bytes 0-1 pick the write to kill at (little-endian, taken modulo the undisturbed finish's
// writes); the rest is read by RecoveryHarness::readInput. The media are capped at 1 MiB and kept sparse;
// a recorded end far past them puts the index there, so the files are compared where either holds data.

#include "FuzzSupport.h"
#include "RecoveryHarness.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace {

using FuzzSupport::fail;

const qint64 kMaxMediaBytes = qint64(1) << 20;
const qint64 kPiece = 64 * 1024;

// A recording's file whose writes are counted; with a kill point, the process dies at that write.
class KillableFile : public QFile
{
public:
    KillableFile(const QString& path, int killAt)
        : QFile(path)
        , m_killAt(killAt)
    {
    }
    int writes() const { return m_writes; }
    bool killed() const { return m_killAt > 0 && m_writes >= m_killAt; }
    bool resize(qint64 size) override { return !killed() && QFile::resize(size); }

protected:
    qint64 writeData(const char* data, qint64 len) override
    {
        ++m_writes;
        return killed() ? -1 : QFile::writeData(data, len);
    }

private:
    int m_killAt;
    int m_writes = 0;
};

QString folder()
{
    // tmpfs where there is one: the files are rewritten for every input. Removed when the run exits.
    static QTemporaryDir dir(QDir("/dev/shm").exists() ? "/dev/shm/clipward-fuzz-XXXXXX" : QString());
    return dir.path();
}

// Writes the recording the device presents to `path`: only its pieces that are not all zeros, the rest
// left as a hole.
bool writeRecording(const SynthesizedRecording& recording, const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    const qint64 mediaStart = recording.movieDataStartOffset();
    for (qint64 at = 0; at < mediaStart; at += kPiece) {
        const QByteArray piece = recording.contentAt(at, qMin(kPiece, mediaStart - at));
        if (piece.count('\0') == piece.size())
            continue;
        if (!file.seek(at) || file.write(piece) != piece.size())
            return false;
    }
    return file.resize(recording.originalSize());
}

struct Outcome
{
    bool recovered = false;
    int writes = 0;
    bool killed = false;
};

Outcome finishFile(const QString& path, SynthesizedRecording::Family family, int killAt)
{
    KillableFile file(path, killAt);
    Outcome outcome;
    if (!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
        fail("the recording's file cannot be opened");
    outcome.recovered = RecoveryHarness::finish(family, file).recovered;
    outcome.writes = file.writes();
    outcome.killed = file.killed();
    return outcome;
}

using Ranges = std::vector<std::pair<qint64, qint64>>; // [begin, end)

// Where the file holds data; the rest are holes, which read as zeros.
Ranges dataRanges(int handle, qint64 size)
{
    Ranges ranges;
    for (off_t at = 0; at < size;) {
        const off_t data = lseek(handle, at, SEEK_DATA);
        if (data < 0)
            break;
        const off_t hole = lseek(handle, data, SEEK_HOLE);
        const qint64 end = hole < 0 ? size : qMin(qint64(hole), size);
        ranges.emplace_back(qint64(data), end);
        at = off_t(end);
    }
    return ranges;
}

bool readAt(int handle, qint64 at, char* out, qint64 length)
{
    while (length > 0) {
        const ssize_t got = pread(handle, out, size_t(length), off_t(at));
        if (got <= 0)
            return false;
        at += got;
        out += got;
        length -= got;
    }
    return true;
}

// Whether the two files hold the same bytes, compared where either holds data.
bool sameContent(const QString& first, const QString& second)
{
    const qint64 size = QFileInfo(first).size();
    if (QFileInfo(second).size() != size)
        return false;
    const int a = open(QFile::encodeName(first).constData(), O_RDONLY);
    const int b = open(QFile::encodeName(second).constData(), O_RDONLY);
    bool same = a >= 0 && b >= 0;
    if (same) {
        Ranges ranges = dataRanges(a, size);
        const Ranges more = dataRanges(b, size);
        ranges.insert(ranges.end(), more.begin(), more.end());
        std::sort(ranges.begin(), ranges.end());
        std::vector<char> left(static_cast<size_t>(kPiece));
        std::vector<char> right(static_cast<size_t>(kPiece));
        qint64 done = 0; // everything before this is compared
        for (const auto& range : ranges) {
            for (qint64 at = qMax(range.first, done); same && at < range.second; at += kPiece) {
                const qint64 length = qMin(kPiece, range.second - at);
                same = readAt(a, at, left.data(), length) && readAt(b, at, right.data(), length)
                    && std::memcmp(left.data(), right.data(), size_t(length)) == 0;
            }
            done = qMax(done, range.second);
        }
    }
    if (a >= 0)
        close(a);
    if (b >= 0)
        close(b);
    return same;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    FuzzSupport::quietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzSupport::InputReader in(data, size);
    const quint16 killChoice = in.u16();
    RecoveryHarness::Input input = RecoveryHarness::readInput(in.rest(), in.restSize());
    input.mediaBytes = qMin(input.mediaBytes, kMaxMediaBytes);
    const SynthesizedRecording recording(input.family, input.record, input.map,
        input.repeatMap ? RecoveryHarness::kRepeatedMapBytes : 0, input.mediaBytes, 0, 0);

    const QString undisturbed = folder() + "/undisturbed.zqv";
    const QString killed = folder() + "/killed.zqv";
    if (!writeRecording(recording, undisturbed) || !writeRecording(recording, killed))
        fail("the recording cannot be written");
    const Outcome reference = finishFile(undisturbed, input.family, 0);
    if (reference.writes == 0)
        return 0; // nothing to kill
    const int killAt = 1 + killChoice % reference.writes;
    const Outcome cutShort = finishFile(killed, input.family, killAt);
    if (!cutShort.killed || cutShort.recovered)
        fail("the killed finish was not killed at the chosen write");
    const Outcome resumed = finishFile(killed, input.family, 0);
    if (resumed.recovered != reference.recovered)
        fail("the finish after a kill ends otherwise than an undisturbed one");
    if (!sameContent(killed, undisturbed))
        fail("the finish after a kill left other bytes than an undisturbed one");
    return 0;
}
