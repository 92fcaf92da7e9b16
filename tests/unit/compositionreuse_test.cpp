// What composition saves: an image that would look the same is not painted again, memory is used again, and what is
// known to be opaque is copied. None of it may show in the result.
#include "recorderbench.h"
#include "testregistry.h"

#include <QPainter>
#include <QRandomGenerator>

namespace {

const QSize canvas(192, 108);

/// Every pixel another one; with an alpha channel, another alpha, too.
QImage speckled(const QSize& size, bool opaque, quint32 seed = 1)
{
    QRandomGenerator random(seed);
    QImage image(size, QImage::Format_ARGB32);
    for (int y = 0; y < size.height(); ++y) {
        auto* line = reinterpret_cast<quint32*>(image.scanLine(y));
        for (int x = 0; x < size.width(); ++x)
            line[x] = random.generate() | (opaque ? 0xff000000u : 0u);
    }
    return image;
}

RecorderProbe::CapturedFrame frameOf(const QImage& image)
{
    RecorderProbe::CapturedFrame frame;
    frame.image = image;
    frame.windowBounds = image.rect();
    frame.cursorX = 30;
    frame.cursorY = 20;
    frame.hasCursor = true;
    frame.imageVersion = 1;
    return frame;
}

/// The window's image on the canvas, painted in the format that images have.
QImage paintedPlainly(const QImage& image, const QSize& size)
{
    QImage target(size, QImage::Format_ARGB32);
    target.fill(Qt::black);
    QPainter painter(&target);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);
    painter.drawImage(FrameGeometry(image.size(), image.rect(), size).target(), image, QRectF(image.rect()));
    return target;
}

}

class CompositionReuseTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void pixelsAreThoseOfPlainPainting_data();
    void pixelsAreThoseOfPlainPainting();
    void pointerAndMarkersLookTheSameOnAnOpaqueWindow_data();
    void pointerAndMarkersLookTheSameOnAnOpaqueWindow();

    void unchangedFrameGivesTheSameImage();
    void anyChangeGivesAnotherImage_data();
    void anyChangeGivesAnotherImage();
    void markersArePaintedOnEveryFrame();
    void clickOfALaterFrameChangesNothing();
    void otherCanvasIsAnotherImage();
    void imageOfAnotherKindIsPaintedAsTheFirst();

    void largerWindowWaitsAsTheCanvas();
    void largerWindowOfAnotherShapeIsPaintedWhole();
    void nextFrameOfALargerWindowMakesUpForALostOne();
    void smallerWindowWaitsAsItIs();

    void windowThatIsTheCanvasIsNotCopied();
    void memoryIsUsedAgain();
    void imageThatSomebodyKeepsIsLeftAlone();

private:
    QImage compose(const RecorderProbe::CapturedFrame& frame, long long timestampMs = 0)
    {
        return probe_->composeFrame(frame, timestampMs);
    }
    /// By a recorder that has composed nothing before.
    QImage composeAnew(const RecorderProbe::CapturedFrame& frame);

    std::optional<RecorderBench> bench_;
    std::unique_ptr<GstRecorder> recorder_;
    std::optional<RecorderProbe> probe_;
};

void CompositionReuseTest::init()
{
    bench_.emplace();
    recorder_ = bench_->makeIdleRecorder();
    probe_.emplace(*recorder_);
    probe_->canvasWidth() = canvas.width();
    probe_->canvasHeight() = canvas.height();
}

void CompositionReuseTest::cleanup()
{
    probe_.reset();
    recorder_.reset();
    bench_.reset();
}

QImage CompositionReuseTest::composeAnew(const RecorderProbe::CapturedFrame& frame)
{
    const auto other = bench_->makeIdleRecorder();
    RecorderProbe probe(*other);
    probe.canvasWidth() = canvas.width();
    probe.canvasHeight() = canvas.height();
    return probe.composeFrame(frame, 0);
}

// ---- pixels
// ---------------------------------------------------------------------------------------------------------

