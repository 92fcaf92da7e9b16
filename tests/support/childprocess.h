// What servers of tests have in common: they end with the test, even when that is killed.
#pragma once

#include <QProcess>
#include <QString>

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

namespace childprocess {

constexpr int startLimitMs = 30'000; // moments when nothing else runs
constexpr int endLimitMs = 10'000;

/// Before the start, on a thread that outlives the process (the kernel watches the thread).
inline void endWithParent(QProcess& process)
{
    process.setChildProcessModifier([parent = ::getpid()] {
        sigset_t none;
        ::sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr); // what this process blocks, the child would never hear
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(1); // the parent was gone before the line above
    });
}

inline bool isAlive(QProcess& process)
{
    process.waitForFinished(0); // notices an end that no event loop has reported yet
    return process.state() == QProcess::Running;
}

/// In order, by force when that takes too long.
inline void end(QProcess& process)
{
    if (!isAlive(process))
        return;
    ::kill(pid_t(process.processId()), SIGCONT); // a stopped one would not hear the next signal
    process.terminate();
    if (process.waitForFinished(endLimitMs))
        return;
    process.kill();
    process.waitForFinished(endLimitMs);
}

}
