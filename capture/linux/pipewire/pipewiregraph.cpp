// Following the server's registry.
#include "pipewiregraph.h"

#include "containment.h"
#include "platform/audio.h"

#include <QString>

#include <spa/utils/json.h>

#include <array>
#include <charconv>
#include <cstring>
#include <string_view>
#include <utility>

namespace pipewire {

namespace {

/// Null where there is none, or there are no properties at all.
const char* valueOf(const spa_dict* properties, const char* key)
{
    return properties ? spa_dict_lookup(properties, key) : nullptr;
}

std::string text(const spa_dict* properties, const char* key)
{
    const char* const value = valueOf(properties, key);
    return value ? value : "";
}

template <typename Number>
std::optional<Number> number(const spa_dict* properties, const char* key)
{
    const std::string value = text(properties, key);
    Number result = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), result);
    if (error != std::errc() || end != value.data() + value.size())
        return std::nullopt;
    return result;
}

qint64 processId(const spa_dict* properties, const char* key)
{
    return number<qint64>(properties, key).value_or(0);
}

constexpr std::string_view pulseApi = "pipewire-pulse";

/// The service is a program of its own, or a part of PipeWire. Where its executable cannot be told, as for a process
/// with more rights than this one, what it says counts.
bool isPulseService(const Client& client)
{
    const std::string& program = client.peerProgram;
    return client.api == pulseApi
        && (client.peerProcessId <= 0 || program.empty() || program == "pipewire" || program == "pipewire-pulse");
}

std::string programName(qint64 pid)
{
    const QString path = pid > 0 ? platform::executablePath(pid) : QString();
    return path.section(QLatin1Char('/'), -1).toStdString();
}

constexpr const char* portalId = "pipewire.access.portal.app_id";

Client clientFrom(const spa_dict* properties)
{
    Client client;
    client.api = text(properties, PW_KEY_CLIENT_API);
    client.peerProcessId = processId(properties, PW_KEY_SEC_PID);
    if (client.api == pulseApi)
        client.peerProgram = programName(client.peerProcessId);
    client.processId = processId(properties, PW_KEY_APP_PROCESS_ID);
    client.applicationName = text(properties, PW_KEY_APP_NAME);
    client.applicationId = text(properties, PW_KEY_APP_ID);
    client.portalApplicationId = text(properties, portalId);
    return client;
}

Node nodeFrom(const spa_dict* properties)
{
    Node node;
    node.client = number<uint32_t>(properties, PW_KEY_CLIENT_ID);
    node.name = text(properties, PW_KEY_NODE_NAME);
    node.mediaClass = text(properties, PW_KEY_MEDIA_CLASS);
    node.loopback = valueOf(properties, PW_KEY_NODE_LINK_GROUP);
    node.processId = processId(properties, PW_KEY_APP_PROCESS_ID);
    node.applicationName = text(properties, PW_KEY_APP_NAME);
    node.applicationId = text(properties, PW_KEY_APP_ID);
    return node;
}

PortPair linkFrom(const spa_dict* properties)
{
    const auto id
        = [&](const char* key) { return number<uint32_t>(properties, key).value_or(uint32_t(SPA_ID_INVALID)); };
    return {id(PW_KEY_LINK_OUTPUT_NODE), id(PW_KEY_LINK_OUTPUT_PORT), id(PW_KEY_LINK_INPUT_NODE),
        id(PW_KEY_LINK_INPUT_PORT)};
}

Port portFrom(const spa_dict* properties)
{
    Port port;
    port.node = number<uint32_t>(properties, PW_KEY_NODE_ID).value_or(SPA_ID_INVALID);
    port.output = text(properties, PW_KEY_PORT_DIRECTION) == "out";
    port.monitor = text(properties, PW_KEY_PORT_MONITOR) == "true";
    port.channel = text(properties, PW_KEY_AUDIO_CHANNEL);
    return port;
}

}

const Client* clientOf(const Graph& graph, const Node& node)
{
    if (!node.client)
        return nullptr;
    const auto found = graph.clients.find(*node.client);
    return found != graph.clients.end() && found->second ? &*found->second : nullptr;
}

qint64 ownerProcess(const Graph& graph, const Node& node)
{
    const Client* client = clientOf(graph, node);
    if (!client)
        return node.processId;
    if (isPulseService(*client))
        return node.processId > 0 ? node.processId : client->processId;
    return client->peerProcessId > 0 ? client->peerProcessId : client->processId;
}

