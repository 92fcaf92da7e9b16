// Click geometry: clicks and pointers anywhere, on windows of any bounds, in images and canvases of any size.
//
// The first byte says what is looked at: markers as they are painted (255), or the arithmetic.
#include "idlerecorder.h"
#include "windowbounds.h"

#include <QImage>

#include <array>
#include <cmath>

namespace {

constexpr double rounding = 1e-6; // of sums of numbers below 2^31

int takeSide(fuzz::Input& input)
{
    const auto side = input.take<int16_t>();
    return side >= 0 ? side : normalizedCanvasSize(input.takeDouble());
}

/// As a platform tells them, or any four numbers.
QRect takeBounds(fuzz::Input& input)
{
    if (input.take<uint8_t>() % 2) {
        const auto left = input.take<int32_t>();
        const auto top = input.take<int32_t>();
        const auto right = input.take<int32_t>();
        return QRect(QPoint(left, top), QPoint(right, input.take<int32_t>()));
    }
    const double left = input.takeDouble();
    const double top = input.takeDouble();
    const double width = input.takeDouble();
    const QRect bounds = windowbounds::roundedRect(QRectF(left, top, width, input.takeDouble()));
    fuzz::require(bounds == QRect() || bounds.isValid(), "rounded bounds are a rectangle, or none");
    return bounds;
}

// ---- arithmetic ---------------------------------------------------------------------------------------------------

void checkRows(const RowSet& rows, int height)
{
    int end = -1;
    for (const RowSet::Range& range : rows.ranges()) {
        fuzz::require(range.top > end && range.top < range.end, "rows are in order, and apart");
        end = range.end;
    }
    fuzz::require(rows.isEmpty() || (rows.ranges().front().top >= 0 && end <= height), "rows lie on the canvas");
}

void checkPoint(const FrameGeometry& geometry, const QPointF& point, QSize image)
{
    fuzz::require(point.x() >= 0.0 && point.x() <= image.width() && point.y() >= 0.0 && point.y() <= image.height(),
        "a place in the image lies in it");
    const QPointF onCanvas = geometry.toCanvas(point);
    const QRectF target = geometry.target();
    fuzz::require(onCanvas.x() >= target.left() && onCanvas.x() <= target.right() + rounding
            && onCanvas.y() >= target.top() && onCanvas.y() <= target.bottom() + rounding,
        "a place in the image lies where the image lies");
}

void checkArithmetic(fuzz::Input& input)
{
    const QSize image(takeSide(input), takeSide(input));
    const QSize canvas(normalizedCanvasSize(input.takeDouble()), normalizedCanvasSize(input.takeDouble()));
    for (const int side : {canvas.width(), canvas.height()})
        fuzz::require(side >= 16 && side % 2 == 0, "a canvas is even, and not tiny");
    const QRect bounds = takeBounds(input);
    fuzz::require(windowbounds::boundsOrImageRect(bounds, QSize(1, 1)).isValid(), "every image has bounds");
    const FrameGeometry geometry(image, bounds, canvas);
    fuzz::require(QRectF(QPointF(0, 0), canvas).contains(geometry.target()) || geometry.target().isEmpty(),
        "the image lies on the canvas");
    while (!input.isEmpty()) {
        const double x = input.takeDouble();
        const double y = input.takeDouble();
        if (const auto inside = geometry.insideImage(x, y))
            checkPoint(geometry, *inside, image);
        checkRows(geometry.canvasRows(x, y), canvas.height());
        const int top = input.take<uint16_t>() % (image.height() + 1);
        RowSet rows(top, std::min(top + input.take<uint8_t>(), image.height()));
        rows.add(input.take<uint8_t>() % (image.height() + 1), image.height());
        checkRows(geometry.toCanvas(rows), canvas.height());
    }
}

// ---- painting ---------------------------------------------------------------------------------------------------

constexpr qint64 startedAtMs = 1'700'000'000'000;
constexpr int mostSteps = 2;
constexpr uint8_t paintingChosen = 255; // rarely: it costs a hundred times as much

/// Window images that differ from each other, of two sizes, opaque and translucent.
const QImage& windowImage(unsigned number)
{
    static const auto images = [] {
        std::array<QImage, 8> made;
        for (unsigned i = 0; i < made.size(); ++i) {
            made[i] = QImage(i & 4 ? QSize(32, 16) : QSize(20, 12), QImage::Format_ARGB32);
            made[i].fill(qRgba(int(i) * 30, 200, 90, i & 2 ? 255 : 120));
        }
        return made;
    }();
    return images[number % images.size()];
}

/// Two recorders get the same clicks and frames; one is told what changed, the other has to paint all of it.
class Painting {
public:
    void run(fuzz::Input& input);

private:
    void addClick(fuzz::Input& input);
    RecorderProbe::CapturedFrame takeFrame(fuzz::Input& input);
    static QImage compose(fuzz::IdleRecorder& idle, const RecorderProbe::CapturedFrame& frame, qint64 timestampMs);

