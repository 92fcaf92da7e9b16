// Windows and the pointer, as CoreGraphics tells of them. Plain C++: no Objective-C, no Qt. Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

namespace macos {

/// In global screen points: origin top left of the main display, y down.
struct Point {
    double x = 0;
    double y = 0;
};

struct Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
};

bool preflightScreenCaptureAccess();
bool requestScreenCaptureAccess();

/// What one window shows, without its shadow: an image of the system, which is released with this object.
class WindowImage {
public:
    /// Nothing when the system gives no image.
    static std::optional<WindowImage> capture(std::uint32_t windowId);

    /// In pixels. Below 1 for an image that cannot be drawn: it has none, or more than an int can count.
    int width() const { return width_; }
    int height() const { return height_; }

    /// Draws it over the pixels: height() lines of width() 32-bit values, premultiplied alpha in the top byte. False
    /// when the system cannot; nothing is drawn then.
    bool drawInto(void* pixels, std::size_t bytesPerLine) const;

private:
    struct Release {
        void operator()(void* image) const;
    };

    std::unique_ptr<void, Release> image_; ///< a CGImage
    int width_ = 0;
    int height_ = 0;
};

/// What the system's list of windows says of one that it names.
struct WindowEntry {
    std::optional<Rect> bounds; ///< nothing when they cannot be told
    bool isOnScreen = false; ///< neither minimised, hidden nor elsewhere
};

/// Nothing when the list does not name the window.
std::optional<WindowEntry> windowEntry(std::uint32_t windowId);

/// Nothing when it cannot be told.
std::optional<Point> pointerLocation();

}