void CompositionReuseTest::pixelsAreThoseOfPlainPainting_data()
{
    QTest::addColumn<QSize>("window");
    QTest::addColumn<bool>("opaque");
    QTest::addColumn<bool>("known");
    const std::pair<const char*, QSize> windows[]
        = {{"same size", canvas}, {"bars", QSize(150, 108)}, {"enlarged", QSize(64, 50)}, {"shrunk", QSize(500, 300)},
            {"shrunk to a sixth", QSize(1152, 648)}, {"one pixel", QSize(1, 1)}, {"odd", QSize(97, 55)}};
    for (const auto& [name, size] : windows) {
        QTest::addRow("%s, opaque", name) << size << true << true;
        QTest::addRow("%s, opaque, but nobody knows", name) << size << true << false;
        QTest::addRow("%s, translucent", name) << size << false << false;
    }
}

void CompositionReuseTest::pixelsAreThoseOfPlainPainting()
{
    QFETCH(const QSize, window);
    QFETCH(const bool, opaque);
    QFETCH(const bool, known);
    RecorderProbe::CapturedFrame frame = frameOf(speckled(window, opaque));
    frame.hasCursor = false;
    frame.opaque = known;
    const QImage composed = compose(frame);
    QCOMPARE(composed.format(), QImage::Format_ARGB32);
    QCOMPARE(composed, paintedPlainly(frame.image, canvas)); // alpha included
}

void CompositionReuseTest::pointerAndMarkersLookTheSameOnAnOpaqueWindow_data()
{
    QTest::addColumn<QSize>("window");
    QTest::newRow("same size") << canvas;
    QTest::newRow("bars") << QSize(150, 108);
    QTest::newRow("shrunk") << QSize(300, 200);
}

void CompositionReuseTest::pointerAndMarkersLookTheSameOnAnOpaqueWindow()
{
    QFETCH(const QSize, window);
    RecorderProbe::CapturedFrame frame = frameOf(speckled(window, true));
    for (int i = 0; i < 5; ++i)
        probe_->clicks().insert(i * 350, {20.0 + 25.0 * i, 50.5, 0.0, 0.0, false});
    const QImage blended = compose(frame, 1500).copy();
    frame.opaque = true;
    frame.imageVersion = 0; // unknown: nothing is used again
    QCOMPARE(compose(frame, 1500), blended); // alpha included
    frame.hasCursor = false;
    QVERIFY(compose(frame, 1500) != blended);
}

// ---- images that would look the same
// ------------------------------------------------------------------------------

void CompositionReuseTest::unchangedFrameGivesTheSameImage()
{
    const RecorderProbe::CapturedFrame frame = frameOf(speckled(canvas, true));
    const QImage first = compose(frame);
    RecorderProbe::CapturedFrame later = frame;
    later.capturedAtMs = 4711;
    const QImage second = compose(later, 41);
    QCOMPARE(second.cacheKey(), first.cacheKey());
    QCOMPARE(second, composeAnew(later));
}

void CompositionReuseTest::anyChangeGivesAnotherImage_data()
{
    QTest::addColumn<RecorderProbe::CapturedFrame>("changed");
    const RecorderProbe::CapturedFrame frame = frameOf(speckled(canvas, true));
    const auto row = [&frame](const char* name, auto change) {
        RecorderProbe::CapturedFrame changed = frame;
        change(changed);
        QTest::newRow(name) << changed;
    };
    row("image", [](auto& changed) {
        changed.image = speckled(canvas, true, 2);
        changed.imageVersion = 2;
        changed.changedRows = RowSet(0, canvas.height());
    });
    row("image after one that was left out", [](auto& changed) {
        changed.image = speckled(canvas, true, 2);
        changed.imageVersion = 3;
    });
    row("image of another recorder", [](auto& changed) {
        changed.image = speckled(canvas, true, 2);
        changed.imageVersion = 0;
    });
    row("one pixel of the image", [](auto& changed) {
        changed.image.setPixel(190, 100, 0xff123456);
        changed.imageVersion = 2;
        changed.changedRows = RowSet(100, 101);
    });
    row("window moved", [](auto& changed) { changed.windowBounds.translate(-7, 0); });
    row("window in other points", [](auto& changed) { changed.windowBounds.setWidth(96); });
    row("pointer right", [](auto& changed) { changed.cursorX += 0.5; });
    row("pointer down", [](auto& changed) { changed.cursorY += 0.5; });
    row("no pointer", [](auto& changed) { changed.hasCursor = false; });
}

