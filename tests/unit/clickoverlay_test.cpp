// Click markers on the canvas: their life, and where they are drawn. Looks at pixels.
#include "clickbench.h"
#include "imagediff.h"
#include "privatetempdir.h"
#include "testregistry.h"

using imagediff::changedArea;

namespace {

QImage blackCanvas()
{
    QImage canvas(160, 96, QImage::Format_ARGB32);
    canvas.fill(Qt::black);
    return canvas;
}

/// The pixels that a disc with this centre and radius touches.
QRect discArea(int x, int y, int radius)
{
    return QRect(x - radius, y - radius, 2 * radius, 2 * radius);
}

}

class ClickOverlayTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { bench_.emplace(); }
    void cleanup() { bench_.reset(); }

    void markerShrinksFadesAndGoes_data();
    void markerShrinksFadesAndGoes();
    void oldClickIsErasedBeforeDrawing();
    void futureClickIsNeitherDrawnNorErased();
    void globalPositionWins();
    void normalizedPositionIsTheFallback_data();
    void normalizedPositionIsTheFallback();
    void clickOutsideWithoutNormalizedPositionIsKeptUndrawn();
    void positionIsMappedThroughThisFramesBounds();
    void markerOnTheWindowsEdge();
    void markerIsCanvasPixelsHoweverTheImageIsScaled();
    void severalMarkersInOneFrame();

private:
    RecorderProbe probe() { return bench_->probe(); }
    QList<qint64> keys() { return bench_->keys(); }
    QImage compose(const RecorderProbe::CapturedFrame& frame, long long timestampMs)
    {
        return probe().composeFrame(frame, timestampMs);
    }
    QRect markerArea(const RecorderProbe::CapturedFrame& frame, long long timestampMs)
    {
        return changedArea(blackCanvas(), compose(frame, timestampMs));
    }

    PrivateTempDir directory_;
    std::optional<ClickBench> bench_;
};

void ClickOverlayTest::markerShrinksFadesAndGoes_data()
{
    QTest::addColumn<qint64>("frameMs");
    QTest::addColumn<int>("radius"); // 0: no marker
    QTest::addColumn<int>("alpha");
    QTest::newRow("before its time") << qint64(499) << 0 << 0;
    QTest::newRow("at its time") << qint64(500) << 16 << 180;
    QTest::newRow("after 1 s") << qint64(1500) << 8 << 90;
    QTest::newRow("after 1.5 s") << qint64(2000) << 4 << 60;
    QTest::newRow("after 2 s") << qint64(2500) << 2 << 60;
    QTest::newRow("after 2.001 s") << qint64(2501) << 0 << 0;
}

void ClickOverlayTest::markerShrinksFadesAndGoes()
{
    QFETCH(qint64, frameMs);
    QFETCH(int, radius);
    QFETCH(int, alpha);
    bench_->startRecordingAt(1000000);
    bench_->recorder->addClick(80, 48, -1, -1, 1000500);
    const QImage composed = compose(blackFrame(), frameMs);
    QCOMPARE(changedArea(blackCanvas(), composed), radius ? discArea(80, 48, radius) : QRect());
    // (230, 0, 25) over black.
    const QRgb centre = composed.pixel(80, 48);
    QVERIFY2(qAbs(qRed(centre) - 230 * alpha / 255) <= 1, qPrintable(QString::number(qRed(centre))));
    QCOMPARE(qGreen(centre), 0);
    QVERIFY2(qAbs(qBlue(centre) - 25 * alpha / 255) <= 1, qPrintable(QString::number(qBlue(centre))));
    QCOMPARE(qAlpha(centre), 255);
    if (radius > 2) // a disc, not its square
        QCOMPARE(composed.pixel(80 - radius, 48 - radius), qRgba(0, 0, 0, 255));
}

void ClickOverlayTest::oldClickIsErasedBeforeDrawing()
{
    bench_->startRecordingAt(1000000);
    bench_->recorder->addClick(80, 48, -1, -1, 1000500);
    compose(blackFrame(), 2500);
    QCOMPARE(keys(), QList<qint64>{500});
    QCOMPARE(markerArea(blackFrame(), 2501), QRect());
    QCOMPARE(keys(), QList<qint64>());
    QCOMPARE(markerArea(blackFrame(), 500), QRect()); // gone for good
}

void ClickOverlayTest::futureClickIsNeitherDrawnNorErased()
{
    bench_->startRecordingAt(1000000);
    bench_->recorder->addClick(80, 48, -1, -1, 1009000);
    QCOMPARE(markerArea(blackFrame(), 8999), QRect());
    QCOMPARE(keys(), QList<qint64>{9000});
    QCOMPARE(markerArea(blackFrame(), 9000), discArea(80, 48, 16));
}

