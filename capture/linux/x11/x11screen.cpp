// The seam of the window capture on X11.
#include "platform/screen.h"

#include "popups.h"
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
    std::unique_ptr<x11::PopupPainter> popups; ///< null when they are not wanted
};

WindowSource::WindowSource(quint32 windowId) : impl_(new Impl{x11::WindowImages(windowId), nullptr})
{
    if (qgetenv("ORVANTIS_POPUPS") == "1")
        impl_->popups = std::make_unique<x11::PopupPainter>(windowId);
}

WindowSource::~WindowSource() = default;

// The place of an X11 window comes with its pixels, whether it is wanted or not.
WindowSample WindowSource::sample(bool)
{
    WindowSample sample = impl_->images.sample();
    if (impl_->popups)
        impl_->popups->paint(sample, impl_->images.blank());
    return sample;
}

}
