// Reaching PipeWire for windows.
#include "nodeconnection.h"

#include "windowsourcechoice.h"

#include <QDebug>

#include <optional>

namespace wayland {

namespace {

using pipewire::CoreConnection;

constexpr std::chrono::seconds answerLimit{2};

/// What came of the inherited descriptor, which belongs to the connection once that was tried.
struct SharedConnection {
    std::mutex mutex;
    int descriptor = -1; ///< below 0: not tried yet
    std::shared_ptr<CoreConnection> connection;
    QString error;
};

/// The answer to a question that may come after nobody waits for it any more.
struct Answer {
    std::mutex mutex;
    std::optional<QString> error; ///< empty: none; nothing: no answer yet
    Wakeup wakeup;
};

}

void Wakeup::wake()
{
    const std::lock_guard lock(mutex_);
    awake_ = true;
    condition_.notify_all();
}

void Wakeup::waitUntil(Clock::time_point latest)
{
    std::unique_lock lock(mutex_);
    condition_.wait_until(lock, latest, [this] { return awake_; });
    awake_ = false;
}

std::shared_ptr<CoreConnection> connectToServer(QString* error)
{
    static SharedConnection shared;
    const std::lock_guard lock(shared.mutex);
    const InheritedConnection inherited = inheritedConnection();
    *error = inherited.error;
    if (!error->isEmpty())
        return nullptr;
    if (inherited.descriptor < 0)
        return CoreConnection::open(CoreConnection::Purpose::Introspection, error);
    if (shared.descriptor != inherited.descriptor) {
        shared.descriptor = inherited.descriptor;
        shared.error.clear();
        shared.connection
            = CoreConnection::open(CoreConnection::Purpose::Introspection, &shared.error, inherited.descriptor);
    }
    *error = shared.error;
    return shared.connection;
}

void logNoServer(const QString& error)
{
    qWarning() << "PipeWire is not there for the capture of windows:" << error;
}

bool serverAnswers()
{
    QString error;
    const std::shared_ptr<CoreConnection> connection = connectToServer(&error);
    if (connection) {
        const auto answer = std::make_shared<Answer>();
        {
            const pipewire::LoopLock lock = connection->lock();
            connection->synchronise([answer](const std::optional<QString>& failure) {
                const std::lock_guard answerLock(answer->mutex);
                answer->error = failure.value_or(QString());
                answer->wakeup.wake();
            });
        }
        answer->wakeup.waitUntil(Wakeup::Clock::now() + answerLimit);
        const std::lock_guard lock(answer->mutex);
        error = answer->error.value_or(QStringLiteral("PipeWire does not answer"));
    }
    if (!error.isEmpty())
        logNoServer(error);
    return error.isEmpty();
}

}
