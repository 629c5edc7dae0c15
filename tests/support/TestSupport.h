#pragma once

#include <QBuffer>
#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

namespace TestSupport {

// Bytes from a hex string; blanks and newlines are ignored ("00 00 00 14 'f' ..." is not supported,
// write the letters as hex so the expectation is readable byte by byte).
QByteArray hex(const char* text);

// `size` bytes counting up from `first`, starting over every 13 bytes.
QByteArray pattern(int size, char first);

// `value` as `bytes` little-endian bytes, the order the recorders write their own fields in.
QByteArray le(quint64 value, int bytes);
// The little-endian 32-bit value at `offset` of `bytes`.
quint32 le32(const QByteArray& bytes, qint64 offset);
// Puts `value` little-endian at `offset` of `bytes`, or of the file at `path`.
void putLe32(QByteArray& bytes, int offset, quint32 value);
void patchLe32(const QString& path, int offset, quint32 value);

// Writes `bytes` to `path`, creating parent folders. Returns false on failure.
bool writeFile(const QString& path, const QByteArray& bytes);
QByteArray readFile(const QString& path);

// Every file below `root` (relative path -> content), to prove a run changed nothing.
QMap<QString, QByteArray> snapshotTree(const QString& root);
// The xxHash64 of a file as the xxhsum tool gives it, 16 lower-case hexadecimal digits; empty when
// xxhsum is not installed (Debian package xxhash).
QString xxhsum(const QString& path);

// The same below the output folder of a run into copies, without the work folder of unfinished copies.
QMap<QString, QByteArray> placedCopies(const QString& out);

// Runs clipward-cli with `args`; returns its exit code and fills stdout lines and stderr text.
int runCli(const QStringList& args, QStringList* stdoutLines, QString* stderrText = nullptr);

// The file objects clipward-cli --json prints for `args` (its options and a folder), in its order; its
// report (stderr) in lines when asked for.
QList<QJsonObject> cliFileObjects(const QStringList& args, QStringList* report = nullptr);

// Runs `program` to its end, waiting at most `msecs` (-1: as long as it takes). Returns its exit code,
// -1 when it did not end or crashed.
int runCommand(const QString& program, const QStringList& args, int msecs = -1);

// Checks with Python's JSON parser, independent of Qt's, that each of `lines` is one JSON text: the
// parser must end within 30 seconds, without an error. Checks nothing where python3 is not installed.
void checkJsonLinesWithPython(const QStringList& lines);

// clipward-cli run as a user whom file permissions stop: as root, as "nobody" (through setpriv); else as
// the user running the tests. Returns its exit code (-1 when it crashed) and fills the stdout lines.
int runCliUnprivileged(const QStringList& args, QStringList* stdoutLines);
// Whether runCliUnprivileged can start the program at all.
bool canRunCliUnprivileged();

// A buffer whose writes fail once `limit` bytes have been accepted: drives every write-error path.
class FailingBuffer : public QBuffer
{
public:
    explicit FailingBuffer(qint64 limit);
    qint64 accepted() const { return m_accepted; }

protected:
    qint64 writeData(const char* data, qint64 len) override;

private:
    qint64 m_limit;
    qint64 m_accepted = 0;
};

} // namespace TestSupport
