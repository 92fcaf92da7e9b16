// PixelReader: brings pixels of the X server into this process, by the fastest way that works.
#pragma once

#include "x11connection.h"
#include "x11pixels.h"
#include "x11sharedmemory.h"

#include <QRect>

namespace x11 {

class PixelReader {
public:
    /// The connection outlives the reader.
    explicit PixelReader(DisplayConnection& connection);

    /// The pixels of an area of a drawable, laid out as the layout says; they stay as they are until the next call.
    /// Null when the area is not all inside the drawable, when it would take most of the memory that is there (1 GiB
    /// at most in any case), or when the server does not answer.
    const uchar* read(xcb_drawable_t drawable, const QRect& area, const PixelLayout& layout);

private:
    /// In the order in which they are tried.
    enum class Way { SharedDescriptor, SharedSystemV, Plain };

    bool ensureSegment(size_t size);
    /// Without segment_ afterwards when the server does not know it any more: any client can detach it.
    const uchar* readShared(xcb_drawable_t drawable, const QRect& area);
    const uchar* readPlain(xcb_drawable_t drawable, const QRect& area, const PixelLayout& layout);
    bool readTile(
        xcb_drawable_t drawable, const QRect& tile, const PixelLayout& layout, uchar* target, qsizetype targetStride);

    DisplayConnection& connection_;
    Way way_;
    xcb_shm_seg_t segmentId_ = XCB_NONE;
    std::unique_ptr<SharedSegment> segment_; ///< null until the first use
    Allocated<uchar> buffer_; ///< for reading through the socket; null until the first use
    size_t bufferSize_ = 0;
};

}
