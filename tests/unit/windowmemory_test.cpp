// A window's image whose conversion finds no memory.
#include "fakeplatform.h"
#include "logcapture.h"
#include "macwindowcapture.h"
#include "memorylimit.h"
#include "testregistry.h"

#include <QTest>

class WindowMemoryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fakeplatform::reset(); }

    void conversionThatFailedIsTriedAgain();
    void conversionThatFailedIsToldOfOnce();
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

/// Here Qt finds no memory for straight alpha.
void WindowMemoryTest::conversionThatFailedIsToldOfOnce()
{
    QImage translucent(4096, 4096, QImage::Format_ARGB32_Premultiplied); // 64 MiB
    translucent.fill(qRgba(10, 20, 30, 100));
    fakeplatform::state().image = [&](int) { return translucent; };
    const LogCapture log;
    const MacWindowCapture capture(QStringLiteral("42"));
    {
        const MemoryLimit limit(rlim_t(8) << 20);
        QVERIFY(capture.capture(nullptr).isNull());
        QVERIFY(capture.capture(nullptr).isNull());
    }
    const auto line = QStringLiteral("No memory for the image of a window; the frame is left out. Told once.");
    QCOMPARE(log.messages(QtWarningMsg).count(line), 1); // beside Qt's own
    QCOMPARE(capture.capture(nullptr), translucent.convertToFormat(QImage::Format_ARGB32));
}

ORVANTIS_TEST(WindowMemoryTest)
#include "windowmemory_test.moc"
