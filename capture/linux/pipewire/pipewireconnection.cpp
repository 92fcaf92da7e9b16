// Connecting, and questions and answers.
#include "pipewireconnection.h"

#include "containment.h"
#include "descriptor.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace pipewire {

namespace {

constexpr int noDescriptor = -1;

/// The library stays initialised until the process ends: other threads may still use it then.
void initialiseLibrary()
{
    static const bool initialised = [] {
        pw_init(nullptr, nullptr);
        return true;
    }();
    static_cast<void>(initialised);
}

/// Without real time a busy machine (it is recording) makes the data thread late, and the audio of whole cycles is
/// lost. The right to it comes from the user's limits: asking for it over D-Bus could wait for long. Null, with the
/// reason in errno, on failure.
ContextHandle makeContext(pw_loop* loop, CoreConnection::Purpose purpose)
{
    ContextHandle context;
    if (purpose == CoreConnection::Purpose::AudioCapture) {
        pw_properties* realTime
            = pw_properties_new(PW_KEY_CONFIG_NAME, "client-rt.conf", "support.dbus", "false", nullptr);
        context.reset(pw_context_new(loop, realTime, 0));
    }
    if (!context) // also where that configuration is not installed
        context.reset(pw_context_new(loop, nullptr, 0));
    return context;
}

QString errorText(int number)
{
    return QString::fromLocal8Bit(std::strerror(number));
}

}

const pw_core_events CoreConnection::events = [] {
    pw_core_events table{};
    table.version = PW_VERSION_CORE_EVENTS;
    table.done = &CoreConnection::onDone;
    table.error = &CoreConnection::onError;
    return table;
}();

std::unique_ptr<CoreConnection> CoreConnection::open(Purpose purpose, QString* error)
{
    return open(purpose, error, noDescriptor);
}

std::unique_ptr<CoreConnection> CoreConnection::open(Purpose purpose, QString* error, int descriptor)
{
    initialiseLibrary();
    auto connection = std::unique_ptr<CoreConnection>(new CoreConnection);
    errno = 0;
    if (connection->connect(purpose, descriptor))
        return connection;
    *error = QStringLiteral("PipeWire cannot be reached: ") + errorText(errno);
    return nullptr;
}

/// Leaves the reason of a failure in errno.
bool CoreConnection::connect(Purpose purpose, int descriptor)
{
    Descriptor inherited(descriptor);
    loop_.reset(pw_thread_loop_new("pipewire", nullptr));
    if (!loop_)
        return false;
    context_ = makeContext(pw_thread_loop_get_loop(loop_.get()), purpose);
    if (!context_)
        return false;
    core_.reset(inherited.isValid() ? pw_context_connect_fd(context_.get(), inherited.release(), nullptr, 0)
                                    : pw_context_connect(context_.get(), nullptr, 0));
    if (!core_)
        return false;
    listen(core_.get(), coreHook_, events, this);
    const int result = pw_thread_loop_start(loop_.get());
    if (result < 0)
        errno = -result;
    return result >= 0;
}

CoreConnection::~CoreConnection()
{
    stop();
}

void CoreConnection::stop()
{
    if (loop_)
        pw_thread_loop_stop(loop_.get());
}

void CoreConnection::synchronise(Answer answer)
{
    if (lost_) {
        answer(lost_);
        return;
    }
    const int sequence = askForSync(core_.get());
    if (sequence < 0)
        answer(errorText(-sequence));
    else
        awaited_[sequence] = std::move(answer);
}

void CoreConnection::onDone(void* data, uint32_t id, int sequence)
{
    if (id == PW_ID_CORE)
        contain([&] { static_cast<CoreConnection*>(data)->handleDone(sequence); });
}

void CoreConnection::handleDone(int sequence)
{
    if (auto answered = awaited_.extract(sequence))
        answered.mapped()(std::nullopt);
}

void CoreConnection::onError(void* data, uint32_t id, int /*sequence*/, int result, const char* /*message*/)
{
    if (id == PW_ID_CORE && result == -EPIPE) // any other is about one object, and told to its proxy
        contain([&] {
            static_cast<CoreConnection*>(data)->handleLoss(
                QStringLiteral("The connection to PipeWire is lost: ") + errorText(-result));
        });
}

void CoreConnection::handleLoss(const QString& error)
{
    if (lost_)
        return;
    lost_ = error;
    for (const auto& [sequence, answer] : std::exchange(awaited_, {}))
        answer(error);
    if (lostHandler_)
        lostHandler_(error);
}

}
