// The seam of the window capture: X11, or PipeWire where the environment says so (windowsourcechoice.h).
#include "platform/screen.h"

#include "nodeconnection.h"
#include "nodeimages.h"
#include "popups.h"
#include "windowsourcechoice.h"
#include "x11connection.h"
#include "x11windowimages.h"

#include <QDebug>

#include <memory>
#include <variant>

namespace platform {

bool preflightScreenCaptureAccess()
{
    switch (wayland::chosenSource()) {
    case wayland::SourceKind::PipeWire:
        return wayland::serverAnswers();
    case wayland::SourceKind::Unknown:
        qWarning() << "ORVANTIS_WINDOW_SOURCE has a value that this recorder does not know:"
                   << qgetenv("ORVANTIS_WINDOW_SOURCE");
        return false;
    case wayland::SourceKind::X11:
        break;
    }
    const auto connection = x11::DisplayConnection::open();
    return connection && connection->extensions().composite;
}

// An X server knows no such permission; on a node of PipeWire it was asked for before there was one.
bool requestScreenCaptureAccess()
{
    return preflightScreenCaptureAccess();
}

// There is no such place.
void enrolForScreenCapture() { }

namespace {

/// A window of an X server, with what pops out of it when that is wanted.
class X11Window {
public:
    explicit X11Window(quint32 windowId) : images_(windowId)
    {
        if (qgetenv("ORVANTIS_POPUPS") == "1")
            popups_ = std::make_unique<x11::PopupPainter>(windowId);
    }

    WindowSample sample()
    {
        WindowSample sample = images_.sample();
        if (popups_)
            popups_->paint(sample, images_.blank());
        return sample;
    }

private:
    x11::WindowImages images_;
    std::unique_ptr<x11::PopupPainter> popups_; ///< null when they are not wanted
};

}

struct WindowSource::Impl {
    explicit Impl(quint32 windowId)
    {
        if (wayland::chosenSource() == wayland::SourceKind::PipeWire)
            images.emplace<wayland::NodeImages>(windowId);
        else
            images.emplace<X11Window>(windowId);
    }

    std::variant<std::monostate, X11Window, wayland::NodeImages> images;
};

WindowSource::WindowSource(quint32 windowId) : impl_(new Impl(windowId)) { }

WindowSource::~WindowSource() = default;

// The place of a window comes with its pixels, whether it is wanted or not.
WindowSample WindowSource::sample(bool)
{
    if (auto* window = std::get_if<X11Window>(&impl_->images))
        return window->sample();
    return std::get<wayland::NodeImages>(impl_->images).sample();
}

}
