// ForeignClient: another program on the display that means ill.
#pragma once

#include "xcbhandles.h"

#include <QtGlobal>

#include <cstring>
#include <functional>
#include <vector>

/// A client of the default display (DISPLAY), in this process but with a connection of its own. Every call returns
/// when the server has carried it out.
class ForeignClient {
public:
    ForeignClient();

    bool isConnected() const;
    xcb_connection_t* xcb() const { return handle_.get(); }

    /// Sends an event to everybody who watches the window.
    template <typename Event>
    void send(quint32 window, const Event& event)
    {
        static_assert(sizeof(Event) <= 32);
        char bytes[32] = {};
        std::memcpy(bytes, &event, sizeof(Event));
        sendBytes(window, bytes);
    }

    /// Destroys the damage objects, shared segments or pixmaps of all other clients. Ids are easy to guess.
    void destroyDamage();
    void detachSegments();
    void freePixmaps();
    /// Ends the connections of all other clients but the window's.
    void endConnections(quint32 window);

private:
    void sendBytes(quint32 window, const char* bytes);
    std::vector<quint32> foreignBases();
    void forEachForeignId(const std::function<void(quint32)>& action);
    void synchronise();

    x11::DisplayHandle handle_;
};