void CompositionReuseTest::anyChangeGivesAnotherImage()
{
    QFETCH(const RecorderProbe::CapturedFrame, changed);
    const QImage before = compose(frameOf(speckled(canvas, true)));
    const QImage after = compose(changed);
    QVERIFY(after != before);
    QCOMPARE(after, composeAnew(changed));
}

void CompositionReuseTest::markersArePaintedOnEveryFrame()
{
    const RecorderProbe::CapturedFrame frame = frameOf(speckled(canvas, true));
    const QImage plain = compose(frame, 0).copy();
    recorder_->addClick(100, 50, -1.0, -1.0, 0); // the recording has not begun: it belongs to time 0
    const QImage fresh = compose(frame, 0).copy();
    QVERIFY(fresh != plain);
    const QImage aged = compose(frame, 1000).copy();
    QVERIFY(aged != fresh);
    QVERIFY(aged != plain);
    QVERIFY(compose(frame, 2000) != plain);
    QCOMPARE(compose(frame, 2001), plain);
}

void CompositionReuseTest::clickOfALaterFrameChangesNothing()
{
    const RecorderProbe::CapturedFrame frame = frameOf(speckled(canvas, true));
    const QImage first = compose(frame, 0);
    probe_->clicks().insert(500, {100, 50, 0.0, 0.0, false});
    QCOMPARE(compose(frame, 499).cacheKey(), first.cacheKey());
    QVERIFY(compose(frame, 500) != first);
}

void CompositionReuseTest::otherCanvasIsAnotherImage()
{
    const RecorderProbe::CapturedFrame frame = frameOf(speckled(canvas, true));
    compose(frame);
    probe_->canvasWidth() += 2;
    QCOMPARE(compose(frame).size(), canvas + QSize(2, 0));
}

/// A copied image and a scaled one are painted in different ways, on the same canvas.
void CompositionReuseTest::imageOfAnotherKindIsPaintedAsTheFirst()
{
    RecorderProbe::CapturedFrame copied = frameOf(speckled(canvas, true));
    copied.opaque = true;
    RecorderProbe::CapturedFrame scaled = frameOf(speckled(QSize(100, 55), true, 2));
    scaled.opaque = true;
    for (int i = 0; i < 2; ++i) {
        compose(copied);
        QCOMPARE(compose(scaled), composeAnew(scaled));
    }
}

// ---- windows that are larger than the canvas
// ---------------------------------------------------------------------------------------------------------

void CompositionReuseTest::largerWindowWaitsAsTheCanvas()
{
    const QSize size(1000, 560);
    RecorderProbe::CapturedFrame frame = frameOf(speckled(size, true));
    for (int i = 0; i < 3; ++i) {
        RecorderProbe::CapturedFrame waiting = frame;
        probe_->letterbox(waiting);
        QCOMPARE(waiting.image.size(), canvas);
        QCOMPARE(waiting.letterboxedFrom, size);
        QVERIFY(waiting.opaque);
        QCOMPARE(compose(waiting), composeAnew(frame));
        if (i > 0) // what did not change is the same memory
            QVERIFY2(waiting.ownBytes <= 64 * 1024, qPrintable(QString::number(waiting.ownBytes)));
        frame.image.setPixel(500, 300 + i, 0xff000000);
        frame.image.setPixel(501, 300 + i, 0xffffffff);
        ++frame.imageVersion;
        frame.changedRows = RowSet(300 + i, 301 + i);
    }
}

