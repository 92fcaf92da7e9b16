// What any client of an X server may do to the others.
#include "foreignclient.h"

#include <xcb/damage.h>
#include <xcb/res.h>
#include <xcb/shm.h>

ForeignClient::ForeignClient() : handle_(xcb_connect(nullptr, nullptr)) { }

bool ForeignClient::isConnected() const
{
    return !xcb_connection_has_error(handle_.get());
}

void ForeignClient::sendBytes(quint32 window, const char* bytes)
{
    xcb_send_event(xcb(), 0, window, XCB_EVENT_MASK_STRUCTURE_NOTIFY, bytes);
    synchronise();
}

std::vector<quint32> ForeignClient::foreignBases()
{
    const x11::Allocated<xcb_res_query_clients_reply_t> clients(
        xcb_res_query_clients_reply(xcb(), xcb_res_query_clients(xcb()), nullptr));
    const quint32 own = xcb_get_setup(xcb())->resource_id_base;
    std::vector<quint32> bases;
    for (auto client = xcb_res_query_clients_clients_iterator(clients.get()); client.rem;
         xcb_res_client_next(&client)) {
        if (client.data->resource_base != own)
            bases.push_back(client.data->resource_base);
    }
    return bases;
}

void ForeignClient::forEachForeignId(const std::function<void(quint32)>& action)
{
    static constexpr quint32 idsTried = 256;
    for (const quint32 base : foreignBases()) {
        for (quint32 i = 0; i < idsTried; ++i)
            action(base + i);
    }
    synchronise();
}

void ForeignClient::endConnections(quint32 window)
{
    const quint32 mask = xcb_get_setup(xcb())->resource_id_mask;
    for (const quint32 base : foreignBases()) {
        if (base != (window & ~mask))
            xcb_kill_client(xcb(), base);
    }
    synchronise();
}

void ForeignClient::destroyDamage()
{
    const x11::Allocated<xcb_damage_query_version_reply_t> version(
        xcb_damage_query_version_reply(xcb(), xcb_damage_query_version(xcb(), 1, 1), nullptr));
    forEachForeignId([this](quint32 id) { xcb_damage_destroy(xcb(), id); });
}

void ForeignClient::detachSegments()
{
    forEachForeignId([this](quint32 id) { xcb_shm_detach(xcb(), id); });
}

void ForeignClient::freePixmaps()
{
    forEachForeignId([this](quint32 id) { xcb_free_pixmap(xcb(), id); });
}

void ForeignClient::synchronise()
{
    const x11::Allocated<xcb_get_input_focus_reply_t> reply(
        xcb_get_input_focus_reply(xcb(), xcb_get_input_focus(xcb()), nullptr));
    while (const x11::Allocated<xcb_generic_event_t> error{xcb_poll_for_event(xcb())}) { }
}
