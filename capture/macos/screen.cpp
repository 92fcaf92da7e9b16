// Windows on the Mac, in Qt's types.
#include "platform/screen.h"
#include "platform/waiting.h"

#include "coregraphics.h"
#include "screencapturekit.h"
#include "sharedimages.h"
#include "visiblepixels.h"

#include <chrono>
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

// The system lists a program that asks what can be captured, which an answer that comes too late, or is an error,
// does not change.
void enrolForScreenCapture()
{
    constexpr std::chrono::nanoseconds longest = std::chrono::seconds(5);
    const auto answered = std::make_shared<Semaphore>();
    macos::requestShareableContent(true, true, [answered](const auto&, const auto&) { answered->signal(); });
    answered->wait(longest.count());
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

bool isOnePixel(const QImage& image)
{
    return image.size() == QSize(1, 1);
}

/// For a window that is closed, minimised, hidden or elsewhere the system may give an image all the same: an empty
/// one, or one of a single pixel. What a window on the screen shows is its image, whatever it is.
bool isPlaceholder(const QImage& image, bool visible, const std::optional<macos::WindowEntry>& entry)
{
    const bool isLarger = entry && entry->bounds && (entry->bounds->width > 1 || entry->bounds->height > 1);
    if (isOnePixel(image) && isLarger)
        return true;
    return !visible && !(entry && entry->isOnScreen);
}

}

// The system does not say whether anything changed, so every image is compared with the one before.
WindowSample WindowSource::sample(bool withBounds)
{
    WindowSample sample;
    const auto window = macos::WindowImage::capture(impl_->windowId);
    if (!window)
        return sample;
    const QImage& drawn = impl_->drawn;
    sample.unusable = !draw(*window, impl_->drawn);
    if (sample.unusable)
        return sample;
    const bool visible = visiblepixels::hasAny(drawn);
    const bool isDoubtful = !visible || isOnePixel(drawn);
    std::optional<macos::WindowEntry> entry;
    if (withBounds || isDoubtful)
        entry = macos::windowEntry(impl_->windowId);
    if (isDoubtful && isPlaceholder(drawn, visible, entry))
        return sample;
    impl_->images.update(drawn.size(), drawn.format());
    impl_->images.put(0, drawn.height(), reinterpret_cast<const quint32*>(drawn.constBits()));
    SharedImages::Image taken = impl_->images.finish();
    sample.image = std::move(taken.image);
    sample.changedRows = taken.changedRows;
    sample.ownBytes = taken.ownBytes;
    sample.unusable = sample.image.isNull();
    if (withBounds && !sample.unusable && entry && entry->bounds)
        sample.bounds = QRectF(entry->bounds->x, entry->bounds->y, entry->bounds->width, entry->bounds->height);
    if (const auto point = macos::pointerLocation())
        sample.pointer = QPointF(point->x, point->y);
    return sample;
}

}
