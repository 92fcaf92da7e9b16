// Window images by id: parsing, permission, fallbacks and the one-time warning. No type of the system is seen
// here.
#include "macwindowcapture.h"

#include "platform/screen.h"
#include "visiblepixels.h"
#include "windowbounds.h"
#include "windowsampling.h"

#include <QDebug>
#include <QScopeGuard>

#include <utility>

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
    sampling = std::make_unique<WindowSampling>(windowId);
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

/// Whether no pixel of some rows is translucent. Most windows that can have some have them in their first row:
/// rounded corners.
bool isOpaque(const QImage& image, const RowSet& rows)
{
    if (image.format() == QImage::Format_RGB32)
        return true;
    for (const RowSet::Range& range : rows.ranges()) {
        for (int y = range.top; y < range.end; ++y) {
            const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
            quint32 common = 0xff000000u;
            for (int x = 0; x < image.width(); ++x)
                common &= line[x];
            if (common != 0xff000000u)
                return false;
        }
    }
    return true;
}

/// An opaque image as straight-alpha ARGB32 over the same pixels: with 0xff in every top byte the bytes are
/// the same.
QImage sharedAsArgb32(const QImage& opaque)
{
    auto owner = std::make_unique<QImage>(opaque);
    QImage image(
        opaque.constBits(), opaque.width(), opaque.height(), opaque.bytesPerLine(), QImage::Format_ARGB32,
        [](void* kept) { delete static_cast<QImage*>(kept); }, owner.get());
    static_cast<void>(owner.release()); // the image has it now
    return image;
}

/// Some rows of an image, as an image over the same pixels.
QImage rowsOf(const QImage& image, const RowSet::Range& range)
{
    return QImage(image.constScanLine(range.top), image.width(), range.count(), image.bytesPerLine(), image.format());
}

}

CapturedWindow MacWindowCapture::captureWindow(bool withBounds) const
{
    if (!valid)
        return {};
    // What the source has told of a change it does not tell again: without an image, and after an exception, the next
    // one counts as all new.
    auto loss = qScopeGuard([this] { last.image = QImage(); });
    const std::optional<platform::WindowSample> answer = sampling->sample(withBounds);
    if (!answer)
        return {};
    const platform::WindowSample& sample = *answer;
    if (sample.image.isNull())
        warnOfNoImage(sample);
    if (sample.image.isNull() || !takeImage(sample))
        return {};
    warnOfEmptyImages();
    CapturedWindow captured = last;
    if (withBounds) {
        const QRect rounded = sample.bounds ? windowbounds::roundedRect(*sample.bounds) : QRect();
        captured.bounds = windowbounds::boundsOrImageRect(rounded, sample.image.size());
    }
    captured.pointer = sample.pointer;
    loss.dismiss();
    return captured;
}

QImage MacWindowCapture::capture(QRect* bounds) const
{
    const CapturedWindow captured = captureWindow(bounds);
    if (bounds && !captured.image.isNull())
        *bounds = captured.bounds;
    return captured.image;
}

void MacWindowCapture::warnOfNoImage(const platform::WindowSample& sample) const
{
    if (warnedNoImage || sample.unusable)
        return;
    warnedNoImage = true;
    qWarning() << "macOS CoreGraphics capture returned no image for window" << windowId;
}

/// macOS 15 wants to be asked for the permission again from time to time. Until its user has answered it may give
/// nothing to see, although it says that the permission is held.
void MacWindowCapture::warnOfEmptyImages() const
{
    constexpr int most = 72; // three seconds of recording
    if (emptyImages >= most)
        return;
    if (last.opaque || visiblepixels::hasAny(last.image)) {
        emptyImages = most;
        return;
    }
    if (++emptyImages < most)
        return;
    qWarning() << "Captured window has shown nothing but transparent images so far, although the permission is held "
                  "(a newer macOS asks for it again from time to time, and gives none until it is answered). Told "
                  "once; window:"
               << windowId;
}

/// Brings the last image up to date. False when there is no memory for it.
bool MacWindowCapture::takeImage(const platform::WindowSample& sample) const
{
    const QImage& image = sample.image;
    const RowSet all(0, image.height());
    const bool allNew = last.image.isNull() || last.image.size() != image.size();
    const RowSet& rows = allNew ? all : sample.changedRows;
    if (rows.isEmpty()) // the same version, which differs from the one before as it did
        return true;
    const bool wasOpaque = last.opaque;
    last.opaque = isOpaque(image, !allNew && wasOpaque ? rows : all);
    if (last.opaque) {
        last.image = sharedAsArgb32(image);
        last.changedRows = !allNew && wasOpaque ? rows : all;
        last.ownBytes = !allNew && wasOpaque ? sample.ownBytes : image.sizeInBytes();
        straightImages.forget();
    } else {
        SharedImages::Image taken = straightened(sample, allNew || wasOpaque ? all : rows);
        if (taken.image.isNull())
            return false;
        if (allNew) // what it differs from may be an image that was lost: made, and given to nobody
            taken.changedRows = all;
        last.changedRows = std::move(taken.changedRows);
        last.ownBytes = allNew ? taken.image.sizeInBytes() : taken.ownBytes;
        last.image = std::move(taken.image);
    }
    ++last.version;
    return true;
}

/// The image in straight alpha. rows: those that may differ from the last one that was made here.
SharedImages::Image MacWindowCapture::straightened(const platform::WindowSample& sample, const RowSet& rows) const
{
    straightImages.update(sample.image.size(), QImage::Format_ARGB32);
    for (const RowSet::Range& range : rows.ranges()) {
        const QImage part = rowsOf(sample.image, range).convertToFormat(QImage::Format_ARGB32);
        if (part.isNull()) {
            straightImages.abandon();
            break;
        }
        straightImages.put(range.top, range.count(), reinterpret_cast<const quint32*>(part.constBits()));
    }
    return straightImages.finish();
}