    fuzz::IdleRecorder partly_;
    fuzz::IdleRecorder whole_;
    unsigned image_ = 0; // of the last frame
    qint64 version_ = 0; // of that
};

void Painting::addClick(fuzz::Input& input)
{
    const double x = input.takeDouble();
    const double y = input.takeDouble();
    const double normalizedX = input.takeDouble();
    const double normalizedY = input.takeDouble();
    const qint64 atMs = startedAtMs + input.take<uint16_t>();
    for (fuzz::IdleRecorder* idle : {&partly_, &whole_})
        idle->recorder().addClick(x, y, normalizedX, normalizedY, atMs);
}

RecorderProbe::CapturedFrame Painting::takeFrame(fuzz::Input& input)
{
    const auto choice = input.take<uint8_t>();
    RecorderProbe::CapturedFrame frame;
    const bool isNew = !(choice & 0x20);
    image_ = isNew ? choice : image_;
    version_ += isNew;
    frame.image = windowImage(image_);
    frame.opaque = image_ & 2;
    frame.imageVersion = version_;
    frame.changedRows = RowSet(0, frame.image.height());
    frame.windowBounds = choice & 0x40 ? takeBounds(input) : QRect(QPoint(0, 0), frame.image.size());
    if (choice & 0x80) {
        frame.hasCursor = true;
        frame.cursorX = input.takeDouble();
        frame.cursorY = input.takeDouble();
    }
    return frame;
}

QImage Painting::compose(fuzz::IdleRecorder& idle, const RecorderProbe::CapturedFrame& frame, qint64 timestampMs)
{
    const QImage image = idle.probe().composeFrame(frame, timestampMs);
    fuzz::require(image.size() == QSize(idle.probe().canvasWidth(), idle.probe().canvasHeight()),
        "a composed image has the canvas's size");
    return image;
}

void Painting::run(fuzz::Input& input)
{
    version_ += 2; // one was left out: the first is painted whole
    for (fuzz::IdleRecorder* idle : {&partly_, &whole_}) {
        idle->probe().forgetClicks();
        idle->probe().recordingStartedAtMs().store(startedAtMs);
    }
    qint64 timestampMs = 0;
    for (int step = 0; step < mostSteps && !input.isEmpty(); ++step) {
        for (int clicks = input.take<uint8_t>() % 4; clicks > 0; --clicks)
            addClick(input);
        timestampMs += input.take<uint16_t>() % 4096;
        RecorderProbe::CapturedFrame frame = takeFrame(input);
        const QImage partly = compose(partly_, frame, timestampMs);
        frame.imageVersion = 0;
        fuzz::require(
            partly == compose(whole_, frame, timestampMs), "what is painted in part is as if painted whole");
    }
}

void run(fuzz::Input input)
{
    static Painting painting;
    if (input.take<uint8_t>() == paintingChosen)
        painting.run(input);
    else
        checkArithmetic(input);
}

const fuzz::Target clickGeometry{"clickgeometry", run, {}};

}

ORVANTIS_FUZZ_TARGET(clickGeometry)
