// Windows on the Mac, in Qt's types.
#include "platform/screen.h"

#include "coregraphics.h"
#include "sharedimages.h"

#include <utility>

namespace platform {

bool preflightScreenCaptureAccess()
{
    return macos::preflightScreenCaptureAccess();
}

bool requestScreenCaptureAccess()
{
    return macos::requestScreenCaptureAccess();
}

struct WindowSource::Impl {
    quint32 windowId;
    QImage drawn; // memory that the system draws into, used again for every image of the same size
    SharedImages images;
};

WindowSource::WindowSource(quint32 windowId) : impl_(new Impl{windowId, {}, {}}) { }

WindowSource::~WindowSource() = default;

namespace {

/// Drawn by the system straight into the image's memory. False when there is nothing to draw, or no way to do it.
bool draw(const macos::WindowImage& window, QImage& image)
{
    const QSize size(window.width(), window.height());
    if (image.size() != size)
        image = QImage(size, QImage::Format_ARGB32_Premultiplied);
    if (image.isNull()) // a size below 1, or beyond the memory
        return false;
    image.fill(Qt::transparent);
    return window.drawInto(image.bits(), std::size_t(image.bytesPerLine()));
}

}

// The system does not say whether anything changed, so every image is compared with the one before.
WindowSample WindowSource::sample(bool withBounds)
{
    WindowSample sample;
    const auto window = macos::WindowImage::capture(impl_->windowId);
    if (window && draw(*window, impl_->drawn)) {
        const QImage& drawn = impl_->drawn;
        impl_->images.update(drawn.size(), drawn.format());
        impl_->images.put(0, drawn.height(), reinterpret_cast<const quint32*>(drawn.constBits()));
        SharedImages::Image taken = impl_->images.finish();
        sample.image = std::move(taken.image);
        sample.changedRows = taken.changedRows;
        sample.ownBytes = taken.ownBytes;
    }
    sample.unusable = window && sample.image.isNull();
    if (sample.image.isNull())
        return sample;
    if (withBounds) {
        if (const auto rect = macos::windowBounds(impl_->windowId))
            sample.bounds = QRectF(rect->x, rect->y, rect->width, rect->height);
    }
    if (const auto point = macos::pointerLocation())
        sample.pointer = QPointF(point->x, point->y);
    return sample;
}

}