bool isOwnerKnown(const Graph& graph, const Node& node)
{
    return !node.client || clientOf(graph, node);
}

std::string sinkName(const char* json)
{
    if (!json)
        return {};
    spa_json whole{};
    spa_json object{};
    spa_json_init(&whole, json, std::strlen(json));
    if (spa_json_enter_object(&whole, &object) <= 0)
        return {};
    std::array<char, 1024> key{};
    std::array<char, 1024> value{};
    while (spa_json_get_string(&object, key.data(), int(key.size())) > 0) {
        if (std::string_view(key.data()) == "name")
            return spa_json_get_string(&object, value.data(), int(value.size())) > 0 ? value.data() : "";
        const char* ignored = nullptr;
        if (spa_json_next(&object, &ignored) <= 0)
            break;
    }
    return {};
}

template <typename Interface>
struct GraphMirror::Bound {
    Bound(GraphMirror* owner, uint32_t ownId, Interface* object) : mirror(owner), id(ownId), proxy(object) { }

    GraphMirror* mirror;
    uint32_t id;
    ProxyHandle<Interface> proxy;
    Hook hook;
};

struct GraphMirror::BoundClient : Bound<pw_client> {
    using Bound::Bound;

    static void onInfo(void* data, const pw_client_info* info)
    {
        auto* self = static_cast<BoundClient*>(data);
        if (!(info->change_mask & PW_CLIENT_CHANGE_MASK_PROPS))
            return;
        self->mirror->apply([&](Graph& graph) { graph.clients[self->id] = clientFrom(info->props); });
    }
    static const pw_client_events events;
};

const pw_client_events GraphMirror::BoundClient::events = [] {
    pw_client_events table{};
    table.version = PW_VERSION_CLIENT_EVENTS;
    table.info = &BoundClient::onInfo;
    return table;
}();

struct GraphMirror::BoundNode : Bound<pw_node> {
    using Bound::Bound;

    static void onInfo(void* data, const pw_node_info* info)
    {
        auto* self = static_cast<BoundNode*>(data);
        if (!(info->change_mask & PW_NODE_CHANGE_MASK_PROPS))
            return;
        self->mirror->apply([&](Graph& graph) { graph.nodes[self->id] = nodeFrom(info->props); });
    }
    static const pw_node_events events;
};

const pw_node_events GraphMirror::BoundNode::events = [] {
    pw_node_events table{};
    table.version = PW_VERSION_NODE_EVENTS;
    table.info = &BoundNode::onInfo;
    return table;
}();

struct GraphMirror::BoundPort : Bound<pw_port> {
    using Bound::Bound;

    /// A port has a latency in either direction: what lies behind it, and what lies before it.
    static void onParam(
        void* data, int /*sequence*/, uint32_t id, uint32_t /*index*/, uint32_t /*next*/, const spa_pod* parameter)
    {
        auto* self = static_cast<BoundPort*>(data);
        const auto latency = id == SPA_PARAM_Latency && parameter ? parseLatency(parameter) : std::nullopt;
        if (!latency || latency->direction != SPA_DIRECTION_INPUT)
            return;
        self->mirror->apply([&](Graph& graph) { graph.ports[self->id].latency = latency; });
    }
    static const pw_port_events events;
};

const pw_port_events GraphMirror::BoundPort::events = [] {
    pw_port_events table{};
    table.version = PW_VERSION_PORT_EVENTS;
    table.param = &BoundPort::onParam;
    return table;
}();

struct GraphMirror::BoundMetadata : Bound<pw_metadata> {
    using Bound::Bound;

    /// A null key stands for all of the subject's.
    static int onProperty(void* data, uint32_t subject, const char* key, const char* /*type*/, const char* value)
    {
        auto* self = static_cast<BoundMetadata*>(data);
        if (subject != PW_ID_CORE || (key && std::string_view(key) != "default.audio.sink"))
            return 0;
        self->mirror->apply([&](Graph& graph) { graph.defaultSink = sinkName(key ? value : nullptr); });
        return 0;
    }
    static const pw_metadata_events events;
};

const pw_metadata_events GraphMirror::BoundMetadata::events = [] {
    pw_metadata_events table{};
    table.version = PW_VERSION_METADATA_EVENTS;
    table.property = &BoundMetadata::onProperty;
    return table;
}();

