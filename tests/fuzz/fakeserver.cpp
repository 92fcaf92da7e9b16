// Objects with the tables of methods that the library's macros call.
#include "fakeserver.h"

#include <spa/utils/hook.h>

#include <algorithm>
#include <string_view>

/// What a pw_core, pw_registry, pw_node and so on are behind the pointer.
struct FakeServer::Object {
    spa_interface interface {
    }; // first: the library's macros expect it there
    FakeServer* server = nullptr;
    spa_hook_list listeners{};

    void listen(spa_hook* hook, const void* events, void* data)
    {
        spa_hook_list_append(&listeners, hook, events, data);
    }

    bool hasListener() const { return listeners.list.next != &listeners.list; }

    /// Calls the one listener there is. Call gets the table of its functions, and what belongs to it.
    template <typename Events, typename Call>
    void tell(const Call& call) const
    {
        if (!hasListener())
            return;
        const auto* hook = reinterpret_cast<const spa_hook*>(listeners.list.next); // its link comes first
        call(*static_cast<const Events*>(hook->cb.funcs), hook->cb.data);
    }
};

struct FakeServer::Methods {
    static Object& of(void* object) { return *static_cast<Object*>(object); }

    template <typename Events>
    static int addListener(void* object, spa_hook* hook, const Events* events, void* data)
    {
        of(object).listen(hook, events, data);
        return 0;
    }

    template <typename Table, typename Events>
    static const Table& onlyListening()
    {
        static const Table table = [] {
            Table made{};
            made.add_listener = &addListener<Events>;
            return made;
        }();
        return table;
    }

    static const pw_core_methods& core()
    {
        static const pw_core_methods table = [] {
            pw_core_methods made{};
            made.get_registry = [](void* object, uint32_t, size_t) {
                FakeServer& server = *of(object).server;
                server.registry_ = server.make(&registry());
                return reinterpret_cast<pw_registry*>(server.registry_);
            };
            made.create_object
                = [](void* object, const char*, const char*, uint32_t, const spa_dict*, size_t) -> void* {
                FakeServer& server = *of(object).server;
                return server.links_.emplace_back(server.make(nullptr));
            };
            return made;
        }();
        return table;
    }

    static const pw_registry_methods& registry()
    {
        static const pw_registry_methods table = [] {
            pw_registry_methods made{};
            made.add_listener = &addListener<pw_registry_events>;
            made.bind = [](void* object, uint32_t id, const char* type, uint32_t, size_t) -> void* {
                return of(object).server->bind(id, type);
            };
            return made;
        }();
        return table;
    }

    static const pw_port_methods& port()
    {
        static const pw_port_methods table = [] {
            pw_port_methods made{};
            made.add_listener = &addListener<pw_port_events>;
            made.subscribe_params = [](void*, uint32_t*, uint32_t) { return 0; };
            return made;
        }();
        return table;
    }
};

FakeServer::FakeServer() : core_(std::make_unique<Object>())
{
    core_->interface.cb = {&Methods::core(), core_.get()};
    core_->server = this;
}

FakeServer::~FakeServer()
{
    for (Object* object : objects_)
        delete object;
}

pw_core* FakeServer::core()
{
    return reinterpret_cast<pw_core*>(core_.get());
}

bool FakeServer::hasListener() const
{
    return registry_ && registry_->hasListener();
}

FakeServer::Object* FakeServer::make(const void* methods)
{
    auto* object = new Object;
    object->interface.cb = {methods, object};
    object->server = this;
    spa_hook_list_init(&object->listeners);
    objects_.insert(object);
    return object;
}

FakeServer::Object* FakeServer::bind(uint32_t id, const char* type)
{
    const std::string_view kind(type);
    if (kind == PW_TYPE_INTERFACE_Client)
        return clients_[id] = make(&Methods::onlyListening<pw_client_methods, pw_client_events>());
    if (kind == PW_TYPE_INTERFACE_Node)
        return nodes_[id] = make(&Methods::onlyListening<pw_node_methods, pw_node_events>());
    if (kind == PW_TYPE_INTERFACE_Port)
        return ports_[id] = make(&Methods::port());
    return metadata_ = make(&Methods::onlyListening<pw_metadata_methods, pw_metadata_events>());
}

