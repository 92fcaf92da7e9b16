// Processes that do nothing, and who owns which window: for the tests of owners.
#pragma once

#include "linux/pipewire/streamowners.h"
#include "linux/x11/windowowners.h"

#include <QProcess>
#include <QStringList>

#include <csignal>
#include <optional>
#include <unistd.h>
#include <vector>

namespace ownertest {

constexpr int limitMs = 30'000;
const inline QString keepAlive = QStringLiteral("600"); // seconds

/// A process that does nothing, for the lifetime of the object; its children end with it.
class Idler {
public:
    explicit Idler(const QString& program = QStringLiteral("sleep"), const QStringList& arguments = {keepAlive})
    {
        process_.setChildProcessModifier([] { ::setpgid(0, 0); });
        process_.start(program, arguments);
        process_.waitForStarted();
    }
    ~Idler()
    {
        ::kill(pid_t(-process_.processId()), SIGKILL);
        process_.waitForFinished();
    }

    qint64 pid() const { return process_.processId(); }

private:
    QProcess process_;
};

inline std::optional<std::size_t> find(const streamowners::ApplicationSnapshot& snapshot, qint64 pid)
{
    for (std::size_t i = 0; i < snapshot.applications().size(); ++i) {
        if (snapshot.applications()[i].processId == pid)
            return i;
    }
    return std::nullopt;
}

/// Nobody where it is not known.
inline std::vector<windowowners::Owner> owners()
{
    return windowowners::find().value_or(std::vector<windowowners::Owner>());
}

inline qint64 windowOwner(std::size_t index)
{
    const auto all = owners();
    return index < all.size() ? all[index].processId : 0;
}

}