const pw_registry_events GraphMirror::events = [] {
    pw_registry_events table{};
    table.version = PW_VERSION_REGISTRY_EVENTS;
    table.global = &GraphMirror::onGlobal;
    table.global_remove = &GraphMirror::onGlobalRemove;
    return table;
}();

GraphMirror::GraphMirror(pw_core* core, std::function<void()> changed)
    : changed_(std::move(changed)), registry_(pw_core_get_registry(core, PW_VERSION_REGISTRY, 0))
{
    if (registry_)
        listen(registry_.get(), registryHook_, events, this);
}

GraphMirror::~GraphMirror() = default;

void GraphMirror::onGlobal(void* data, uint32_t id, uint32_t /*permissions*/, const char* type, uint32_t /*version*/,
    const spa_dict* properties)
{
    auto* self = static_cast<GraphMirror*>(data);
    self->apply([&](Graph&) { self->add(id, type, properties); });
}

void GraphMirror::onGlobalRemove(void* data, uint32_t id)
{
    auto* self = static_cast<GraphMirror*>(data);
    self->apply([&](Graph&) { self->remove(id); });
}

/// The one way in which the server's messages come in.
template <typename Change>
void GraphMirror::apply(const Change& change)
{
    const bool done = contain([&] {
        change(graph_);
        changed_();
    });
    complete_ = complete_ && done;
}

void GraphMirror::add(uint32_t id, const char* type, const spa_dict* properties)
{
    const std::string_view kind = type;
    const auto bind = [&](uint32_t version) { return pw_registry_bind(registry_.get(), id, type, version, 0); };
    if (kind == PW_TYPE_INTERFACE_Client) {
        auto* proxy = static_cast<pw_client*>(bind(PW_VERSION_CLIENT));
        if (!proxy)
            return;
        graph_.clients[id] = std::nullopt;
        auto& bound = clients_[id] = std::make_unique<BoundClient>(this, id, proxy);
        listen(proxy, bound->hook, BoundClient::events, bound.get());
    } else if (kind == PW_TYPE_INTERFACE_Node) {
        auto* proxy = static_cast<pw_node*>(bind(PW_VERSION_NODE));
        if (!proxy)
            return;
        graph_.nodes[id] = std::nullopt;
        auto& bound = nodes_[id] = std::make_unique<BoundNode>(this, id, proxy);
        listen(proxy, bound->hook, BoundNode::events, bound.get());
    } else if (kind == PW_TYPE_INTERFACE_Port && properties) {
        addPort(id, *properties);
    } else if (kind == PW_TYPE_INTERFACE_Link && properties) {
        graph_.links[id] = linkFrom(properties);
    } else if (kind == PW_TYPE_INTERFACE_Metadata && properties
        && text(properties, PW_KEY_METADATA_NAME) == "default") {
        addMetadata(id);
    }
}

void GraphMirror::addPort(uint32_t id, const spa_dict& properties)
{
    const Port& port = graph_.ports[id] = portFrom(&properties);
    auto* proxy = port.output
        ? nullptr
        : static_cast<pw_port*>(pw_registry_bind(registry_.get(), id, PW_TYPE_INTERFACE_Port, PW_VERSION_PORT, 0));
    if (proxy) {
        auto& bound = ports_[id] = std::make_unique<BoundPort>(this, id, proxy);
        listen(proxy, bound->hook, BoundPort::events, bound.get());
        subscribe(proxy, SPA_PARAM_Latency);
    }
}

void GraphMirror::addMetadata(uint32_t id)
{
    auto* proxy = static_cast<pw_metadata*>(
        pw_registry_bind(registry_.get(), id, PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA, 0));
    if (!proxy)
        return;
    metadata_ = std::make_unique<BoundMetadata>(this, id, proxy);
    listen(proxy, metadata_->hook, BoundMetadata::events, metadata_.get());
}

void GraphMirror::remove(uint32_t id)
{
    clients_.erase(id);
    nodes_.erase(id);
    ports_.erase(id);
    graph_.clients.erase(id);
    graph_.nodes.erase(id);
    graph_.ports.erase(id);
    graph_.links.erase(id);
    if (metadata_ && metadata_->id == id)
        metadata_.reset(); // the sink stays the default until somebody says otherwise
}

}
