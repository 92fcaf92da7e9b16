// A window image on the canvas: letterbox, pointer arrow, markers on top. Looks at pixels.
#include "imagediff.h"
#include "privatetempdir.h"
#include "recorderbench.h"
#include "testregistry.h"

#include <QPainter>

using imagediff::changedArea;
using imagediff::distance;

namespace {

const QRgb black = qRgba(0, 0, 0, 255);
const QRgb white = qRgba(255, 255, 255, 255);
const QRgb grey = qRgba(128, 128, 128, 255);

/// A grey window in straight-alpha ARGB32 whose bounds are its own pixels.
RecorderProbe::CapturedFrame greyFrame(int width, int height)
{
    RecorderProbe::CapturedFrame frame;
    frame.image = QImage(width, height, QImage::Format_ARGB32);
    frame.image.fill(QColor::fromRgba(grey));
    frame.windowBounds = frame.image.rect();
    return frame;
}

RecorderProbe::CapturedFrame withPointer(RecorderProbe::CapturedFrame frame, double x, double y)
{
    frame.cursorX = x;
    frame.cursorY = y;
    frame.hasCursor = true;
    return frame;
}

/// Whether every pixel of a part of the frame has the colour, within a tolerance.
bool isFilled(const QImage& image, const QRect& area, QRgb colour, int tolerance = 0)
{
    for (int y = area.top(); y <= area.bottom(); ++y) {
        for (int x = area.left(); x <= area.right(); ++x) {
            if (distance(image.pixel(x, y), colour) > tolerance)
                return false;
        }
    }
    return true;
}

}

class CompositionTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { bench_.emplace(); }
    void cleanup();

    void canvasHasItsSizeAndFormat();
    void letterbox_data();
    void letterbox();
    void imageIsNeitherCroppedNorDistorted();
    void translucentWindowStandsOnBlack();
    void nullImageGivesABlackCanvas();
    void canvasThatNoMemoryHoldsGivesNoFrame();
    void framesWithoutACanvasAreToldOfOnce();
    void screenOriginAndScaleTakeNoPart();

    void pointerTipIsAtThePointer();
    void pointerIsMappedThroughTheWindowBounds();
    void pointerOnTheEdge_data();
    void pointerOnTheEdge();
    void pointerOnTheRightEdgeOfAnEnlargedWindow();
    void pointerSize_data();
    void pointerSize();
    void pointerIsWhiteWithABlackRim();
    void noPointerWithoutASample();
    void noPointerWithoutValidBounds();

    void markerIsDrawnThoughThePointerIsOutside();
    void markerIsDrawnOverThePointer();
    void pointerScaleDoesNotReachTheMarkers();
    void pointerStateDoesNotReachTheNextFrame();

private:
    /// The canvas size as it is, without the constructor's rounding.
    QImage compose(const RecorderProbe::CapturedFrame& frame, const QSize& canvas, long long timestampMs = 0);
    void addClick(double x, double y) { recorder().addClick(x, y, -1.0, -1.0, 0); }
    GstRecorder& recorder();

    PrivateTempDir directory_;
    std::optional<RecorderBench> bench_;
    std::unique_ptr<GstRecorder> recorder_;
};

void CompositionTest::cleanup()
{
    recorder_.reset();
    bench_.reset();
}

GstRecorder& CompositionTest::recorder()
{
    if (!recorder_)
        recorder_ = bench_->makeIdleRecorder();
    return *recorder_;
}

QImage CompositionTest::compose(const RecorderProbe::CapturedFrame& frame, const QSize& canvas, long long timestampMs)
{
    RecorderProbe probe(recorder());
    probe.canvasWidth() = canvas.width();
    probe.canvasHeight() = canvas.height();
    return probe.composeFrame(frame, timestampMs);
}

void CompositionTest::canvasHasItsSizeAndFormat()
{
    RecorderArguments arguments;
    arguments.canvasWidth = 321;
    arguments.canvasHeight = 99.5;
    recorder_ = bench_->makeIdleRecorder(arguments);
    const QImage canvas = RecorderProbe(*recorder_).composeFrame(greyFrame(64, 64), 0);
    QCOMPARE(canvas.size(), QSize(322, 100));
    QCOMPARE(canvas.format(), QImage::Format_ARGB32);
}

