// A window's image whose conversion finds no memory.
#include "fakeplatform.h"
#include "macwindowcapture.h"
#include "testregistry.h"

#include <QTest>

class WindowMemoryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fakeplatform::reset(); }

    void conversionThatFailedIsTriedAgain();
};

/// The window stays as it is, and its source says so.
void WindowMemoryTest::conversionThatFailedIsTriedAgain()
{
    QImage translucent(64, 64, QImage::Format_ARGB32_Premultiplied);
    translucent.fill(qRgba(10, 20, 30, 100));
    fakeplatform::state().image = [&](int) { return translucent; };
    const MacWindowCapture capture(QStringLiteral("42"));
    fakeplatform::state().memoryCallsLeft = 0;
    QVERIFY(capture.capture(nullptr).isNull());
    fakeplatform::state().memoryCallsLeft.reset();
    const CapturedWindow captured = capture.captureWindow();
    QCOMPARE(captured.image, translucent.convertToFormat(QImage::Format_ARGB32));
    QCOMPARE(captured.changedRows, RowSet(0, 64));
    QCOMPARE(capture.capture(nullptr).cacheKey(), captured.image.cacheKey());
}

ORVANTIS_TEST(WindowMemoryTest)
#include "windowmemory_test.moc"
