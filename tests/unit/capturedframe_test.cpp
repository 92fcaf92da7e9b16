// One sample of the window, as the recording loop gets it.
#include "privatetempdir.h"
#include "recorderbench.h"
#include "testregistry.h"

#include <QDateTime>

class CapturedFrameTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();
    void withoutACaptureTheFrameIsTheDefault();
    void withoutAnImageTheFrameIsTheDefault();
    void fieldsOfASample();
    void translucentImageIsMarkedSo();
    void pointerThatIsNotToldIsMarkedSo();
    void boundsThatAreNotToldAreTheImage();
    void unchangedWindowSharesItsPixels();

private:
    RecorderProbe probe() { return RecorderProbe(*recorder_); }
    void openCapture() { probe().windowCapture() = new MacWindowCapture(QStringLiteral("42")); }

    PrivateTempDir directory_;
    std::optional<RecorderBench> bench_;
    std::unique_ptr<GstRecorder> recorder_;
};

void CapturedFrameTest::init()
{
    bench_.emplace();
    recorder_ = bench_->makeIdleRecorder();
}

void CapturedFrameTest::cleanup()
{
    recorder_.reset();
    QCOMPARE(fakeplatform::openWindows().load(), 0);
    bench_.reset();
}

void CapturedFrameTest::withoutACaptureTheFrameIsTheDefault()
{
    fakeplatform::state().pointer = [] { return QPointF(5, 6); };
    QCOMPARE(probe().windowCapture(), nullptr);
    const RecorderProbe::CapturedFrame frame = probe().captureWindowFrame();
    QVERIFY(frame.image.isNull());
    QCOMPARE(frame.windowBounds, QRect());
    QVERIFY(!frame.windowBounds.isValid());
    QCOMPARE(frame.capturedAtMs, 0);
    QCOMPARE(frame.cursorX, 0.0);
    QCOMPARE(frame.cursorY, 0.0);
    QVERIFY(!frame.hasCursor);
    QVERIFY(!frame.opaque);
}

void CapturedFrameTest::withoutAnImageTheFrameIsTheDefault()
{
    fakeplatform::state().bounds = [] { return QRectF(1, 2, 3, 4); };
    fakeplatform::state().pointer = [] { return QPointF(5, 6); };
    openCapture();
    const RecorderProbe::CapturedFrame frame = probe().captureWindowFrame();
    QVERIFY(frame.image.isNull());
    QCOMPARE(frame.windowBounds, QRect());
    QCOMPARE(frame.capturedAtMs, 0);
    QCOMPARE(frame.cursorX, 0.0);
    QCOMPARE(frame.cursorY, 0.0);
    QVERIFY(!frame.hasCursor);
}

void CapturedFrameTest::fieldsOfASample()
{
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(8, 6, qRgb(1, 2, 3)); };
    fakeplatform::state().bounds = [] { return QRectF(-4.5, 10, 4, 3); };
    fakeplatform::state().pointer = [] { return QPointF(-2.25, 11.5); };
    openCapture();
    const qint64 beforeMs = QDateTime::currentMSecsSinceEpoch();
    const RecorderProbe::CapturedFrame frame = probe().captureWindowFrame();
    const qint64 afterMs = QDateTime::currentMSecsSinceEpoch();
    QCOMPARE(frame.image.format(), QImage::Format_ARGB32);
    QCOMPARE(frame.image.size(), QSize(8, 6));
    QCOMPARE(frame.image.pixel(0, 0), qRgba(1, 2, 3, 255));
    QVERIFY(frame.opaque);
    QCOMPARE(frame.windowBounds, QRect(-5, 10, 4, 3));
    QVERIFY(beforeMs <= frame.capturedAtMs && frame.capturedAtMs <= afterMs);
    QVERIFY(frame.hasCursor);
    QCOMPARE(frame.cursorX, -2.25);
    QCOMPARE(frame.cursorY, 11.5);
}

void CapturedFrameTest::translucentImageIsMarkedSo()
{
    QImage translucent(4, 4, QImage::Format_ARGB32_Premultiplied);
    translucent.fill(Qt::transparent);
    fakeplatform::state().image = [translucent](int) { return translucent; };
    openCapture();
    const RecorderProbe::CapturedFrame frame = probe().captureWindowFrame();
    QVERIFY(!frame.image.isNull());
    QVERIFY(!frame.opaque);
}

void CapturedFrameTest::pointerThatIsNotToldIsMarkedSo()
{
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(8, 6, qRgb(1, 2, 3)); };
    openCapture();
    const RecorderProbe::CapturedFrame frame = probe().captureWindowFrame();
    QVERIFY(!frame.image.isNull());
    QVERIFY(!frame.hasCursor);
    QCOMPARE(frame.cursorX, 0.0);
    QCOMPARE(frame.cursorY, 0.0);
}

void CapturedFrameTest::boundsThatAreNotToldAreTheImage()
{
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(8, 6, qRgb(1, 2, 3)); };
    openCapture();
    QCOMPARE(probe().captureWindowFrame().windowBounds, QRect(0, 0, 8, 6));
}

void CapturedFrameTest::unchangedWindowSharesItsPixels()
{
    const QImage still = fakeplatform::solidImage(8, 6, qRgb(1, 2, 3));
    fakeplatform::state().image = [still](int) { return still; };
    openCapture();
    const RecorderProbe::CapturedFrame first = probe().captureWindowFrame();
    const RecorderProbe::CapturedFrame second = probe().captureWindowFrame();
    QCOMPARE(first.image.constBits(), still.constBits());
    QCOMPARE(second.image.constBits(), still.constBits());
}

ORVANTIS_TEST(CapturedFrameTest)
#include "capturedframe_test.moc"
