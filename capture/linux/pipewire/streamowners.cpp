// The applications of this moment, and the decision on streams, from the process table and the X server.
#include "streamowners.h"

#include "processancestry.h"
#include "processtable.h"
#include "sandboxinfo.h"
#include "windowowners.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <unistd.h>
#include <utility>

namespace streamowners {

using processancestry::Kind;
using processtable::Identity;
using processtable::Process;
using processtable::Processes;

struct ApplicationSnapshot::Data {
    Processes processes;
    std::vector<platform::AudioApplication> applications;
    std::vector<std::pair<Identity, Kind>> kinds; ///< of the applications, in their order
};

namespace {

using Clock = std::chrono::steady_clock;

/// How long an answer of the X server holds for the processFilter, for streams come in bursts: this long, or this
/// many times what it took, so that a server that hangs holds up the other decisions only a part of the time.
constexpr std::chrono::milliseconds windowMemory{200};
constexpr int windowMemoryPerWait = 2;

/// The id of the sandbox that a process runs in; empty outside of one.
QString sandboxId(qint64 pid)
{
    return sandboxinfo::applicationId(QStringLiteral("/proc/%1/root").arg(pid));
}

class SnapshotBuilder {
public:
    explicit SnapshotBuilder(ApplicationSnapshot::Data& data) : data_(data) { }

    void addWindowOwners(const std::vector<windowowners::Owner>& owners);
    void addStreams(const std::vector<Stream>& streams);
    void addPlainProcesses();

private:
    std::optional<std::size_t> indexOf(qint64 pid) const;
    std::size_t add(const Process& process, Kind kind);
    std::size_t applicationOf(const Stream& stream, const Process& process);

    ApplicationSnapshot::Data& data_;
    std::map<qint64, std::size_t> indices_; // by process id
    std::set<std::size_t> namedByStream_;
    std::set<std::size_t> identifiedByStream_;
};

std::optional<std::size_t> SnapshotBuilder::indexOf(qint64 pid) const
{
    const auto found = indices_.find(pid);
    return found == indices_.end() ? std::nullopt : std::optional(found->second);
}

std::size_t SnapshotBuilder::add(const Process& process, Kind kind)
{
    const std::size_t index = data_.applications.size();
    platform::AudioApplication application;
    application.processId = qint32(process.identity.pid);
    data_.applications.push_back(application);
    data_.kinds.emplace_back(process.identity, kind);
    indices_.emplace(process.identity.pid, index);
    return index;
}

void SnapshotBuilder::addWindowOwners(const std::vector<windowowners::Owner>& owners)
{
    for (const windowowners::Owner& owner : owners) {
        const auto process = data_.processes.find(owner.processId);
        if (process == data_.processes.end() || process->second.ended)
            continue;
        platform::AudioApplication& application = data_.applications[add(process->second, Kind::WindowOwner)];
        application.applicationName = owner.name;
        const QString sandbox = sandboxId(owner.processId);
        application.bundleIdentifier = sandbox.isEmpty() ? owner.applicationId : sandbox;
    }
}

/// The nearest owner of a window, from the process upwards; otherwise the process itself.
std::size_t SnapshotBuilder::applicationOf(const Stream& stream, const Process& process)
{
    const auto now = [this](qint64 pid) {
        const auto found = data_.processes.find(pid);
        return found == data_.processes.end() ? std::nullopt : std::optional(found->second);
    };
    for (const Identity& ancestor : processancestry::ancestry(stream.processId, data_.processes, now)) {
        const std::optional<std::size_t> index = indexOf(ancestor.pid);
        if (index && data_.kinds[*index].second == Kind::WindowOwner)
            return *index;
    }
    const std::optional<std::size_t> index = indexOf(process.identity.pid);
    return index ? *index : add(process, Kind::StreamOwner);
}

/// Of several streams the first with a name or an id gives it to their application.
void SnapshotBuilder::addStreams(const std::vector<Stream>& streams)
{
    for (const Stream& stream : streams) {
        const auto process = data_.processes.find(stream.processId);
        if (stream.processId <= 1 || process == data_.processes.end() || process->second.ended)
            continue;
        const std::size_t index = applicationOf(stream, process->second);
        platform::AudioApplication& application = data_.applications[index];
        if (!stream.applicationName.isEmpty() && namedByStream_.insert(index).second)
            application.applicationName = stream.applicationName;
        if (!stream.applicationId.isEmpty() && identifiedByStream_.insert(index).second)
            application.bundleIdentifier = stream.applicationId;
        else if (application.bundleIdentifier.isEmpty())
            application.bundleIdentifier = sandboxId(application.processId);
    }
}

void SnapshotBuilder::addPlainProcesses()
{
    const qint64 user = qint64(::geteuid());
    for (const auto& [pid, process] : data_.processes) {
        if (pid > 1 && process.user == user && !process.ended && !process.ofKernel && !indexOf(pid))
            add(process, Kind::Plain);
    }
}

}

/// The windows come first: a process that starts in between is then new, and not one without a window.
std::shared_ptr<const ApplicationSnapshot> ApplicationSnapshot::take(const std::vector<Stream>& streams)
{
    const auto owners = windowowners::find();
    auto data = std::make_unique<Data>();
    data->processes = processtable::readAll();
    SnapshotBuilder builder(*data);
    if (owners)
        builder.addWindowOwners(*owners);
    builder.addStreams(streams);
    builder.addPlainProcesses();
    return std::make_shared<const ApplicationSnapshot>(std::move(data));
}

ApplicationSnapshot::ApplicationSnapshot(std::unique_ptr<const Data> data) : data_(std::move(data)) { }

ApplicationSnapshot::~ApplicationSnapshot() = default;

const std::vector<platform::AudioApplication>& ApplicationSnapshot::applications() const
{
    return data_->applications;
}

struct ProcessFilter::Impl {
    std::optional<bool> ownsWindow(const Identity& process);
    std::optional<bool> isHeard(
        const Ancestry& ancestry, std::function<std::optional<bool>(const Identity&)> windowOwner) const
    {
        return processancestry::isHeard(ancestry, {snapshot->data().processes, applications, std::move(windowOwner)});
    }

