// The seam of the window capture on X11.
#include "platform/screen.h"

#include "x11connection.h"
#include "x11windowimages.h"

namespace platform {

bool preflightScreenCaptureAccess()
{
    const auto connection = x11::DisplayConnection::open();
    return connection && connection->extensions().composite;
}

// An X server knows no such permission.
bool requestScreenCaptureAccess()
{
    return preflightScreenCaptureAccess();
}

struct WindowSource::Impl {
    x11::WindowImages images;
};

WindowSource::WindowSource(quint32 windowId) : impl_(new Impl{x11::WindowImages(windowId)}) { }

WindowSource::~WindowSource() = default;

QImage WindowSource::image()
{
    return impl_->images.image();
}

// Every window of an X server has pixels, and they are read, not drawn.
bool WindowSource::imageWasUnusable() const
{
    return false;
}

std::optional<QRectF> WindowSource::bounds()
{
    return impl_->images.bounds();
}

std::optional<QPointF> WindowSource::pointerLocation()
{
    return impl_->images.pointerLocation();
}

}