void CompositionTest::letterbox_data()
{
    QTest::addColumn<QSize>("image");
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<QRect>("target");
    QTest::newRow("1000 x 500") << QSize(1000, 500) << QSize(1920, 1080) << QRect(0, 60, 1920, 960);
    QTest::newRow("640 x 480") << QSize(640, 480) << QSize(1920, 1080) << QRect(240, 0, 1440, 1080);
    QTest::newRow("same size") << QSize(320, 200) << QSize(320, 200) << QRect(0, 0, 320, 200);
    QTest::newRow("spare column on the right") << QSize(1920, 1080) << QSize(1921, 1080) << QRect(0, 0, 1920, 1080);
    QTest::newRow("spare row below") << QSize(320, 200) << QSize(320, 201) << QRect(0, 0, 320, 200);
    QTest::newRow("three spare rows") << QSize(320, 200) << QSize(320, 203) << QRect(0, 1, 320, 200);
    QTest::newRow("shrunk") << QSize(800, 400) << QSize(200, 200) << QRect(0, 50, 200, 100);
}

void CompositionTest::letterbox()
{
    QFETCH(QSize, image);
    QFETCH(QSize, canvas);
    QFETCH(QRect, target);
    const QImage composed = compose(greyFrame(image.width(), image.height()), canvas);
    QVERIFY(isFilled(composed, target, grey));
    const QRect all = composed.rect();
    QVERIFY(isFilled(composed, QRect(all.topLeft(), QPoint(target.left() - 1, all.bottom())), black));
    QVERIFY(isFilled(composed, QRect(QPoint(target.right() + 1, 0), all.bottomRight()), black));
    QVERIFY(isFilled(composed, QRect(all.topLeft(), QPoint(all.right(), target.top() - 1)), black));
    QVERIFY(isFilled(composed, QRect(QPoint(0, target.bottom() + 1), all.bottomRight()), black));
}

void CompositionTest::imageIsNeitherCroppedNorDistorted()
{
    // Four quadrants of 50 x 25 pixels, each of its own colour; on the canvas each is 96 x 48.
    RecorderProbe::CapturedFrame frame = greyFrame(100, 50);
    const QRgb colours[] = {qRgb(255, 0, 0), qRgb(0, 255, 0), qRgb(0, 0, 255), qRgb(255, 255, 0)};
    QPainter painter(&frame.image);
    for (int i = 0; i < 4; ++i)
        painter.fillRect(QRect((i % 2) * 50, (i / 2) * 25, 50, 25), QColor(colours[i]));
    painter.end();
    const QImage composed = compose(frame, QSize(192, 108));
    constexpr int blend = 3; // pixels beside a boundary that smooth scaling may mix
    for (int i = 0; i < 4; ++i) {
        const QRect quadrant((i % 2) * 96, 6 + (i / 2) * 48, 96, 48);
        QVERIFY(isFilled(composed, quadrant.adjusted(blend, blend, -blend, -blend), colours[i]));
    }
}

void CompositionTest::translucentWindowStandsOnBlack()
{
    RecorderProbe::CapturedFrame frame = greyFrame(64, 64);
    frame.image.fill(QColor(255, 255, 255, 128));
    const QImage composed = compose(frame, QSize(128, 64));
    QVERIFY(isFilled(composed, QRect(32, 0, 64, 64), qRgba(128, 128, 128, 255), 1));
    QVERIFY(isFilled(composed, QRect(0, 0, 32, 64), black));
    frame.image.fill(Qt::transparent);
    QVERIFY(isFilled(compose(frame, QSize(128, 64)), QRect(0, 0, 128, 64), black));
}

void CompositionTest::nullImageGivesABlackCanvas()
{
    RecorderProbe::CapturedFrame frame = withPointer(RecorderProbe::CapturedFrame(), 5, 5);
    frame.windowBounds = QRect(0, 0, 100, 100);
    const QImage composed = compose(frame, QSize(64, 48));
    QCOMPARE(composed.size(), QSize(64, 48));
    QVERIFY(isFilled(composed, composed.rect(), black));
}

void CompositionTest::canvasThatNoMemoryHoldsGivesNoFrame()
{
    RecorderArguments arguments;
    arguments.canvasWidth = 1e308;
    arguments.canvasHeight = 1e308;
    recorder_ = bench_->makeIdleRecorder(arguments);
    QVERIFY(RecorderProbe(*recorder_).composeFrame(greyFrame(64, 64), 0).isNull());
}

void CompositionTest::framesWithoutACanvasAreToldOfOnce()
{
    RecorderArguments arguments;
    arguments.canvasWidth = 1e308;
    arguments.canvasHeight = 1e308;
    recorder_ = bench_->makeIdleRecorder(arguments);
    QList<RecorderProbe::QueuedFrame> queue{{greyFrame(64, 64), 0}, {greyFrame(64, 64), 41}};
    RecorderProbe(*recorder_).drainQueue(queue, 41, false);
    QVERIFY(queue.isEmpty());
    QCOMPARE(bench_->log.messages(),
        QStringList{QStringLiteral("No memory for the image of a window; the frame is left out. Told once.")});
}

