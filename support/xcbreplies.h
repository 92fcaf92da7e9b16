// What the answers of an X server hold. For the files that speak X11; a header without a library.
#pragma once

#include <QByteArrayView>
#include <QtGlobal>

#include <xcb/res.h>
#include <xcb/xcb.h>

#include <cstddef>
#include <span>

namespace x11 {

/// The items that lie behind the fixed 32 bytes of an answer. None when it tells of more than it holds: libxcb reads
/// as much as its length says, and does not look at what else it says.
template <typename Item, typename Reply>
std::span<const Item> itemsOf(const Reply& reply, std::size_t count)
{
    static_assert(sizeof(Reply) == 32);
    constexpr std::size_t wordBytes = 4; // of its length
    if (count > reply.length * wordBytes / sizeof(Item))
        return {};
    return {reinterpret_cast<const Item*>(&reply + 1), count};
}

/// The 32-bit values of a property; none when it is not of that kind, and without an answer.
inline std::span<const quint32> propertyValues(const xcb_get_property_reply_t* reply)
{
    return reply && reply->format == 32 ? itemsOf<quint32>(*reply, reply->value_len) : std::span<const quint32>();
}

/// The bytes of a property of text; none when it is not of that kind, and without an answer.
inline QByteArrayView propertyText(const xcb_get_property_reply_t* reply)
{
    if (!reply || reply->format != 8)
        return {};
    const auto bytes = itemsOf<char>(*reply, reply->value_len);
    return {bytes.data(), qsizetype(bytes.size())};
}

/// From the lowest to the topmost.
inline std::span<const xcb_window_t> childrenIn(const xcb_query_tree_reply_t* tree)
{
    return tree ? itemsOf<xcb_window_t>(*tree, tree->children_len) : std::span<const xcb_window_t>();
}

/// The first process that the Resource extension names; 0 when it names none, and without an answer.
inline qint64 clientProcess(const xcb_res_query_client_ids_reply_t* reply)
{
    constexpr std::size_t headWords = 3; // client, mask, and the size of what follows in bytes
    if (!reply)
        return 0;
    auto words = itemsOf<quint32>(*reply, reply->length);
    for (quint32 left = reply->num_ids; left > 0 && words.size() >= headWords; --left) {
        const std::size_t valueWords = words[2] / 4;
        if (valueWords > words.size() - headWords)
            return 0;
        if ((words[1] & XCB_RES_CLIENT_ID_MASK_LOCAL_CLIENT_PID) && valueWords > 0)
            return words[headWords];
        words = words.subspan(headWords + valueWords);
    }
    return 0;
}

}
