// Handles of PipeWire's objects that release themselves, and what is called on these.
#pragma once

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <spa/param/latency-utils.h>

#include <memory>
#include <optional>

namespace pipewire {

struct LoopDeleter {
    void operator()(pw_thread_loop* loop) const { pw_thread_loop_destroy(loop); }
};
struct ContextDeleter {
    void operator()(pw_context* context) const { pw_context_destroy(context); }
};
struct CoreDeleter {
    void operator()(pw_core* core) const { pw_core_disconnect(core); }
};
struct ProxyDeleter {
    void operator()(void* proxy) const { pw_proxy_destroy(static_cast<pw_proxy*>(proxy)); }
};
struct StreamDeleter {
    void operator()(pw_stream* stream) const { pw_stream_destroy(stream); }
};
struct PropertiesDeleter {
    void operator()(pw_properties* properties) const { pw_properties_free(properties); }
};

using LoopHandle = std::unique_ptr<pw_thread_loop, LoopDeleter>;
using ContextHandle = std::unique_ptr<pw_context, ContextDeleter>;
using CoreHandle = std::unique_ptr<pw_core, CoreDeleter>;
using StreamHandle = std::unique_ptr<pw_stream, StreamDeleter>;
using PropertiesHandle = std::unique_ptr<pw_properties, PropertiesDeleter>;

/// An object of the server's, by its interface (pw_proxy for any). Must be released before the core.
template <typename Interface>
using ProxyHandle = std::unique_ptr<Interface, ProxyDeleter>;

/// A listener's place in the list of what it listens to. Must be released before that: declare it behind the handle.
class Hook {
public:
    Hook() = default;
    ~Hook() { spa_hook_remove(&hook_); }
    Hook(const Hook&) = delete;
    Hook& operator=(const Hook&) = delete;

    spa_hook* get() { return &hook_; }

private:
    spa_hook hook_{};
};

// The library's methods are macros that are full of casts and GNU's expressions.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic"
#pragma GCC diagnostic ignored "-Wold-style-cast"

inline void listen(pw_core* core, Hook& hook, const pw_core_events& events, void* data)
{
    pw_core_add_listener(core, hook.get(), &events, data);
}

inline void listen(pw_registry* registry, Hook& hook, const pw_registry_events& events, void* data)
{
    pw_registry_add_listener(registry, hook.get(), &events, data);
}

inline void listen(pw_client* client, Hook& hook, const pw_client_events& events, void* data)
{
    pw_client_add_listener(client, hook.get(), &events, data);
}

inline void listen(pw_node* node, Hook& hook, const pw_node_events& events, void* data)
{
    pw_node_add_listener(node, hook.get(), &events, data);
}

inline void listen(pw_port* port, Hook& hook, const pw_port_events& events, void* data)
{
    pw_port_add_listener(port, hook.get(), &events, data);
}

/// Asks to be told a parameter of the port, now and whenever it changes.
inline void subscribe(pw_port* port, uint32_t parameter)
{
    pw_port_subscribe_params(port, &parameter, 1);
}

inline void listen(pw_metadata* metadata, Hook& hook, const pw_metadata_events& events, void* data)
{
    pw_metadata_add_listener(metadata, hook.get(), &events, data);
}

/// The number of the question, or an error's number below 0.
inline int askForSync(pw_core* core)
{
    return pw_core_sync(core, PW_ID_CORE, 0);
}

/// As spa_latency_parse(), but for a direction that is neither of the two: there it is undefined, here there is none.
inline std::optional<spa_latency_info> parseLatency(const spa_pod* pod)
{
    spa_latency_info latency{};
    uint32_t direction = 0;
    const int result = spa_pod_parse_object(pod, SPA_TYPE_OBJECT_ParamLatency, nullptr, SPA_PARAM_LATENCY_direction,
        SPA_POD_Id(&direction), SPA_PARAM_LATENCY_minQuantum, SPA_POD_OPT_Float(&latency.min_quantum),
        SPA_PARAM_LATENCY_maxQuantum, SPA_POD_OPT_Float(&latency.max_quantum), SPA_PARAM_LATENCY_minRate,
        SPA_POD_OPT_Int(&latency.min_rate), SPA_PARAM_LATENCY_maxRate, SPA_POD_OPT_Int(&latency.max_rate),
        SPA_PARAM_LATENCY_minNs, SPA_POD_OPT_Long(&latency.min_ns), SPA_PARAM_LATENCY_maxNs,
        SPA_POD_OPT_Long(&latency.max_ns));
    if (result < 0 || direction > SPA_DIRECTION_OUTPUT)
        return std::nullopt;
    latency.direction = spa_direction(direction);
    return latency;
}

#pragma GCC diagnostic pop

/// Between PipeWire's thread and the others: holds its thread off while it lives.
class LoopLock {
public:
    explicit LoopLock(pw_thread_loop* loop) : loop_(loop) { pw_thread_loop_lock(loop_); }
    ~LoopLock() { pw_thread_loop_unlock(loop_); }
    LoopLock(const LoopLock&) = delete;
    LoopLock& operator=(const LoopLock&) = delete;

private:
    pw_thread_loop* loop_;
};

}
