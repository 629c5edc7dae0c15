#pragma once

#include <QString>
#include <QStringList>

// What one child process cost, as the kernel accounted it.
struct Usage
{
    bool ok = false; // started, and exited with status 0
    int exitCode = -1;
    double wallMs = 0; // fork to exit, monotonic clock
    double cpuMs = 0; // user + system time of the child and the children it waited for
    double peakRssMb = 0; // ru_maxrss, in MiB
    // Bytes the child caused to be sent to storage: /proc/<pid>/io write_bytes, accounted when pages are
    // dirtied (so it does not depend on when the kernel writes them back) and excluding pipes and
    // /dev/null. -1 where the system has no such accounting.
    qint64 bytesWritten = -1;
};

struct ChildCommand
{
    QString program; // a path, or a name looked up in PATH
    QStringList arguments;
    QString stdoutPath = "/dev/null";
    QString stderrPath; // empty: the benchmark's own stderr
    QStringList environment; // extra NAME=value entries
};

// Runs the command to completion. The exit is observed with waitid(WNOWAIT) so that /proc/<pid>/io can
// still be read from the finished child before wait4() reaps it and returns its rusage.
Usage measureChild(const ChildCommand& command);

// The median of each figure over several runs (ok only when every run was).
Usage medianOf(const QList<Usage>& runs);
