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

// The place of an X11 window comes with its pixels, whether it is wanted or not.
WindowSample WindowSource::sample(bool)
{
    return impl_->images.sample();
}

}
