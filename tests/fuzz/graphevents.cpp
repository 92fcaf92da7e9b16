// The audio graph's events: what PipeWire's server tells of programs, nodes, ports, links and defaults, and what is
// captured because of it.
//
// An input is events: a byte for the kind, a byte for the object, and what belongs to it. Texts end with a zero byte.
// The capture follows at the end, and where the input says so.
#include "fakeplatform.h"
#include "fakeserver.h"
#include "fuzztarget.h"
#include "pipewiregraph.h"
#include "pipewirelatency.h"
#include "pipewirelinks.h"
#include "streamplan.h"

#include <algorithm>
#include <set>

namespace {

using namespace pipewire;

constexpr int mostEvents = 48;
constexpr uint32_t mostObjects = 24;
constexpr uint32_t captureNode = 1; // of the recorder; the input describes its ports

/// Properties of an object; null where there are none at all.
class Properties {
public:
    explicit Properties(fuzz::Input& input);

    const spa_dict* get() const { return isThere_ ? &dict_ : nullptr; }

private:
    static constexpr std::size_t most = 8;

    bool isThere_ = true;
    std::vector<std::pair<std::string, std::string>> texts_;
    std::vector<spa_dict_item> items_;
    spa_dict dict_{};
};

Properties::Properties(fuzz::Input& input)
{
    static constexpr const char* names[]
        = {PW_KEY_CLIENT_ID, PW_KEY_NODE_NAME, PW_KEY_MEDIA_CLASS, PW_KEY_NODE_LINK_GROUP, PW_KEY_APP_PROCESS_ID,
            PW_KEY_APP_NAME, PW_KEY_APP_ID, PW_KEY_CLIENT_API, PW_KEY_SEC_PID, PW_KEY_NODE_ID, PW_KEY_PORT_DIRECTION,
            PW_KEY_PORT_MONITOR, PW_KEY_AUDIO_CHANNEL, PW_KEY_LINK_OUTPUT_NODE, PW_KEY_LINK_OUTPUT_PORT,
            PW_KEY_LINK_INPUT_NODE, PW_KEY_LINK_INPUT_PORT, PW_KEY_METADATA_NAME, "pipewire.access.portal.app_id"};
    const auto count = input.take<uint8_t>();
    isThere_ = count != 0xff;
    for (std::size_t i = 0; i < std::min<std::size_t>(count, most) && !input.isEmpty(); ++i) {
        const auto name = input.take<uint8_t>();
        const bool isKnown = name < std::size(names);
        const std::string key = isKnown ? names[name] : std::string(input.takeText('\0'));
        texts_.emplace_back(key, input.takeText('\0'));
    }
    for (const auto& [key, value] : texts_)
        items_.push_back({key.c_str(), value.c_str()});
    dict_ = {0, uint32_t(items_.size()), items_.data()};
}

/// The capture of audio, as far as it follows from the graph.
class Capture {
public:
    Capture();

    void tell(fuzz::Input& input);
    void check();

private:
    void tellGlobal(fuzz::Input& input, uint32_t id);
    void tellInfo(fuzz::Input& input, uint32_t id);
    void tellLatency(fuzz::Input& input, uint32_t id);
    void tellDefault(fuzz::Input& input, uint32_t id);
    void checkLinks(const std::set<PortPair>& pairs) const;
    void checkPlan(const std::set<uint32_t>& wanted);