    std::shared_ptr<const ApplicationSnapshot> snapshot;
    std::map<Identity, processancestry::Application> applications;
    std::optional<std::set<qint64>> windowOwners; // nothing when the X server did not answer
    std::optional<Clock::time_point> staleFrom; // windowOwners; nothing before the first answer
};

std::optional<bool> ProcessFilter::Impl::ownsWindow(const Identity& process)
{
    const Clock::time_point begin = Clock::now();
    if (!staleFrom || begin >= *staleFrom) {
        windowOwners.reset();
        if (const auto owners = windowowners::find()) {
            windowOwners.emplace();
            for (const windowowners::Owner& owner : *owners)
                windowOwners->insert(owner.processId);
        }
        const Clock::time_point end = Clock::now();
        staleFrom = end + std::max<Clock::duration>(windowMemory, windowMemoryPerWait * (end - begin));
    }
    return windowOwners ? std::optional(windowOwners->count(process.pid) > 0) : std::nullopt;
}

ProcessFilter::ProcessFilter(
    std::shared_ptr<const ApplicationSnapshot> snapshot, const std::vector<std::size_t>& excluded)
    : impl_(std::make_unique<Impl>())
{
    const std::vector<std::pair<Identity, Kind>>& kinds = snapshot->data().kinds;
    for (const auto& [identity, kind] : kinds)
        impl_->applications[identity] = {kind, false};
    for (const std::size_t index : excluded)
        impl_->applications[kinds.at(index).first].excluded = true;
    impl_->snapshot = std::move(snapshot);
}

ProcessFilter::~ProcessFilter() = default;

Ancestry ProcessFilter::ancestryOf(qint64 processId) const
{
    return processancestry::ancestry(processId, impl_->snapshot->data().processes, processtable::read);
}

std::optional<bool> ProcessFilter::acceptsAtOnce(const Ancestry& ancestry) const
{
    return impl_->isHeard(ancestry, [](const Identity&) { return std::optional<bool>(); });
}

std::optional<bool> ProcessFilter::accepts(const Ancestry& ancestry)
{
    return impl_->isHeard(ancestry, [this](const Identity& process) { return impl_->ownsWindow(process); });
}

}
