// Reading through shared memory, or through the socket where there is none.
#include "x11pixelreader.h"

#include "platform/application.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace x11 {

namespace {

/// No larger area is read: 16384 x 16384 pixels. A window can be 65535 pixels wide and high.
constexpr qsizetype largestByteCount = qsizetype(1) << 30;

/// Windows below this size, in bytes, are not worth the question for the memory that is there.
constexpr size_t smallByteCount = size_t(32) << 20;

/// Whether as much memory can be taken four times: for the reader, for the image, for the one that is recorded
/// meanwhile, and for all others.
bool fitsIntoMemory(size_t size)
{
    if (size <= smallByteCount)
        return true;
    const std::optional<qint64> available = platform::availableMemory();
    return !available || qint64(size) <= *available / 4;
}

/// Pixels per answer when reading through the socket; an answer has to fit into the socket whole (see Transport).
constexpr qsizetype tileByteCount = qsizetype(64) * 1024;

/// Segments grow in steps, so that dragging a window larger does not make a new one for every pixel.
constexpr size_t segmentStep = size_t(1) << 20;

}

PixelReader::PixelReader(DisplayConnection& connection) : connection_(connection), way_(Way::Plain)
{
    if (!connection.extensions().sharedMemory || !connection.isLocal())
        return;
    segmentId_ = xcb_generate_id(connection.xcb());
    way_ = connection.extensions().sharedMemoryByDescriptor ? Way::SharedDescriptor : Way::SharedSystemV;
}

const uchar* PixelReader::read(xcb_drawable_t drawable, const QRect& area, const PixelLayout& layout)
{
    if (area.isEmpty() || layout.bytesPerLine(area.width()) > largestByteCount / area.height())
        return nullptr;
    const size_t size = size_t(layout.byteCount(area.size()));
    if (size > std::max(bufferSize_, segment_ ? segment_->size() : 0) && !fitsIntoMemory(size))
        return nullptr;
    while (way_ != Way::Plain) {
        if (ensureSegment(size)) {
            const uchar* pixels = readShared(drawable, area);
            if (pixels || segment_)
                return pixels;
            break; // somebody else has taken it away: this once without, and anew the next time
        }
        if (!connection_.isResponsive())
            return nullptr;
        way_ = way_ == Way::SharedDescriptor ? Way::SharedSystemV : Way::Plain;
    }
    return readPlain(drawable, area, layout);
}

bool PixelReader::ensureSegment(size_t size)
{
    if (segment_ && segment_->size() >= size)
        return true;
    const auto kind = way_ == Way::SharedDescriptor ? SharedSegment::Kind::Descriptor : SharedSegment::Kind::SystemV;
    segment_.reset(); // before the next one, which uses the same id
    const size_t rounded = (size + segmentStep - 1) / segmentStep * segmentStep;
    segment_ = SharedSegment::create(connection_, segmentId_, rounded, kind);
    return segment_ != nullptr;
}

const uchar* PixelReader::readShared(xcb_drawable_t drawable, const QRect& area)
{
    Request<xcb_shm_get_image_reply_t> request(connection_,
        xcb_shm_get_image(connection_.xcb(), drawable, int16_t(area.x()), int16_t(area.y()), uint16_t(area.width()),
            uint16_t(area.height()), ~0u, XCB_IMAGE_FORMAT_Z_PIXMAP, segmentId_, 0));
    if (request.reply())
        return segment_->data();
    if (request.errorCode() != 0 && request.errorCode() == connection_.extensions().badSegment)
        segment_.reset();
    return nullptr;
}

const uchar* PixelReader::readPlain(xcb_drawable_t drawable, const QRect& area, const PixelLayout& layout)
{
    const size_t size = size_t(layout.byteCount(area.size()));
    if (bufferSize_ < size) {
        buffer_.reset(static_cast<uchar*>(std::malloc(size)));
        bufferSize_ = buffer_ ? size : 0;
        if (!buffer_)
            return nullptr;
    }

    const qsizetype stride = layout.bytesPerLine(area.width());
    const int tileWidth = int(std::min<qsizetype>(area.width(), tileByteCount / 4));
    const int tileHeight = int(std::max<qsizetype>(1, tileByteCount / layout.bytesPerLine(tileWidth)));
    for (int y = 0; y < area.height(); y += tileHeight) {
        for (int x = 0; x < area.width(); x += tileWidth) {
            const QRect tile = QRect(x, y, tileWidth, tileHeight) & QRect(QPoint(0, 0), area.size());
            uchar* target = buffer_.get() + y * stride + qsizetype(x) * layout.bytesPerPixel;
            if (!readTile(drawable, tile.translated(area.topLeft()), layout, target, stride))
                return nullptr;
        }
    }
    return buffer_.get();
}

bool PixelReader::readTile(
    xcb_drawable_t drawable, const QRect& tile, const PixelLayout& layout, uchar* target, qsizetype targetStride)
{
    Request<xcb_get_image_reply_t> request(connection_,
        xcb_get_image(connection_.xcb(), XCB_IMAGE_FORMAT_Z_PIXMAP, drawable, int16_t(tile.x()), int16_t(tile.y()),
            uint16_t(tile.width()), uint16_t(tile.height()), ~0u));
    const auto reply = request.reply();
    if (!reply || xcb_get_image_data_length(reply.get()) < layout.byteCount(tile.size()))
        return false;
    const uchar* source = xcb_get_image_data(reply.get());
    const qsizetype sourceStride = layout.bytesPerLine(tile.width());
    const size_t used = size_t(tile.width()) * size_t(layout.bytesPerPixel);
    for (int row = 0; row < tile.height(); ++row)
        std::memcpy(target + row * targetStride, source + row * sourceStride, used);
    return true;
}

}