/// Where the first one was, the second one has bars.
void CompositionReuseTest::largerWindowOfAnotherShapeIsPaintedWhole()
{
    RecorderProbe::CapturedFrame frame = frameOf(speckled(QSize(1000, 560), true));
    RecorderProbe::CapturedFrame first = frame;
    probe_->letterbox(first);
    frame.image = speckled(QSize(1000, 200), true, 2);
    ++frame.imageVersion;
    frame.changedRows = RowSet(0, 200);
    RecorderProbe::CapturedFrame second = frame;
    probe_->letterbox(second);
    QCOMPARE(compose(second), composeAnew(frame));
}

/// Frames of one image follow each other, and any of them may be the first that is composed.
void CompositionReuseTest::nextFrameOfALargerWindowMakesUpForALostOne()
{
    RecorderProbe::CapturedFrame frame = frameOf(speckled(QSize(1000, 560), true));
    RecorderProbe::CapturedFrame before = frame;
    probe_->letterbox(before);
    compose(before);
    for (int y = 200; y < 300; ++y)
        memset(frame.image.scanLine(y), 0xff, size_t(frame.image.bytesPerLine()));
    ++frame.imageVersion;
    frame.changedRows = RowSet(200, 300);
    RecorderProbe::CapturedFrame lost = frame;
    probe_->letterbox(lost);
    QVERIFY(!lost.changedRows.isEmpty());
    RecorderProbe::CapturedFrame next = frame;
    probe_->letterbox(next);
    QCOMPARE(next.image.cacheKey(), lost.image.cacheKey());
    QCOMPARE(next.changedRows, lost.changedRows);
    QCOMPARE(next.ownBytes, lost.ownBytes);
    QCOMPARE(compose(next), composeAnew(frame));
}

void CompositionReuseTest::smallerWindowWaitsAsItIs()
{
    for (const QSize size : {canvas, QSize(97, 55), QSize(20, 700)}) {
        RecorderProbe::CapturedFrame frame = frameOf(speckled(size, true));
        const qint64 key = frame.image.cacheKey();
        probe_->letterbox(frame);
        QCOMPARE(frame.image.cacheKey(), key);
        QVERIFY(!frame.letterboxedFrom);
    }
}

// ---- memory
// ---------------------------------------------------------------------------------------------------------

/// Neither before something is painted on it nor afterwards; and what is painted is not painted into it.
void CompositionReuseTest::windowThatIsTheCanvasIsNotCopied()
{
    RecorderProbe::CapturedFrame frame = frameOf(speckled(canvas, true));
    const QImage asItWas = frame.image.copy();
    frame.opaque = true;
    for (const bool hasPointer : {false, true, false}) {
        frame.hasCursor = hasPointer;
        const QImage composed = compose(frame);
        QCOMPARE(composed.constBits() == frame.image.constBits(), !hasPointer);
        QCOMPARE(composed == asItWas, !hasPointer);
        QCOMPARE(frame.image, asItWas);
    }
    frame.hasCursor = false;
    const QImage composed = compose(frame);
    frame = {}; // the composed image keeps the memory
    QCOMPARE(composed, asItWas);
}

void CompositionReuseTest::memoryIsUsedAgain()
{
    RecorderProbe::CapturedFrame frame = frameOf(speckled(canvas, true));
    const uchar* memory = compose(frame).constBits();
    for (int i = 0; i < 3; ++i) {
        frame.image = speckled(canvas, true, quint32(i) + 2);
        frame.imageVersion += i + 1; // the next one is painted in part, the others whole
        frame.changedRows = RowSet(0, canvas.height());
        const QImage image = compose(frame);
        QCOMPARE(image.constBits(), memory);
        QCOMPARE(image, composeAnew(frame));
    }
}

void CompositionReuseTest::imageThatSomebodyKeepsIsLeftAlone()
{
    const QImage kept = compose(frameOf(speckled(canvas, true)));
    const QImage asItWas = kept.copy();
    RecorderProbe::CapturedFrame changed = frameOf(speckled(canvas, true, 2));
    changed.imageVersion = 2;
    changed.changedRows = RowSet(0, canvas.height());
    const QImage next = compose(changed);
    QVERIFY(next.constBits() != kept.constBits());
    QCOMPARE(kept, asItWas);
}

ORVANTIS_TEST(CompositionReuseTest)
#include "compositionreuse_test.moc"
