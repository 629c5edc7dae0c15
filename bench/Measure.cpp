#include "Measure.h"

#include <QFile>
#include <QStandardPaths>

#include <algorithm>
#include <string>
#include <vector>

#include <cerrno>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

extern char** environ;

namespace {

double nowMs()
{
    timespec t {};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return double(t.tv_sec) * 1000.0 + double(t.tv_nsec) / 1e6;
}

double timevalMs(const timeval& t)
{
    return double(t.tv_sec) * 1000.0 + double(t.tv_usec) / 1000.0;
}

qint64 writeBytesOf(pid_t pid)
{
    QFile io(QString("/proc/%1/io").arg(pid));
    if (!io.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : io.readAll().split('\n')) {
        if (line.startsWith("write_bytes:"))
            return line.mid(12).trimmed().toLongLong();
    }
    return -1;
}

double median(std::vector<double> values)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

} // namespace

Usage measureChild(const ChildCommand& command)
{
    Usage usage;
    QString program = command.program;
    if (!program.contains('/'))
        program = QStandardPaths::findExecutable(program);
    if (program.isEmpty())
        return usage;

    // Everything the child needs is built before fork(): it only redirects and execs.
    std::vector<std::string> args { program.toStdString() };
    for (const QString& a : command.arguments)
        args.push_back(a.toStdString());
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        env.emplace_back(*e);
    for (const QString& e : command.environment)
        env.push_back(e.toStdString());
    std::vector<char*> envp;
    for (std::string& e : env)
        envp.push_back(&e[0]);
    envp.push_back(nullptr);
    const std::string out = command.stdoutPath.toStdString();
    const std::string err = command.stderrPath.toStdString();

    const double start = nowMs();
    const pid_t pid = fork();
    if (pid < 0)
        return usage;
    if (pid == 0) {
        const int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd >= 0) {
            dup2(fd, STDOUT_FILENO);
            close(fd);
        }
        const int errFd = err.empty() ? -1 : open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (errFd >= 0) {
            dup2(errFd, STDERR_FILENO);
            close(errFd);
        }
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }

    siginfo_t info {};
    while (waitid(P_PID, id_t(pid), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) { }
    usage.wallMs = nowMs() - start;
    usage.bytesWritten = writeBytesOf(pid);

    int status = 0;
    rusage ru {};
    while (wait4(pid, &status, 0, &ru) < 0 && errno == EINTR) { }
    usage.cpuMs = timevalMs(ru.ru_utime) + timevalMs(ru.ru_stime);
    usage.peakRssMb = double(ru.ru_maxrss) / 1024.0; // kilobytes on Linux
    usage.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    usage.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    return usage;
}

Usage medianOf(const QList<Usage>& runs)
{
    Usage m;
    if (runs.isEmpty())
        return m;
    std::vector<double> wall, cpu, rss, written;
    m.ok = true;
    for (const Usage& u : runs) {
        wall.push_back(u.wallMs);
        cpu.push_back(u.cpuMs);
        rss.push_back(u.peakRssMb);
        written.push_back(double(u.bytesWritten));
        m.ok = m.ok && u.ok;
        if (!u.ok)
            m.exitCode = u.exitCode;
    }
    if (m.ok)
        m.exitCode = 0;
    m.wallMs = median(wall);
    m.cpuMs = median(cpu);
    m.peakRssMb = median(rss);
    m.bytesWritten = runs.first().bytesWritten < 0 ? -1 : qint64(median(written));
    return m;
}
