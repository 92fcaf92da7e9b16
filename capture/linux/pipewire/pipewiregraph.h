// The server's graph of programs, nodes and ports, as far as the capture of audio needs it.
#pragma once

#include "pipewirehandles.h"

#include <QtGlobal>

#include <spa/param/latency.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>

namespace pipewire {

/// A program that is connected to the server. Texts that the server does not know are empty, numbers 0.
struct Client {
    std::string api; ///< through which it is connected, as it says
    qint64 peerProcessId = 0; ///< what the kernel says of the other end of the connection
    std::string peerProgram; ///< name of the executable there; looked up where it says to be the PulseAudio service
    qint64 processId = 0; ///< what the program says
    std::string applicationName;
    std::string applicationId;
    std::string portalApplicationId; ///< of a sandboxed program
};

struct Node {
    std::optional<uint32_t> client; ///< whose node it is; nothing for the server's own
    std::string name;
    std::string mediaClass;
    bool loopback = false; ///< one of several that pass the audio of others on
    qint64 processId = 0;
    std::string applicationName;
    std::string applicationId;
};

struct Port {
    uint32_t node = 0;
    bool output = false; ///< audio comes out of it
    bool monitor = false; ///< of a sink: what the sink plays
    std::string channel; ///< "FL", "MONO", ...; may be empty
    /// Of an input port: how long what arrives there takes to be heard. Nothing while the server has not told.
    std::optional<spa_latency_info> latency = std::nullopt;
};

/// From an output port to an input port.
struct PortPair {
    uint32_t outputNode = 0;
    uint32_t outputPort = 0;
    uint32_t inputNode = 0;
    uint32_t inputPort = 0;

    bool operator==(const PortPair&) const = default;
    bool operator<(const PortPair& other) const
    {
        return std::tie(outputNode, outputPort, inputNode, inputPort)
            < std::tie(other.outputNode, other.outputPort, other.inputNode, other.inputPort);
    }
};

/// By the server's ids. A client or node is nothing as long as the server has not described it.
struct Graph {
    std::map<uint32_t, std::optional<Client>> clients;
    std::map<uint32_t, std::optional<Node>> nodes;
    std::map<uint32_t, Port> ports;
    std::map<uint32_t, PortPair> links;
    std::string defaultSink; ///< name of a node; empty when there is none
};

inline constexpr const char* playbackClass = "Stream/Output/Audio"; ///< of a node that a program plays through

/// Whose node it is; null for the server's own, and while it is not described.
const Client* clientOf(const Graph& graph, const Node& node);
/// The process behind a node; 0 when the server does not know. What the kernel says counts before what the program
/// says. The PulseAudio service speaks for others: it alone is believed, and tells what its own clients tell it.
qint64 ownerProcess(const Graph& graph, const Node& node);
/// Everything is known that ownerProcess() needs.
bool isOwnerKnown(const Graph& graph, const Node& node);

/// The name that the server's note about the default sink holds; empty when it holds none.
std::string sinkName(const char* json);

/// Keeps a Graph up to date. Made and used under the connection's lock, or after its thread has ended.
class GraphMirror {
public:
    /// changed is called on the connection's thread after every change.
    GraphMirror(pw_core* core, std::function<void()> changed);
    ~GraphMirror();
    GraphMirror(const GraphMirror&) = delete;
    GraphMirror& operator=(const GraphMirror&) = delete;

    const Graph& graph() const { return graph_; }
    /// False once something of the graph, or what followed from it, is lost for want of memory.
    bool isComplete() const { return complete_; }

private:
    template <typename Interface>
    struct Bound;
    struct BoundClient;
    struct BoundNode;
    struct BoundPort;
    struct BoundMetadata;

    static void onGlobal(void* data, uint32_t id, uint32_t permissions, const char* type, uint32_t version,
        const spa_dict* properties);
    static void onGlobalRemove(void* data, uint32_t id);
    static const pw_registry_events events;

    template <typename Change>
    void apply(const Change& change);
    void add(uint32_t id, const char* type, const spa_dict* properties);
    void addPort(uint32_t id, const spa_dict& properties);
    void addMetadata(uint32_t id);
    void remove(uint32_t id);

    Graph graph_;
    bool complete_ = true;
    std::function<void()> changed_;
    ProxyHandle<pw_registry> registry_;
    Hook registryHook_;
    std::map<uint32_t, std::unique_ptr<BoundClient>> clients_;
    std::map<uint32_t, std::unique_ptr<BoundNode>> nodes_;
    std::map<uint32_t, std::unique_ptr<BoundPort>> ports_; // only those with an input, for their latency
    std::unique_ptr<BoundMetadata> metadata_; // the server's notes about defaults; null until found
};

}
