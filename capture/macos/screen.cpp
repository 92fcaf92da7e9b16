// Windows on the Mac, in Qt's types.
#include "platform/screen.h"

#include "coregraphics.h"

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
    QImage last; // what image() returned last
    bool lastWasUnusable;
};

WindowSource::WindowSource(quint32 windowId) : impl_(std::make_unique<Impl>(Impl{windowId, QImage(), false})) { }

WindowSource::~WindowSource() = default;

namespace {

/// Drawn by the system straight into the image's memory. Null when there is nothing to draw, or no way to do it.
QImage draw(const macos::WindowImage& window)
{
    QImage image(window.width(), window.height(), QImage::Format_ARGB32_Premultiplied);
    if (image.isNull()) // a size below 1, or beyond the memory
        return QImage();
    image.fill(Qt::transparent);
    return window.drawInto(image.bits(), std::size_t(image.bytesPerLine())) ? image : QImage();
}

}

QImage WindowSource::image()
{
    const auto window = macos::WindowImage::capture(impl_->windowId);
    QImage image = window ? draw(*window) : QImage();
    impl_->lastWasUnusable = window && image.isNull();
    // The system does not say whether anything changed.
    if (image.isNull() || image != impl_->last)
        impl_->last = std::move(image);
    return impl_->last;
}

bool WindowSource::imageWasUnusable() const
{
    return impl_->lastWasUnusable;
}

std::optional<QRectF> WindowSource::bounds()
{
    const auto rect = macos::windowBounds(impl_->windowId);
    if (!rect)
        return std::nullopt;
    return QRectF(rect->x, rect->y, rect->width, rect->height);
}

std::optional<QPointF> WindowSource::pointerLocation()
{
    const auto point = macos::pointerLocation();
    if (!point)
        return std::nullopt;
    return QPointF(point->x, point->y);
}

}