void CompositionTest::screenOriginAndScaleTakeNoPart()
{
    const RecorderProbe::CapturedFrame frame = withPointer(greyFrame(64, 64), 20, 20);
    const QImage plain = compose(frame, QSize(160, 96));
    RecorderArguments arguments;
    arguments.screenOriginX = -300;
    arguments.screenOriginY = 77;
    arguments.scale = 3.0;
    recorder_ = bench_->makeIdleRecorder(arguments);
    QCOMPARE(RecorderProbe(*recorder_).composeFrame(frame, 0), plain);
}

void CompositionTest::pointerTipIsAtThePointer()
{
    const RecorderProbe::CapturedFrame frame = greyFrame(200, 100);
    const QSize canvas(200, 120); // ten rows of bar above
    const QRect arrow = changedArea(compose(frame, canvas), compose(withPointer(frame, 50, 40), canvas));
    // 19 x 27 units from the tip at (50, 50), and a rim of one and a half around it.
    QCOMPARE(arrow, QRect(QPoint(48, 48), QPoint(70, 78)));
}

void CompositionTest::pointerIsMappedThroughTheWindowBounds()
{
    // A window of 100 x 50 points at (-30, 400), two pixels to the point, drawn 1:1.
    RecorderProbe::CapturedFrame frame = greyFrame(200, 100);
    frame.windowBounds = QRect(-30, 400, 100, 50);
    const QSize canvas(200, 100);
    const QImage onWindow = compose(withPointer(frame, -5, 415), canvas);
    const QImage onImage = compose(withPointer(greyFrame(200, 100), 50, 30), canvas);
    QCOMPARE(onWindow, onImage);
    QVERIFY(changedArea(onWindow, compose(frame, canvas)).isValid());
}

void CompositionTest::pointerOnTheEdge_data()
{
    QTest::addColumn<QPointF>("pointer");
    QTest::addColumn<bool>("drawn");
    QTest::newRow("right edge") << QPointF(210, 60) << true;
    QTest::newRow("one point right of it") << QPointF(211, 60) << false;
    QTest::newRow("bottom edge") << QPointF(60, 120) << true;
    QTest::newRow("one point below it") << QPointF(60, 121) << false;
    QTest::newRow("left edge") << QPointF(10, 60) << true;
    QTest::newRow("one point left of it") << QPointF(9, 60) << false;
    QTest::newRow("top edge") << QPointF(60, 20) << true;
    QTest::newRow("one point above it") << QPointF(60, 19) << false;
}

void CompositionTest::pointerOnTheEdge()
{
    QFETCH(QPointF, pointer);
    RecorderProbe::CapturedFrame frame = greyFrame(200, 100);
    frame.windowBounds = QRect(10, 20, 200, 100);
    const QSize canvas(260, 160); // bars on all sides but two
    const QImage without = compose(frame, canvas);
    const QImage with = compose(withPointer(frame, pointer.x(), pointer.y()), canvas);
    QTEST(changedArea(without, with).isValid(), "drawn");
}

void CompositionTest::pointerOnTheRightEdgeOfAnEnlargedWindow()
{
    // A double cannot hold the ratio 805 / 800 exactly.
    RecorderProbe::CapturedFrame frame = greyFrame(805, 600);
    frame.windowBounds = QRect(13, 0, 800, 596);
    const QSize canvas(840, 600);
    const QImage without = compose(frame, canvas);
    const QRect arrow = changedArea(without, compose(withPointer(frame, 813, 100), canvas));
    QVERIFY(arrow.isValid());
    // The canvas is 35 columns wider than the image: 17 on the left, so that the edge lies at 822.
    QVERIFY2(qAbs(arrow.left() - 820) <= 1, qPrintable(QString::number(arrow.left())));
    QVERIFY(!changedArea(without, compose(withPointer(frame, 814, 100), canvas)).isValid());
}

void CompositionTest::pointerSize_data()
{
    QTest::addColumn<QSize>("image");
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<double>("scale");
    QTest::newRow("shrunk to half: nominal size") << QSize(400, 400) << QSize(200, 200) << 1.0;
    QTest::newRow("1:1: nominal size") << QSize(200, 200) << QSize(200, 200) << 1.0;
    QTest::newRow("one and a half times") << QSize(200, 200) << QSize(300, 300) << 1.5;
    QTest::newRow("four times") << QSize(100, 100) << QSize(400, 400) << 4.0;
}

void CompositionTest::pointerSize()
{
    QFETCH(QSize, image);
    QFETCH(QSize, canvas);
    QFETCH(double, scale);
    const RecorderProbe::CapturedFrame frame = greyFrame(image.width(), image.height());
    const RecorderProbe::CapturedFrame pointed = withPointer(frame, image.width() / 4.0, image.height() / 4.0);
    const QRect arrow = changedArea(compose(frame, canvas), compose(pointed, canvas), 10);
    constexpr double rim = 1.5; // half of the black pen
    QVERIFY2(qAbs(arrow.width() - (19 + 2 * rim) * scale) <= 2.0, qPrintable(QString::number(arrow.width())));
    QVERIFY2(qAbs(arrow.height() - (27 + 2 * rim) * scale) <= 2.0, qPrintable(QString::number(arrow.height())));
    QVERIFY(qAbs(arrow.left() - (canvas.width() / 4.0 - rim * scale)) <= 1.5);
    QVERIFY(qAbs(arrow.top() - (canvas.height() / 4.0 - rim * scale)) <= 1.5);
}

