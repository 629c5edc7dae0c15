#include "Mounts.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <csignal>

#include <unistd.h>

namespace {

const int kHeldSignals[] = { SIGINT, SIGTERM, SIGHUP };
const int kHeldCount = int(sizeof(kHeldSignals) / sizeof(kHeldSignals[0]));
struct sigaction g_previous[kHeldCount];
volatile std::sig_atomic_t g_arrived = 0;

extern "C" void noteSignal(int signal)
{
    g_arrived = signal;
}

bool isMountPoint(const QString& path)
{
    const QString canonical = QFileInfo(path).canonicalFilePath();
    QFile mounts("/proc/self/mountinfo");
    if (canonical.isEmpty() || !mounts.open(QIODevice::ReadOnly))
        return false;
    for (const QByteArray& line : mounts.readAll().split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() > 4 && QString::fromUtf8(fields[4]) == canonical)
            return true;
    }
    return false;
}

} // namespace

QString toolPath(const QString& name)
{
    const QString onPath = QStandardPaths::findExecutable(name);
    if (!onPath.isEmpty())
        return onPath;
    return QStandardPaths::findExecutable(
        name, { "/usr/local/sbin", "/usr/sbin", "/sbin", "/usr/bin", "/bin" });
}

bool runTool(const QString& name, const QStringList& args, QString* output)
{
    const QString program = toolPath(name);
    if (program.isEmpty()) {
        if (output)
            *output = name + " is not installed";
        return false;
    }
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, args);
    const bool done = process.waitForStarted() && process.waitForFinished(-1);
    if (output)
        *output = QString::fromLocal8Bit(process.readAll()).trimmed();
    return done && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

HeldSignals::HeldSignals()
{
    g_arrived = 0;
    struct sigaction action {};
    action.sa_handler = noteSignal;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    for (int i = 0; i < kHeldCount; ++i) {
        sigaction(kHeldSignals[i], &action, &g_previous[i]);
        // A signal this program was told to ignore stays ignored, also by the programs it starts.
        if (g_previous[i].sa_handler == SIG_IGN)
            sigaction(kHeldSignals[i], &g_previous[i], nullptr);
    }
}

HeldSignals::~HeldSignals()
{
    for (int i = 0; i < kHeldCount; ++i)
        sigaction(kHeldSignals[i], &g_previous[i], nullptr);
    if (g_arrived != 0)
        std::raise(g_arrived);
}

bool HeldSignals::arrived()
{
    return g_arrived != 0;
}

BtrfsImage::BtrfsImage(const QString& folder)
    : m_folder(QDir(folder).absolutePath())
    , m_image(m_folder + "/btrfs.img")
    , m_point(m_folder + "/mnt")
{
}

BtrfsImage::~BtrfsImage()
{
    clear();
}

void BtrfsImage::clear()
{
    if (isMountPoint(m_point) && !runTool("umount", { m_point }))
        runTool("umount", { "-l", m_point });
    // Every loop device on the image, also one an interrupted run left: "/dev/loop3: [2049]:12 (image)".
    QString attached;
    if (QFileInfo::exists(m_image) && runTool("losetup", { "-j", m_image }, &attached)) {
        for (const QString& line : attached.split('\n', Qt::SkipEmptyParts))
            runTool("losetup", { "-d", line.section(':', 0, 0) });
    }
    // Never through a file system still mounted there.
    if (!isMountPoint(m_point))
        QDir(m_folder).removeRecursively();
}

QString BtrfsImage::mount(qint64 bytes)
{
    clear();
    if (geteuid() != 0)
        return "not running as root: attaching a loop device and mounting an image needs root";
    for (const QString& name : { "mkfs.btrfs", "losetup", "mount", "umount" }) {
        if (toolPath(name).isEmpty())
            return name + " is missing (Debian packages btrfs-progs and mount)";
    }
    if (!QDir().mkpath(m_point))
        return "cannot make " + m_point;
    QFile image(m_image);
    if (!image.open(QIODevice::WriteOnly | QIODevice::Truncate) || !image.resize(bytes))
        return "cannot make the image file " + m_image;
    image.close();
    QString output;
    if (!runTool("mkfs.btrfs", { "-q", m_image }, &output))
        return "mkfs.btrfs failed: " + output;
    if (!runTool("losetup", { "-f", "--show", m_image }, &output))
        return "cannot attach a loop device to the image: " + output;
    const QString loop = output.split('\n').last().trimmed();
    if (!runTool("mount", { "-t", "btrfs", loop, m_point }, &output))
        return "cannot mount the btrfs image (is btrfs in this kernel?): " + output;
    return QString();
}
