// A window's image whose conversion finds no memory.
#include "fakeplatform.h"
#include "macwindowcapture.h"
#include "memorylimit.h"
#include "testregistry.h"

#include <QTest>

#include <sys/mman.h>

class WindowMemoryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fakeplatform::reset(); }

    void conversionThatFailedIsTriedAgain();
};

/// The window stays as it is, so its image has the same key all the time.
void WindowMemoryTest::conversionThatFailedIsTriedAgain()
{
    constexpr int side = 8192;
    constexpr std::size_t bytes = std::size_t(side) * side * 4;
    void* const pixels = ::mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    QVERIFY(pixels != MAP_FAILED); // transparent, and never written to
    {
        const QImage transparent(static_cast<const uchar*>(pixels), side, side, QImage::Format_ARGB32_Premultiplied);
        fakeplatform::state().image = [&](int) { return transparent; };
        const MacWindowCapture capture(QStringLiteral("42"));
        {
            const MemoryLimit limit(bytes / 2);
            QVERIFY(capture.capture(nullptr).isNull());
        }
        const QImage image = capture.capture(nullptr);
        QCOMPARE(image.size(), QSize(side, side));
        QCOMPARE(image.format(), QImage::Format_ARGB32);
        QCOMPARE(capture.capture(nullptr).cacheKey(), image.cacheKey());
        fakeplatform::state().image = nullptr;
    }
    ::munmap(pixels, bytes);
}

ORVANTIS_TEST(WindowMemoryTest)
#include "windowmemory_test.moc"
