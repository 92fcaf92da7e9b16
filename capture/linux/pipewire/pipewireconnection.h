// CoreConnection: a connection to the PipeWire server, with the thread that serves it.
#pragma once

#include "pipewirehandles.h"

#include <QString>

#include <functional>
#include <map>
#include <memory>
#include <optional>

namespace pipewire {

/**
 * Nothing here waits for the server. Callbacks run on the connection's thread, with its lock held; so does everything
 * that is made with core(): use it under lock() on other threads. A server that hangs or ends leaves the connection
 * as it is; what was asked of it then stays unanswered, or is told the error.
 */
class CoreConnection {
public:
    /// Nothing for success, else the error's text for people.
    using Answer = std::function<void(const std::optional<QString>& error)>;

    enum class Purpose {
        Introspection,
        AudioCapture, ///< with a data thread that runs in real time where the system allows it
    };

    /// To the server that the environment names. Null when it cannot be reached; *error is then the text.
    static std::unique_ptr<CoreConnection> open(Purpose purpose, QString* error);
    /// The same over a socket that is connected already; the connection closes it, also when it fails.
    static std::unique_ptr<CoreConnection> open(Purpose purpose, QString* error, int descriptor);
    ~CoreConnection();
    CoreConnection(const CoreConnection&) = delete;
    CoreConnection& operator=(const CoreConnection&) = delete;

    LoopLock lock() const { return LoopLock(loop_.get()); }
    pw_core* core() const { return core_.get(); }

    /// Under the lock: who is told, once, that the connection is lost.
    void setLostHandler(std::function<void(const QString& error)> handler) { lostHandler_ = std::move(handler); }

    /// Under the lock: answers when the server has done all that it was asked before.
    void synchronise(Answer answer);

    /// Ends the thread; then no callback runs and none will, and no lock is needed. What was made with core() has to
    /// be released after this, and before the connection. Not on the connection's thread.
    void stop();

private:
    CoreConnection() = default;

    bool connect(Purpose purpose, int descriptor);
    static void onDone(void* data, uint32_t id, int sequence);
    static void onError(void* data, uint32_t id, int sequence, int result, const char* message);
    void handleDone(int sequence);
    void handleLoss(const QString& error);

    static const pw_core_events events;

    LoopHandle loop_;
    ContextHandle context_;
    CoreHandle core_;
    Hook coreHook_;
    std::map<int, Answer> awaited_; // by the number of the request
    std::optional<QString> lost_; // the error
    std::function<void(const QString& error)> lostHandler_;
};

}
