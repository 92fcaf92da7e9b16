// Window images by id: parsing, permission, fallbacks and the one-time warning. No type of the system is seen
// here.
#include "macwindowcapture.h"

#include "platform/screen.h"
#include "windowbounds.h"

#include <QDebug>

MacWindowCapture::MacWindowCapture(const QString& windowIdText)
{
    bool ok = false;
    const quint64 parsed = windowIdText.toULongLong(&ok, 10);
    qDebug() << "macOS CoreGraphics capture requested for window id" << windowIdText << "parsed" << parsed << "ok"
             << ok;
    if (!ok || parsed == 0) {
        qWarning() << "macOS CoreGraphics capture received an empty window id.";
        return;
    }
    if (!ensureAccess())
        return;

    windowId = quint32(parsed);
    source = std::make_unique<platform::WindowSource>(windowId);
    valid = true;
    qDebug() << "macOS CoreGraphics capture configured for window" << windowId;
}

MacWindowCapture::~MacWindowCapture() = default;

bool MacWindowCapture::ensureAccess()
{
    const bool held = platform::preflightScreenCaptureAccess();
    qDebug() << "macOS screen recording preflight before request" << held;
    if (held)
        return true;

    qWarning() << "macOS screen recording permission is not currently granted; requesting access.";
    const bool granted = platform::requestScreenCaptureAccess();
    const bool heldNow = platform::preflightScreenCaptureAccess();
    qDebug() << "macOS screen recording request result" << granted << "preflight after request" << heldNow;
    if (!granted)
        qWarning() << "macOS screen recording permission was not granted; window capture will not produce frames.";
    return granted;
}

namespace {

/// Whether no pixel is translucent. Most windows that can have some have them in their first row: rounded corners.
bool isOpaqueImage(const QImage& image)
{
    if (image.format() == QImage::Format_RGB32)
        return true;
    for (int y = 0; y < image.height(); ++y) {
        const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
        quint32 common = 0xff000000u;
        for (int x = 0; x < image.width(); ++x)
            common &= line[x];
        if (common != 0xff000000u)
            return false;
    }
    return true;
}

/// An opaque image as straight-alpha ARGB32 over the same pixels: with 0xff in every top byte the bytes are
/// the same.
QImage sharedAsArgb32(const QImage& opaque)
{
    auto* owner = new QImage(opaque);
    return QImage(
        owner->constBits(), owner->width(), owner->height(), owner->bytesPerLine(), QImage::Format_ARGB32,
        [](void* image) { delete static_cast<QImage*>(image); }, owner);
}

}

QImage MacWindowCapture::capture(QRect* bounds) const
{
    if (!valid)
        return QImage();

    const QImage image = source->image();
    if (image.isNull()) {
        lastSourceKey = 0;
        lastImage = QImage();
        if (!warnedNoImage && !source->imageWasUnusable()) {
            warnedNoImage = true;
            qWarning() << "macOS CoreGraphics capture returned no image for window" << windowId;
        }
        return QImage();
    }

    if (bounds) {
        const auto rect = source->bounds();
        *bounds = windowbounds::boundsOrImageRect(rect ? windowbounds::roundedRect(*rect) : QRect(), image.size());
    }
    if (image.cacheKey() != lastSourceKey) {
        lastIsOpaque = isOpaqueImage(image);
        lastImage = lastIsOpaque ? sharedAsArgb32(image) : image.convertToFormat(QImage::Format_ARGB32);
        lastSourceKey = lastImage.isNull() ? 0 : image.cacheKey(); // what found no memory is tried again
    }
    return lastImage;
}

std::optional<QPointF> MacWindowCapture::pointerLocation() const
{
    return valid ? source->pointerLocation() : std::nullopt;
}