    FakeServer server_;
    int changes_ = 0;
    GraphMirror mirror_{server_.core(), [this] { ++changes_; }};
    LinkSet links_{server_.core()};
    StreamPlan plan_;
};

Capture::Capture()
{
    fuzz::require(server_.hasListener(), "the registry is followed");
}

void Capture::tell(fuzz::Input& input)
{
    const auto kind = input.take<uint8_t>() % 8;
    const uint32_t id = input.take<uint8_t>() % mostObjects;
    const int before = changes_;
    switch (kind) {
    case 0:
        return tellGlobal(input, id);
    case 1:
        return tellInfo(input, id);
    case 2:
        return tellLatency(input, id);
    case 3:
        return tellDefault(input, id);
    case 4:
        server_.removeGlobal(id);
        fuzz::require(changes_ == before + 1, "what goes is followed");
        fuzz::require(mirror_.graph().nodes.count(id) + mirror_.graph().ports.count(id)
                    + mirror_.graph().clients.count(id) + mirror_.graph().links.count(id)
                == 0,
            "what has gone is not in the graph");
        return;
    case 5:
        return server_.removeLink(id);
    case 6:
        return server_.refuseLink(id);
    default:
        return check();
    }
}

void Capture::tellGlobal(fuzz::Input& input, uint32_t id)
{
    static constexpr const char* types[] = {PW_TYPE_INTERFACE_Client, PW_TYPE_INTERFACE_Node, PW_TYPE_INTERFACE_Port,
        PW_TYPE_INTERFACE_Link, PW_TYPE_INTERFACE_Metadata, PW_TYPE_INTERFACE_Device};
    const char* const type = types[input.take<uint8_t>() % std::size(types)];
    const Properties properties(input);
    server_.addGlobal(id, type, properties.get());
}

void Capture::tellInfo(fuzz::Input& input, uint32_t id)
{
    const bool withProperties = input.take<uint8_t>() % 4;
    const Properties properties(input);
    server_.describe(id, withProperties, properties.get());
}

/// A value as it comes over the socket, whose size in its head the library has checked.
void Capture::tellLatency(fuzz::Input& input, uint32_t id)
{
    const auto parameter = input.take<uint8_t>() % 2 ? SPA_PARAM_Latency : SPA_PARAM_Format;
    const auto size = input.take<uint8_t>();
    const auto bytes = input.takeBytes(size);
    std::vector<uint64_t> memory((sizeof(spa_pod) + bytes.size() + 7) / 8); // aligned as the library's are
    spa_pod head{uint32_t(memory.size() * 8 - sizeof(spa_pod)), SPA_TYPE_Object};
    std::memcpy(memory.data(), &head, sizeof(head));
    if (!bytes.empty())
        std::memcpy(reinterpret_cast<uint8_t*>(memory.data()) + sizeof(head), bytes.data(), bytes.size());
    server_.tellParameter(id, parameter, size == 0 ? nullptr : reinterpret_cast<const spa_pod*>(memory.data()));
}

void Capture::tellDefault(fuzz::Input& input, uint32_t id)
{
    const auto choice = input.take<uint8_t>();
    const std::string key = choice & 1 ? "default.audio.sink" : std::string(input.takeText('\0'));
    const std::string value(input.takeText('\0'));
    const bool hasKey = !(choice & 2);
    const bool hasValue = !(choice & 4);
    server_.tellProperty(
        choice & 8 ? id : uint32_t(PW_ID_CORE), hasKey ? key.c_str() : nullptr, hasValue ? value.c_str() : nullptr);
}

void Capture::checkLinks(const std::set<PortPair>& pairs) const
{
    const auto& ports = mirror_.graph().ports;
    for (const PortPair& pair : pairs) {
        const auto output = ports.find(pair.outputPort);
        const auto input = ports.find(pair.inputPort);
        fuzz::require(output != ports.end() && input != ports.end(), "links join ports that are there");
        fuzz::require(output->second.output && !input->second.output, "links lead from an output to an input");
        fuzz::require(output->second.node == pair.outputNode && input->second.node == captureNode
                && pair.inputNode == captureNode,
            "links lead to the capture");
    }
}

void Capture::checkPlan(const std::set<uint32_t>& wanted)
{
    const Graph& graph = mirror_.graph();
    std::set<uint32_t> ids;
    std::multiset<uint32_t> captured;
    for (const StreamPlan::Stream& stream : plan_.update(graph, wanted)) {
        fuzz::require(ids.insert(stream.id).second, "a stream has an id of its own");
        captured.insert(stream.nodes.begin(), stream.nodes.end());
        const qint64 latencyNs = usualLatencyNs(stream.latency);
        fuzz::require(latencyNs >= 0 && latencyNs <= mostLatencyNs, "a latency is a bounded time");
        const spa_latency_info bounded = boundedLatency(stream.latency);
        fuzz::require(usualLatencyNs(bounded) == latencyNs, "a bounded latency stays as it is");
    }
    fuzz::require(!ids.empty() && ids.size() <= StreamPlan::mostStreams, "there are streams, and not too many");
    fuzz::require(std::equal(captured.begin(), captured.end(), wanted.begin(), wanted.end()),
        "who is wanted is captured, once");
}

void Capture::check()
{
    const Graph& graph = mirror_.graph();
    fuzz::require(mirror_.isComplete(), "nothing of the graph is lost");
    std::set<uint32_t> wanted;
    for (const uint32_t node : playbackNodes(graph, captureNode)) {
        fuzz::require(
            node != captureNode && isOwnerKnown(graph, *graph.nodes.at(node)), "a player has a known owner");
        if (ownerProcess(graph, *graph.nodes.at(node)) % 3 != 1)
            wanted.insert(node);
    }
    const std::set<PortPair> fromPlayers = playbackLinks(graph, wanted, captureNode);
    checkLinks(fromPlayers);
    checkPlan(wanted);
    std::set<PortPair> fromSink;
    if (const auto sink = defaultSinkNode(graph)) {
        fuzz::require(graph.nodes.at(*sink)->name == graph.defaultSink, "the default sink is the one of that name");
        fromSink = sinkLinks(graph, *sink, captureNode);
        checkLinks(fromSink);
    }
    const std::set<PortPair>& kept = changes_ % 2 ? fromSink : fromPlayers;
    links_.set(kept);
    fuzz::require(server_.linkCount() == kept.size(), "there are the links that are wanted, once");
}

void run(fuzz::Input input)
{
    fakeplatform::reset();
    Capture capture;
    for (int i = 0; i < mostEvents && !input.isEmpty(); ++i)
        capture.tell(input);
    capture.check();
}

const fuzz::Target graphEvents{"graphevents", run, {}};

}

ORVANTIS_FUZZ_TARGET(graphEvents)
