// FakeServer: PipeWire's server, as far as the library's interfaces show it. It tells what a test says, at once.
#pragma once

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

/**
 * For programs in which pw_proxy_destroy() and pw_proxy_add_listener() are replaced at link time; objects that are
 * made with core() go before it. One thread.
 */
class FakeServer {
public:
    struct Object;

    FakeServer();
    ~FakeServer();
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;

    pw_core* core();
    bool hasListener() const; ///< to the registry

    // ---- what the server tells; nothing where nobody listens to that object ----

    void addGlobal(uint32_t id, const char* type, const spa_dict* properties);
    void removeGlobal(uint32_t id);
    /// The description of a client or node. withProperties: these are told; they may be null.
    void describe(uint32_t id, bool withProperties, const spa_dict* properties);
    void tellParameter(uint32_t id, uint32_t parameter, const spa_pod* value);
    void tellProperty(uint32_t subject, const char* key, const char* value);

    // ---- links that were asked for, by their number of those that are there ----

    std::size_t linkCount() const { return links_.size(); }
    void removeLink(std::size_t number);
    void refuseLink(std::size_t number);

    /// The library's functions: what they do to an object of this server.
    static void destroy(pw_proxy* proxy);
    static void listen(pw_proxy* proxy, spa_hook* hook, const pw_proxy_events* events, void* data);

private:
    struct Methods;
    friend struct Methods;

    Object* make(const void* methods);
    Object* bind(uint32_t id, const char* type);
    Object* link(std::size_t number) const;

    std::set<Object*> objects_; // owned by who has them, until destroy()
    std::unique_ptr<Object> core_;
    Object* registry_ = nullptr;
    Object* metadata_ = nullptr;
    std::map<uint32_t, Object*> clients_;
    std::map<uint32_t, Object*> nodes_;
    std::map<uint32_t, Object*> ports_;
    std::vector<Object*> links_;
};
