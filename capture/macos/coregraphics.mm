// Every function has its own pool: the threads that capture have none, and the system's calls may leave objects
// to it.
#include "coregraphics.h"

#include "handles.h"

#import <CoreGraphics/CoreGraphics.h>

#include <dlfcn.h>

namespace macos {

namespace {

// Headers for programs that need macOS 15 or later mark the function as obsolete, and using it as an error. It is
// still there, so it is looked up.
using CreateImage = CGImageRef (*)(CGRect bounds, std::uint32_t listOption, CGWindowID window, std::uint32_t option);
constexpr auto createImageName = "CGWindowListCreateImage";
constexpr std::uint32_t boundsIgnoreFraming = 1;

static_assert(kCGWindowListOptionIncludingWindow == 8);

/// Premultiplied ARGB in 32 bits of little-endian order.
constexpr std::uint32_t bitmapInfo
    = std::uint32_t(kCGImageAlphaPremultipliedFirst) | std::uint32_t(kCGBitmapByteOrder32Little);
static_assert(bitmapInfo == 8194);

constexpr std::size_t bitsPerComponent = 8;

CGImageRef nativeImage(void* image)
{
    return static_cast<CGImageRef>(image);
}

}

bool preflightScreenCaptureAccess()
{
    @autoreleasepool {
        return CGPreflightScreenCaptureAccess();
    }
}

bool requestScreenCaptureAccess()
{
    @autoreleasepool {
        return CGRequestScreenCaptureAccess();
    }
}

void WindowImage::Release::operator()(void* image) const
{
    CGImageRelease(nativeImage(image));
}

std::optional<WindowImage> WindowImage::capture(std::uint32_t windowId)
{
    @autoreleasepool {
        const auto create = reinterpret_cast<CreateImage>(dlsym(RTLD_DEFAULT, createImageName));
        if (!create)
            return std::nullopt;
        WindowImage image;
        image.image_.reset(create(CGRectNull, kCGWindowListOptionIncludingWindow, windowId, boundsIgnoreFraming));
        if (!image.image_)
            return std::nullopt;
        image.width_ = int(CGImageGetWidth(nativeImage(image.image_.get())));
        image.height_ = int(CGImageGetHeight(nativeImage(image.image_.get())));
        return image;
    }
}

bool WindowImage::drawInto(void* pixels, std::size_t bytesPerLine) const
{
    @autoreleasepool {
        const ColorSpaceHandle space(CGColorSpaceCreateDeviceRGB());
        if (!space)
            return false;
        const ContextHandle context(CGBitmapContextCreate(pixels, std::size_t(width_), std::size_t(height_),
            bitsPerComponent, bytesPerLine, space.get(), bitmapInfo));
        if (!context)
            return false;
        const CGRect whole{{0, 0}, {CGFloat(width_), CGFloat(height_)}};
        CGContextDrawImage(context.get(), whole, nativeImage(image_.get()));
        return true;
    }
}

namespace {

std::optional<Rect> boundsOf(CFDictionaryRef window)
{
    const auto bounds = static_cast<CFDictionaryRef>(CFDictionaryGetValue(window, kCGWindowBounds));
    CGRect rect = CGRectNull;
    if (!bounds || !CGRectMakeWithDictionaryRepresentation(bounds, &rect))
        return std::nullopt;
    return Rect{rect.origin.x, rect.origin.y, rect.size.width, rect.size.height};
}

/// The key may be missing for a window that is not.
bool isOnScreen(CFDictionaryRef window)
{
    const auto onScreen = static_cast<CFBooleanRef>(CFDictionaryGetValue(window, kCGWindowIsOnscreen));
    return onScreen && CFBooleanGetValue(onScreen);
}

}

std::optional<WindowEntry> windowEntry(std::uint32_t windowId)
{
    @autoreleasepool {
        const CfHandle<CFArrayRef> windows(CGWindowListCopyWindowInfo(kCGWindowListOptionIncludingWindow, windowId));
        if (!windows || CFArrayGetCount(windows.get()) < 1)
            return std::nullopt;
        // The array owns its elements.
        const auto window = static_cast<CFDictionaryRef>(CFArrayGetValueAtIndex(windows.get(), 0));
        if (!window)
            return std::nullopt;
        return WindowEntry{boundsOf(window), isOnScreen(window)};
    }
}

std::optional<Point> pointerLocation()
{
    @autoreleasepool {
        const CfHandle<CGEventRef> event(CGEventCreate(nullptr));
        if (!event)
            return std::nullopt;
        const CGPoint location = CGEventGetLocation(event.get());
        return Point{location.x, location.y};
    }
}

}