void FakeServer::addGlobal(uint32_t id, const char* type, const spa_dict* properties)
{
    registry_->tell<pw_registry_events>([&](const pw_registry_events& events, void* data) {
        events.global(data, id, PW_PERM_ALL, type, 3, properties);
    });
}

void FakeServer::removeGlobal(uint32_t id)
{
    registry_->tell<pw_registry_events>(
        [&](const pw_registry_events& events, void* data) { events.global_remove(data, id); });
}

void FakeServer::describe(uint32_t id, bool withProperties, const spa_dict* properties)
{
    auto* const dict = const_cast<spa_dict*>(properties);
    if (const auto client = clients_.find(id); client != clients_.end()) {
        pw_client_info info{};
        info.id = id;
        info.change_mask = withProperties ? uint64_t(PW_CLIENT_CHANGE_MASK_PROPS) : 0;
        info.props = dict;
        client->second->tell<pw_client_events>(
            [&](const pw_client_events& events, void* data) { events.info(data, &info); });
    }
    if (const auto node = nodes_.find(id); node != nodes_.end()) {
        pw_node_info info{};
        info.id = id;
        info.change_mask = withProperties ? uint64_t(PW_NODE_CHANGE_MASK_PROPS) : 0;
        info.props = dict;
        node->second->tell<pw_node_events>(
            [&](const pw_node_events& events, void* data) { events.info(data, &info); });
    }
}

void FakeServer::tellParameter(uint32_t id, uint32_t parameter, const spa_pod* value)
{
    const auto port = ports_.find(id);
    if (port == ports_.end())
        return;
    port->second->tell<pw_port_events>(
        [&](const pw_port_events& events, void* data) { events.param(data, 0, parameter, 0, 1, value); });
}

void FakeServer::tellProperty(uint32_t subject, const char* key, const char* value)
{
    if (!metadata_)
        return;
    metadata_->tell<pw_metadata_events>([&](const pw_metadata_events& events, void* data) {
        events.property(data, subject, key, "Spa:String:JSON", value);
    });
}

FakeServer::Object* FakeServer::link(std::size_t number) const
{
    return links_.empty() ? nullptr : links_[number % links_.size()];
}

void FakeServer::removeLink(std::size_t number)
{
    if (const Object* const one = link(number))
        one->tell<pw_proxy_events>([](const pw_proxy_events& events, void* data) { events.removed(data); });
}

void FakeServer::refuseLink(std::size_t number)
{
    if (const Object* const one = link(number))
        one->tell<pw_proxy_events>(
            [](const pw_proxy_events& events, void* data) { events.error(data, 0, -1, "refused"); });
}

void FakeServer::destroy(pw_proxy* proxy)
{
    auto* const object = reinterpret_cast<Object*>(proxy);
    FakeServer& server = *object->server;
    const auto isThis = [object](const auto& entry) { return entry.second == object; };
    std::erase_if(server.clients_, isThis);
    std::erase_if(server.nodes_, isThis);
    std::erase_if(server.ports_, isThis);
    std::erase(server.links_, object);
    for (Object** known : {&server.registry_, &server.metadata_})
        *known = *known == object ? nullptr : *known;
    server.objects_.erase(object);
    delete object;
}

void FakeServer::listen(pw_proxy* proxy, spa_hook* hook, const pw_proxy_events* events, void* data)
{
    reinterpret_cast<Object*>(proxy)->listen(hook, events, data);
}

extern "C" {

void __wrap_pw_proxy_destroy(pw_proxy* proxy)
{
    FakeServer::destroy(proxy);
}

void __wrap_pw_proxy_add_listener(pw_proxy* proxy, spa_hook* hook, const pw_proxy_events* events, void* data)
{
    FakeServer::listen(proxy, hook, events, data);
}
}
