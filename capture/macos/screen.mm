// Windows and the pointer on the Mac, from CoreGraphics. Every function that asks the system has its own pool: the
// threads that capture have none, and the system's calls may leave objects to it.
#include "platform/screen.h"
#include "platform/audio.h"
#include "platform/waiting.h"

#include "handles.h"
#include "sharedimages.h"
#include "visiblepixels.h"

#import <CoreGraphics/CoreGraphics.h>

#include <dlfcn.h>

#include <chrono>
#include <utility>

namespace platform {

using macos::CfHandle;
using macos::ColorSpaceHandle;
using macos::ContextHandle;
using macos::ImageHandle;

// ---- the permission ----------------------------------------------------------------------------------------------

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

// The system lists a program that asks what can be captured, which an answer that comes too late, or is an error,
// does not change.
void enrolForScreenCapture()
{
    constexpr std::chrono::nanoseconds longest = std::chrono::seconds(5);
    const auto answered = std::make_shared<Semaphore>();
    requestAudioContent(true, true, [answered](const auto&, const auto&) { answered->signal(); });
    answered->wait(longest.count());
}

// ---- what the system tells ---------------------------------------------------------------------------------------

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

/// What the window shows, without its shadow; null when the system gives no image.
ImageHandle imageOf(quint32 windowId)
{
    @autoreleasepool {
        const auto create = reinterpret_cast<CreateImage>(dlsym(RTLD_DEFAULT, createImageName));
        if (!create)
            return nullptr;
        return ImageHandle(create(CGRectNull, kCGWindowListOptionIncludingWindow, windowId, boundsIgnoreFraming));
    }
}

/// Drawn by the system straight into the image's memory. False when there is nothing to draw, or no way to do it.
bool draw(CGImageRef window, QImage& image)
{
    @autoreleasepool {
        const QSize size(int(CGImageGetWidth(window)), int(CGImageGetHeight(window)));
        if (image.size() != size)
            image = QImage(size, QImage::Format_ARGB32_Premultiplied);
        if (image.isNull()) // a size below 1 or beyond an int, or beyond the memory
            return false;
        image.fill(Qt::transparent);
        const ColorSpaceHandle space(CGColorSpaceCreateDeviceRGB());
        if (!space)
            return false;
        const ContextHandle context(
            CGBitmapContextCreate(image.bits(), std::size_t(size.width()), std::size_t(size.height()),
                bitsPerComponent, std::size_t(image.bytesPerLine()), space.get(), bitmapInfo));
        if (!context)
            return false;
        const CGRect whole{{0, 0}, {CGFloat(size.width()), CGFloat(size.height())}};
        CGContextDrawImage(context.get(), whole, window);
        return true;
    }
}

/// What the system's list of windows says of one that it names.
struct WindowEntry {
    std::optional<QRectF> bounds; ///< nothing when they cannot be told
    bool isOnScreen = false; ///< neither minimised, hidden nor elsewhere
};

std::optional<QRectF> boundsOf(CFDictionaryRef window)
{
    const auto bounds = static_cast<CFDictionaryRef>(CFDictionaryGetValue(window, kCGWindowBounds));
    CGRect rect = CGRectNull;
    if (!bounds || !CGRectMakeWithDictionaryRepresentation(bounds, &rect))
        return std::nullopt;
    return QRectF(rect.origin.x, rect.origin.y, rect.size.width, rect.size.height);
}

/// The key may be missing for a window that is not.
bool isOnScreen(CFDictionaryRef window)
{
    const auto onScreen = static_cast<CFBooleanRef>(CFDictionaryGetValue(window, kCGWindowIsOnscreen));
    return onScreen && CFBooleanGetValue(onScreen);
}

/// Nothing when the list does not name the window.
std::optional<WindowEntry> windowEntry(quint32 windowId)
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

std::optional<QPointF> pointerLocation()
{
    @autoreleasepool {
        const CfHandle<CGEventRef> event(CGEventCreate(nullptr));
        if (!event)
            return std::nullopt;
        const CGPoint location = CGEventGetLocation(event.get());
        return QPointF(location.x, location.y);
    }
}

// ---- samples -----------------------------------------------------------------------------------------------------

bool isOnePixel(const QImage& image)
{
    return image.size() == QSize(1, 1);
}

/// For a window that is closed, minimised, hidden or elsewhere the system may give an image all the same: an empty
/// one, or one of a single pixel. What a window on the screen shows is its image, whatever it is.
bool isPlaceholder(const QImage& image, bool visible, const std::optional<WindowEntry>& entry)
{
    const bool isLarger = entry && entry->bounds && (entry->bounds->width() > 1 || entry->bounds->height() > 1);
    if (isOnePixel(image) && isLarger)
        return true;
    return !visible && !(entry && entry->isOnScreen);
}

}

struct WindowSource::Impl {
    quint32 windowId;
    QImage drawn; // memory that the system draws into, used again for every image of the same size
    SharedImages images;
};

WindowSource::WindowSource(quint32 windowId) : impl_(new Impl{windowId, {}, {}}) { }

WindowSource::~WindowSource() = default;

// The system does not say whether anything changed, so every image is compared with the one before.
WindowSample WindowSource::sample(bool withBounds)
{
    WindowSample sample;
    const ImageHandle window = imageOf(impl_->windowId);
    if (!window)
        return sample;
    const QImage& drawn = impl_->drawn;
    sample.unusable = !draw(window.get(), impl_->drawn);
    if (sample.unusable)
        return sample;
    const bool visible = visiblepixels::hasAny(drawn);
    const bool isDoubtful = !visible || isOnePixel(drawn);
    std::optional<WindowEntry> entry;
    if (withBounds || isDoubtful)
        entry = windowEntry(impl_->windowId);
    if (isDoubtful && isPlaceholder(drawn, visible, entry))
        return sample;
    impl_->images.update(drawn.size(), drawn.format());
    impl_->images.put(0, drawn.height(), reinterpret_cast<const quint32*>(drawn.constBits()));
    SharedImages::Image taken = impl_->images.finish();
    sample.image = std::move(taken.image);
    sample.changedRows = taken.changedRows;
    sample.ownBytes = taken.ownBytes;
    sample.unusable = sample.image.isNull();
    if (withBounds && !sample.unusable && entry)
        sample.bounds = entry->bounds;
    sample.pointer = pointerLocation();
    return sample;
}

}