void CompositionTest::pointerIsWhiteWithABlackRim()
{
    // Ten canvas pixels to the arrow unit, the tip at (100, 100): its left side runs straight down.
    const QImage composed = compose(withPointer(greyFrame(50, 50), 10, 10), QSize(500, 500));
    const int middle = 100 + 120;
    QVERIFY(isFilled(composed, QRect(60, middle, 24, 1), grey));
    QVERIFY(isFilled(composed, QRect(86, middle, 8, 1), black)); // 1.5 to 0.5 units outside the outline
    QVERIFY(isFilled(composed, QRect(96, middle, 60, 1), white)); // the thin edge, then the inside
    // The tail: between (10, 27) and (15, 25) the outline ends; below it is background.
    QVERIFY(isFilled(composed, QRect(100 + 115, 100 + 200, 10, 10), white));
    QVERIFY(isFilled(composed, QRect(100 + 120, 100 + 290, 10, 10), grey));
    // The notches beside the tail are cut out.
    QVERIFY(isFilled(composed, QRect(100 + 30, 100 + 240, 5, 5), grey));
    QVERIFY(isFilled(composed, QRect(100 + 160, 100 + 180, 5, 5), grey));
}

void CompositionTest::noPointerWithoutASample()
{
    RecorderProbe::CapturedFrame frame = withPointer(greyFrame(100, 100), 50, 50);
    frame.hasCursor = false;
    const QImage composed = compose(frame, QSize(100, 100));
    QVERIFY(isFilled(composed, composed.rect(), grey));
}

void CompositionTest::noPointerWithoutValidBounds()
{
    RecorderProbe::CapturedFrame frame = withPointer(greyFrame(100, 100), 50, 50);
    for (const QRect& bounds : {QRect(), QRect(0, 0, 0, 100), QRect(0, 0, 100, 0)}) {
        frame.windowBounds = bounds;
        const QImage composed = compose(frame, QSize(100, 100));
        QVERIFY(isFilled(composed, composed.rect(), grey));
    }
}

void CompositionTest::markerIsDrawnThoughThePointerIsOutside()
{
    const RecorderProbe::CapturedFrame frame = withPointer(greyFrame(200, 100), -1, 50);
    const QImage without = compose(frame, QSize(200, 100));
    QVERIFY(isFilled(without, without.rect(), grey));
    addClick(100, 50);
    QCOMPARE(changedArea(without, compose(frame, QSize(200, 100))), QRect(QPoint(84, 34), QPoint(115, 65)));
}

void CompositionTest::markerIsDrawnOverThePointer()
{
    // Inside the arrow, four units right of and twelve below its tip.
    const RecorderProbe::CapturedFrame frame = withPointer(greyFrame(200, 100), 100, 50);
    addClick(104, 62);
    const QImage composed = compose(frame, QSize(200, 100));
    // (230, 0, 25) at 180 of 255 over white.
    QVERIFY2(distance(composed.pixel(104, 62), qRgba(237, 75, 93, 255)) <= 2,
        qPrintable(QColor(composed.pixel(104, 62)).name()));
}

void CompositionTest::pointerScaleDoesNotReachTheMarkers()
{
    const RecorderProbe::CapturedFrame frame = greyFrame(100, 100);
    const QSize canvas(300, 300);
    addClick(80, 80); // far from the arrow
    const QImage without = compose(frame, canvas);
    const QImage with = compose(withPointer(frame, 5, 5), canvas);
    const QRect markerPart(150, 150, 150, 150);
    QCOMPARE(with.copy(markerPart), without.copy(markerPart));
    QImage background(300, 300, QImage::Format_ARGB32);
    background.fill(QColor::fromRgba(grey));
    QCOMPARE(changedArea(background, without), QRect(QPoint(224, 224), QPoint(255, 255)));
}

void CompositionTest::pointerStateDoesNotReachTheNextFrame()
{
    const RecorderProbe::CapturedFrame frame = greyFrame(100, 100);
    const QImage before = compose(frame, QSize(300, 200));
    const QImage pointed = compose(withPointer(frame, 50, 50), QSize(300, 200));
    QVERIFY(pointed != before);
    QCOMPARE(compose(frame, QSize(300, 200)), before);
}

ORVANTIS_TEST(CompositionTest)
#include "composition_test.moc"