void ClickOverlayTest::globalPositionWins()
{
    bench_->recorder->addClick(40, 30, 0.75, 0.75, 0);
    QCOMPARE(markerArea(blackFrame(), 0), discArea(40, 30, 16));
}

void ClickOverlayTest::normalizedPositionIsTheFallback_data()
{
    QTest::addColumn<QRect>("bounds");
    QTest::addColumn<QPointF>("global");
    QTest::newRow("left of the window") << QRect(0, 0, 160, 96) << QPointF(-1, 48);
    QTest::newRow("right of the window") << QRect(0, 0, 160, 96) << QPointF(161, 48);
    QTest::newRow("above the window") << QRect(0, 0, 160, 96) << QPointF(80, -1);
    QTest::newRow("below the window") << QRect(0, 0, 160, 96) << QPointF(80, 97);
    QTest::newRow("window moved away") << QRect(1000, 1000, 160, 96) << QPointF(40, 30);
    QTest::newRow("unknown bounds") << QRect() << QPointF(40, 30);
    QTest::newRow("not a number") << QRect(0, 0, 160, 96) << QPointF(notANumber, 48);
}

void ClickOverlayTest::normalizedPositionIsTheFallback()
{
    QFETCH(QRect, bounds);
    QFETCH(QPointF, global);
    RecorderProbe::CapturedFrame frame = blackFrame();
    frame.windowBounds = bounds;
    bench_->recorder->addClick(global.x(), global.y(), 0.5, 0.5, 0);
    QCOMPARE(markerArea(frame, 0), discArea(80, 48, 16));
}

void ClickOverlayTest::clickOutsideWithoutNormalizedPositionIsKeptUndrawn()
{
    bench_->recorder->addClick(-1, 48, -1, -1, 0);
    bench_->recorder->addClick(-1, 48, 1.5, 0.5, 0);
    QCOMPARE(markerArea(blackFrame(), 1), QRect());
    QCOMPARE(keys(), (QList<qint64>{0, 1}));
    RecorderProbe::CapturedFrame moved = blackFrame();
    moved.windowBounds = QRect(-81, 0, 160, 96); // the window comes under the click
    QCOMPARE(markerArea(moved, 1).center(), QRect(discArea(80, 48, 16)).center());
}

void ClickOverlayTest::positionIsMappedThroughThisFramesBounds()
{
    RecorderProbe::CapturedFrame frame = blackFrame();
    frame.windowBounds = QRect(-40, 200, 80, 48); // two pixels to the point
    bench_->recorder->addClick(0, 224, -1, -1, 0);
    QCOMPARE(markerArea(frame, 0), discArea(80, 48, 16));
    frame.windowBounds.translate(10, 0); // the window moves right, the click stays on the screen
    QCOMPARE(markerArea(frame, 0), discArea(60, 48, 16));
}

void ClickOverlayTest::markerOnTheWindowsEdge()
{
    bench_->recorder->addClick(160, 96, -1, -1, 0);
    QCOMPARE(markerArea(blackFrame(), 0), QRect(QPoint(144, 80), QPoint(159, 95)));
}

void ClickOverlayTest::markerIsCanvasPixelsHoweverTheImageIsScaled()
{
    bench_->recorder->addClick(0.5, 0.5, -1, -1, 0);
    for (const QSize& size : {QSize(16, 16), QSize(960, 960)}) {
        RecorderProbe::CapturedFrame frame = blackFrame();
        frame.image = frame.image.scaled(size);
        frame.windowBounds = QRect(0, 0, 1, 1);
        QCOMPARE(markerArea(frame, 0), discArea(80, 48, 16));
    }
}

void ClickOverlayTest::severalMarkersInOneFrame()
{
    bench_->startRecordingAt(1000000);
    bench_->recorder->addClick(30, 48, -1, -1, 1001000);
    bench_->recorder->addClick(100, 48, -1, -1, 1002000);
    bench_->recorder->addClick(150, 10, -1, -1, 1002001); // not yet
    const QImage composed = compose(blackFrame(), 2000);
    const QRect left(0, 0, 80, 96);
    const QRect right(80, 0, 80, 96);
    QCOMPARE(changedArea(blackCanvas().copy(left), composed.copy(left)), discArea(30, 48, 8));
    QCOMPARE(changedArea(blackCanvas().copy(right), composed.copy(right)), discArea(20, 48, 16));
}

ORVANTIS_TEST(ClickOverlayTest)
#include "clickoverlay_test.moc"
