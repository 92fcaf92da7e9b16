// Choosing ports, making links.
#include "pipewirelinks.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace pipewire {

namespace {

constexpr std::array<std::string_view, 9> leftChannels = {"FL", "SL", "RL", "FLC", "TFL", "TRL", "TSL", "FLW", "FLH"};
constexpr std::array<std::string_view, 9> rightChannels
    = {"FR", "SR", "RR", "FRC", "TFR", "TRR", "TSR", "FRW", "FRH"};

template <typename List>
bool contains(const List& list, std::string_view channel)
{
    return std::find(list.begin(), list.end(), channel) != list.end();
}

/// Whether a channel is heard on that side. Channels without a side (one alone, the middle, the bass, unknown ones)
/// are heard on both.
bool isHeardOn(std::string_view side, std::string_view channel)
{
    if (contains(leftChannels, channel))
        return side == "FL";
    if (contains(rightChannels, channel))
        return side == "FR";
    return true;
}

template <typename Wanted>
std::set<PortPair> linksFrom(const Graph& graph, uint32_t capture, Wanted isWanted)
{
    std::set<PortPair> pairs;
    for (const auto& [inputId, input] : graph.ports) {
        if (input.node != capture || input.output)
            continue;
        for (const auto& [outputId, output] : graph.ports) {
            if (output.output && isWanted(output) && isHeardOn(input.channel, output.channel))
                pairs.insert({output.node, outputId, capture, inputId});
        }
    }
    return pairs;
}

}

std::optional<uint32_t> defaultSinkNode(const Graph& graph)
{
    if (graph.defaultSink.empty())
        return std::nullopt;
    const auto found = std::find_if(graph.nodes.begin(), graph.nodes.end(), [&](const auto& entry) {
        const std::optional<Node>& node = entry.second;
        return node && node->name == graph.defaultSink && node->mediaClass.rfind("Audio/", 0) == 0;
    });
    return found == graph.nodes.end() ? std::nullopt : std::optional(found->first);
}

std::set<PortPair> sinkLinks(const Graph& graph, uint32_t sink, uint32_t capture)
{
    return linksFrom(graph, capture, [&](const Port& port) { return port.node == sink && port.monitor; });
}

std::vector<uint32_t> playbackNodes(const Graph& graph, uint32_t capture)
{
    std::vector<uint32_t> nodes;
    for (const auto& [id, node] : graph.nodes) {
        if (id != capture && node && node->mediaClass == playbackClass && !node->loopback
            && isOwnerKnown(graph, *node))
            nodes.push_back(id);
    }
    return nodes;
}

std::set<PortPair> playbackLinks(const Graph& graph, const std::set<uint32_t>& nodes, uint32_t capture)
{
    return linksFrom(graph, capture, [&](const Port& port) { return nodes.count(port.node) > 0 && !port.monitor; });
}

/// The server tells, later, that it did not make the link, or that it has gone.
struct LinkSet::Link {
    static void onRemoved(void* data) { static_cast<Link*>(data)->gone = true; }
    static void onError(void* data, int /*sequence*/, int /*result*/, const char* /*message*/)
    {
        static_cast<Link*>(data)->refused = true;
    }
    static const pw_proxy_events events;

    ProxyHandle<pw_proxy> proxy;
    Hook hook;
    bool gone = false;
    bool refused = false;
};

const pw_proxy_events LinkSet::Link::events = [] {
    pw_proxy_events table{};
    table.version = PW_VERSION_PROXY_EVENTS;
    table.removed = &Link::onRemoved;
    table.error = &Link::onError;
    return table;
}();

namespace {

/// Links keep the nodes running: a capture that could be suspended would miss the beginning of the next audio.
pw_proxy* createLink(pw_core* core, const PortPair& pair)
{
    const PropertiesHandle properties(pw_properties_new(PW_KEY_OBJECT_LINGER, "false", nullptr));
    if (!properties)
        return nullptr;
    pw_properties_setf(properties.get(), PW_KEY_LINK_OUTPUT_NODE, "%u", pair.outputNode);
    pw_properties_setf(properties.get(), PW_KEY_LINK_OUTPUT_PORT, "%u", pair.outputPort);
    pw_properties_setf(properties.get(), PW_KEY_LINK_INPUT_NODE, "%u", pair.inputNode);
    pw_properties_setf(properties.get(), PW_KEY_LINK_INPUT_PORT, "%u", pair.inputPort);
    return static_cast<pw_proxy*>(
        pw_core_create_object(core, "link-factory", PW_TYPE_INTERFACE_Link, PW_VERSION_LINK, &properties->dict, 0));
}

}

LinkSet::LinkSet(pw_core* core) : core_(core) { }

LinkSet::~LinkSet() = default;

void LinkSet::set(const std::set<PortPair>& wanted)
{
    std::erase_if(links_, [&](const auto& entry) { return wanted.count(entry.first) == 0; });
    std::erase_if(links_, [](const auto& entry) { return entry.second->gone && !entry.second->refused; });
    for (const PortPair& pair : wanted) {
        std::unique_ptr<Link>& link = links_[pair];
        if (link)
            continue;
        link = std::make_unique<Link>();
        link->proxy.reset(createLink(core_, pair));
        if (link->proxy)
            pw_proxy_add_listener(link->proxy.get(), link->hook.get(), &Link::events, link.get());
    }
}

}
