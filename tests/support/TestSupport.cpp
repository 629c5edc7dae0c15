#include "support/TestSupport.h"

#include "scratch/ScratchMount.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QtEndian>
#include <QtTest>

#include <unistd.h>

namespace TestSupport {

QByteArray hex(const char* text)
{
    QByteArray digits(text);
    digits.replace(' ', "").replace('\n', "");
    return QByteArray::fromHex(digits);
}

QByteArray pattern(int size, char first)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char(first + i % 13);
    return bytes;
}

QByteArray le(quint64 value, int bytes)
{
    QByteArray out;
    for (int i = 0; i < bytes; ++i)
        out.append(char((value >> (8 * i)) & 0xFF));
    return out;
}

quint32 le32(const QByteArray& bytes, qint64 offset)
{
    return qFromLittleEndian<quint32>(bytes.constData() + offset);
}

void putLe32(QByteArray& bytes, int offset, quint32 value)
{
    qToLittleEndian<quint32>(value, reinterpret_cast<uchar*>(bytes.data()) + offset);
}

void patchLe32(const QString& path, int offset, quint32 value)
{
    QByteArray bytes = readFile(path);
    putLe32(bytes, offset, value);
    writeFile(path, bytes);
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(bytes) == bytes.size();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

QMap<QString, QByteArray> snapshotTree(const QString& root)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    const QDir base(root);
    while (it.hasNext()) {
        const QString path = it.next();
        files.insert(base.relativeFilePath(path), readFile(path));
    }
    return files;
}

QString xxhsum(const QString& path)
{
    QString output;
    if (Scratch::toolPath("xxhsum").isEmpty() || !Scratch::runTool("xxhsum", {"-H64", path}, &output))
        return QString();
    // "<hash>  <name>", or "XXH64 (<name>) = <hash>" in the BSD style.
    const QRegularExpressionMatch match
        = QRegularExpression("^([0-9a-f]{16})\\s|= ([0-9a-f]{16})$").match(output);
    if (!match.hasMatch())
        return QString("unreadable xxhsum output: ") + output;
    return match.captured(1).isEmpty() ? match.captured(2) : match.captured(1);
}

QMap<QString, QByteArray> placedCopies(const QString& out)
{
    QMap<QString, QByteArray> placed = snapshotTree(out);
    for (const QString& key : placed.keys()) {
        if (key.startsWith(".clipward-partial/"))
            placed.remove(key);
    }
    return placed;
}

int runCli(const QStringList& args, QStringList* stdoutLines, QString* stderrText)
{
    QProcess process;
    process.start(CLIPWARD_CLI_PATH, args);
    process.waitForFinished(-1);
    const QString out = QString::fromUtf8(process.readAllStandardOutput());
    if (stdoutLines) {
        QStringList lines = out.split('\n');
        if (!lines.isEmpty() && lines.last().isEmpty())
            lines.removeLast(); // the final newline ends the last line, it does not start another
        *stdoutLines = lines;
    }
    if (stderrText)
        *stderrText = QString::fromUtf8(process.readAllStandardError());
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

QList<QJsonObject> cliFileObjects(const QStringList& args, QStringList* report)
{
    QStringList out;
    QString err;
    runCli(QStringList { "--json" } + args, &out, &err);
    QList<QJsonObject> files;
    for (const QString& line : out) {
        const QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
        if (object.value("type") == "file")
            files << object;
    }
    if (report) {
        err.chop(1); // the last line's newline
        *report = err.split('\n');
    }
    return files;
}

int runCommand(const QString& program, const QStringList& args, int msecs)
{
    QProcess process;
    process.start(program, args);
    if (!process.waitForFinished(msecs) || process.exitStatus() != QProcess::NormalExit)
        return -1;
    return process.exitCode();
}

void checkJsonLinesWithPython(const QStringList& lines)
{
    if (QStandardPaths::findExecutable("python3").isEmpty())
        return;
    QProcess python;
    python.start("python3", {"-m", "json.tool", "--json-lines"});
    python.write((lines.join('\n') + '\n').toUtf8());
    python.closeWriteChannel();
    QVERIFY(python.waitForFinished(30000));
    QCOMPARE(python.exitCode(), 0);
}

FailingBuffer::FailingBuffer(qint64 limit)
    : m_limit(limit)
{
}

qint64 FailingBuffer::writeData(const char* data, qint64 len)
{
    if (m_accepted + len > m_limit)
        return -1;
    const qint64 written = QBuffer::writeData(data, len);
    if (written > 0)
        m_accepted += written;
    return written;
}

namespace {

QStringList unprivilegedCommand(const QStringList& args)
{
    QStringList command{CLIPWARD_CLI_PATH};
    if (::geteuid() == 0)
        command = QStringList{"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"} + command;
    return command + args;
}

} // namespace

int runCliUnprivileged(const QStringList& args, QStringList* stdoutLines)
{
    const QStringList command = unprivilegedCommand(args);
    QProcess process;
    process.start(command.first(), command.mid(1));
    process.waitForFinished(-1);
    if (stdoutLines) {
        QStringList lines = QString::fromUtf8(process.readAllStandardOutput()).split('\n');
        if (!lines.isEmpty() && lines.last().isEmpty())
            lines.removeLast();
        *stdoutLines = lines;
    }
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

bool canRunCliUnprivileged()
{
    return runCliUnprivileged({"--version"}, nullptr) == 0;
}

} // namespace TestSupport
