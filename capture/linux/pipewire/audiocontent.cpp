// Looking up what can be heard, on a thread of its own for each request: the caller may give up at any time.
#include "platform/audio.h"

#include "backgroundtasks.h"
#include "pipewireconnection.h"
#include "pipewiregraph.h"
#include "streamowners.h"

#include <QFile>
#include <QScopeGuard>

#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <stop_token>
#include <utility>

namespace platform {

namespace {

using pipewire::Client;
using pipewire::CoreConnection;
using pipewire::Graph;
using pipewire::Node;

/// No caller waits that long: a server that takes longer has hung.
constexpr std::chrono::seconds answerLimit{30};

/// An answer of the server's that a thread waits for.
class Awaited {
public:
    /// The connection's callbacks end before this object does.
    CoreConnection::Answer answer()
    {
        return [this](const std::optional<QString>& error) {
            const std::lock_guard lock(mutex_);
            error_ = error;
            arrived_ = true;
            changed_.notify_all();
        };
    }

    /// False when the answer did not come before the limit or the request to stop.
    bool wait(const std::stop_token& stop)
    {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, stop, answerLimit, [this] { return arrived_; });
    }

    /// After the answer.
    const std::optional<QString>& error() const { return error_; }

private:
    std::mutex mutex_;
    std::condition_variable_any changed_;
    bool arrived_ = false;
    std::optional<QString> error_;
};

const std::string& firstKnown(const std::string& first, const std::string& second)
{
    return first.empty() ? second : first;
}

streamowners::Stream streamOf(const Graph& graph, const Node& node)
{
    const Client* known = pipewire::clientOf(graph, node);
    const Client client = known ? *known : Client();
    const std::string& ownId = firstKnown(node.applicationId, client.applicationId);
    return {pipewire::ownerProcess(graph, node),
        QString::fromStdString(firstKnown(node.applicationName, client.applicationName)),
        QString::fromStdString(firstKnown(client.portalApplicationId, ownId))};
}

std::vector<streamowners::Stream> streamsOf(const Graph& graph)
{
    std::vector<streamowners::Stream> streams;
    for (const auto& [id, node] : graph.nodes) {
        if (node && node->mediaClass == pipewire::playbackClass)
            streams.push_back(streamOf(graph, *node));
    }
    return streams;
}

/// What plays now. Nothing without an error when the server does not answer.
std::optional<std::vector<streamowners::Stream>> lookUpStreams(
    const std::stop_token& stop, std::optional<QString>* error)
{
    Awaited registry;
    Awaited descriptions;
    QString failure;
    const auto connection = CoreConnection::open(CoreConnection::Purpose::Introspection, &failure);
    if (!connection) {
        *error = failure;
        return std::nullopt;
    }
    std::unique_ptr<pipewire::GraphMirror> mirror;
    const auto stopped = qScopeGuard([&connection] { connection->stop(); }); // before the mirror goes
    const auto ask = [&](Awaited& awaited) {
        const pipewire::LoopLock lock = connection->lock();
        if (!mirror)
            mirror = std::make_unique<pipewire::GraphMirror>(connection->core(), [] {});
        connection->synchronise(awaited.answer());
    };
    // The first answer follows the list of all objects, the second one what each of them is.
    bool answered = true;
    for (Awaited* awaited : {&registry, &descriptions}) {
        ask(*awaited);
        answered = awaited->wait(stop);
        *error = answered ? awaited->error() : std::nullopt;
        if (!answered || *error)
            break;
    }
    connection->stop();
    if (answered && !*error && !mirror->isComplete())
        *error = QStringLiteral("PipeWire's graph is not complete");
    if (!answered || *error)
        return std::nullopt;
    return streamsOf(mirror->graph());
}

/// Null with an error, or without one when the server does not answer.
std::shared_ptr<const AudioContent> contentNow(const std::stop_token& stop, std::optional<QString>* error)
{
    const auto streams = lookUpStreams(stop, error);
    if (!streams)
        return nullptr;
    const auto snapshot = streamowners::ApplicationSnapshot::take(*streams);
    auto content = std::make_shared<AudioContent>();
    content->displays = 1; // the sink that everything plays through unless told otherwise
    content->applications = snapshot->applications();
    content->native = snapshot;
    return content;
}

void lookUp(const std::stop_token& stop, const AudioContentCompletion& completion)
{
    std::optional<QString> error;
    std::shared_ptr<const AudioContent> content;
    try {
        content = contentNow(stop, &error);
    } catch (const std::exception& exception) {
        error = QString::fromLocal8Bit(exception.what());
    }
    if (content || error)
        completion(std::move(content), std::move(error));
}

}

void requestAudioContent(
    bool /*excludeDesktopWindows*/, bool /*onScreenWindowsOnly*/, AudioContentCompletion completion)
{
    const AudioContentCompletion refused = completion;
    const bool started = backgroundtasks::start(
        [answered = std::move(completion)](const std::stop_token& stop) { lookUp(stop, answered); });
    if (!started)
        refused(nullptr, QStringLiteral("no thread is to be had"));
}

QString executablePath(qint64 processId)
{
    const QString target = QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(processId));
    static const QLatin1String deleted(" (deleted)"); // what the kernel says when the file has been replaced
    return target.endsWith(deleted) ? target.chopped(deleted.size()) : target;
}

}
