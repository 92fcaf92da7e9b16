// SharedSegment: memory that the X server writes into and this process reads.
#pragma once

#include "x11connection.h"

#include <cstddef>

#include <xcb/shm.h>

namespace x11 {

class SharedSegment {
public:
    /// How the memory gets to the server.
    enum class Kind {
        Descriptor, ///< anonymous memory, its descriptor sent along; works across containers
        SystemV, ///< an id of System V shared memory, for servers that take no descriptors
    };

    /// Null when there is no memory, or the server does not attach it. The id is free, and used again afterwards.
    /// The connection outlives the segment.
    static std::unique_ptr<SharedSegment> create(
        DisplayConnection& connection, xcb_shm_seg_t id, size_t size, Kind kind);
    ~SharedSegment();
    SharedSegment(const SharedSegment&) = delete;
    SharedSegment& operator=(const SharedSegment&) = delete;

    const uchar* data() const { return data_; }
    size_t size() const { return size_; }

private:
    SharedSegment(DisplayConnection& connection, xcb_shm_seg_t id, size_t size, Kind kind);

    bool attachByDescriptor();
    bool attachBySystemV();
    bool isAttached(xcb_void_cookie_t cookie);

    DisplayConnection& connection_;
    const xcb_shm_seg_t id_;
    const size_t size_;
    const Kind kind_;
    const uchar* data_ = nullptr; ///< null until mapped
    bool sentToServer_ = false; ///< the server may know the id
};

}
