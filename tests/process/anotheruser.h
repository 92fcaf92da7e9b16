// Another user of the machine, for tests that root runs.
#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

#include <sys/types.h>

namespace anotheruser {

inline constexpr uid_t id = 65534;

/// What another user does in a shell: its exit code, or -1.
inline int run(const QString& commands)
{
    constexpr int limitMs = 60'000;
    QProcess shell;
    shell.start(QStringLiteral("setpriv"),
        {QStringLiteral("--reuid"), QString::number(id), QStringLiteral("--clear-groups"), QStringLiteral("sh"),
            QStringLiteral("-ec"), QStringLiteral("umask 022; ") + commands});
    return shell.waitForFinished(limitMs) && shell.exitStatus() == QProcess::NormalExit ? shell.exitCode() : -1;
}

}
