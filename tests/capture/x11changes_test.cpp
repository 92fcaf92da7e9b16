// What costs a fetch of pixels and what does not: an image is read only when the window has changed.
#include "testregistry.h"
#include "x11fixture.h"

#include "linux/x11/x11windowimages.h"
#include "macwindowcapture.h"

#include <QTest>

#include <chrono>
#include <memory>

#include <xcb/shm.h>

using WindowSource = SampledWindow;

namespace {

constexpr quint32 blue = 0xff2040c0;
constexpr quint32 green = 0xff00ff00;

int fetches = 0;
int fetchedRows = 0;
bool spoiledRows = false; ///< what is fetched is an area farther up

/// An image that stays the same one as long as nothing happens. What was drawn just before the first image can still
/// be reported after it, and then costs one more.
template <typename Source>
QImage settledImage(Source& source)
{
    QImage image = source.image();
    for (int i = 0; i < 100; ++i) {
        const QImage next = source.image();
        if (next.cacheKey() == image.cacheKey())
            return next;
        image = next;
    }
    return QImage();
}

}

extern "C" decltype(xcb_shm_get_image) __real_xcb_shm_get_image;

extern "C" xcb_shm_get_image_cookie_t __wrap_xcb_shm_get_image(xcb_connection_t* connection, xcb_drawable_t drawable,
    int16_t x, int16_t y, uint16_t width, uint16_t height, uint32_t planes, uint8_t format, xcb_shm_seg_t segment,
    uint32_t offset)
{
    ++fetches;
    fetchedRows += height;
    const auto top = int16_t(spoiledRows ? y - 40 : y);
    return __real_xcb_shm_get_image(connection, drawable, x, top, width, height, planes, format, segment, offset);
}

class X11ChangesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void unchangedWindowSharesItsPixels();
    void unchangedWindowIsComparedNowAndThen();
    void changedWindowDoesNot();
    void everyChangeIsSeen();
    void onlyDamagedRowsAreRead();
    void changedRowsAreTold();
    void presentedAgainIsUnchanged();
    void reportThatIsMissingIsFoundWithinASecond();
    void coveredWindowIsWatched();
    void changeInAChildIsSeen();
    void changeInAGrandchildOfAlphaWindowIsSeen();
    void movedWindowIsFollowed();
    void coveringIsNoChange();
    void changedBorderKeepsThePixelsRight();
    void changedFrameExtentsAreReadAgain();
    void resizedThereAndBackIsReadAgain();
    void alphaSurvivesTheCapture();
    void unchangedCaptureSharesItsPixels();

private:
    std::unique_ptr<DisplayForTest> display_;
};

void X11ChangesTest::initTestCase()
{
    display_ = std::make_unique<DisplayForTest>();
    QVERIFY2(display_->server.isRunning(), qPrintable(display_->server.errorString()));
}

void X11ChangesTest::init()
{
    fetches = 0;
    fetchedRows = 0;
}

void X11ChangesTest::unchangedWindowSharesItsPixels()
{
    WindowProcess window({.pixel = blue});
    const auto noTime = [] { return std::chrono::steady_clock::time_point(); };
    Sampled<x11::WindowImages> source(window.id(), noTime);
    const QImage image = settledImage(source);
    QVERIFY(isFilled(image, blue));
    const int fetchesBefore = fetches;
    for (int i = 0; i < 50; ++i)
        QCOMPARE(source.image().cacheKey(), image.cacheKey());
    QCOMPARE(fetches, fetchesBefore);
    QCOMPARE(source.bounds(), QRectF(100, 80, 320, 240));
}

/// Reports of changes can fail, so a window that seems to stand still is read all the same; it stays the same image.
void X11ChangesTest::unchangedWindowIsComparedNowAndThen()
{
    for (const int depth : {24, 32}) {
        WindowProcess window({.depth = depth, .pixel = blue});
        std::chrono::steady_clock::time_point now;
        Sampled<x11::WindowImages> source(window.id(), [&now] { return now; });
        const QImage image = settledImage(source);
        for (int second = 1; second <= 3; ++second) {
            const int fetchesBefore = fetches;
            now += x11::WindowImages::checkInterval;
            for (int i = 0; i < 5; ++i)
                QCOMPARE(source.image().cacheKey(), image.cacheKey());
            QCOMPARE(fetches, fetchesBefore + 1);
        }
    }
}

void X11ChangesTest::changedWindowDoesNot()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    const QImage before = settledImage(source);
    QVERIFY(window.send("fill ff00ff00 319 239 1 1"));
    const QImage after = source.image();
    QVERIFY(after.cacheKey() != before.cacheKey());
    QCOMPARE(after.pixel(319, 239), green);
    QCOMPARE(before.pixel(319, 239), blue);
}

void X11ChangesTest::everyChangeIsSeen()
{
    WindowProcess window;
    WindowSource source(window.id());
    for (quint32 i = 0; i < 200; ++i) {
        QVERIFY(window.send("fill " + QByteArray::number(i, 16) + " 7 7 1 1"));
        QCOMPARE(source.image().pixel(7, 7), 0xff000000 | i);
    }
}

void X11ChangesTest::onlyDamagedRowsAreRead()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    settledImage(source);
    fetchedRows = 0;
    QVERIFY(window.send("fill ff00ff00 10 100 300 5"));
    QImage image = source.image();
    QCOMPARE(fetchedRows, 5);
    QVERIFY(isFilled(image, QRect(10, 100, 300, 5), green));
    QVERIFY(isFilled(image, QRect(0, 0, 320, 100), blue));
    QVERIFY(isFilled(image, QRect(0, 105, 320, 135), blue));
    fetchedRows = 0;
    QVERIFY(window.send("fill ff00ff00 0 20 1 1"));
    QVERIFY(window.send("fill ff00ff00 319 59 1 1"));
    image = source.image();
    QCOMPARE(fetchedRows, 40);
    QCOMPARE(image.pixel(0, 20), green);
    QCOMPARE(image.pixel(319, 59), green);
}

void X11ChangesTest::changedRowsAreTold()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QCOMPARE(source.sample().changedRows, RowSet(0, 240));
    settledImage(source);
    QVERIFY(window.send("fill ff00ff00 10 100 300 5"));
    QCOMPARE(source.sample().changedRows, RowSet(100, 105));
    QVERIFY(source.sample().changedRows.isEmpty());
    QVERIFY(window.send("resize 321 240"));
    QCOMPARE(source.sample().changedRows, RowSet(0, 240));
}

/// What the program reports as painted is a hint; the pixels are the truth.
void X11ChangesTest::presentedAgainIsUnchanged()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    const QImage before = settledImage(source);
    QVERIFY(isFilled(before, blue));
    for (int i = 0; i < 3; ++i) {
        const int fetchesBefore = fetches;
        QVERIFY(window.send("fill ff2040c0 0 0 320 240"));
        const platform::WindowSample& sample = source.sample();
        QCOMPARE(fetches, fetchesBefore + 1);
        QCOMPARE(sample.image.cacheKey(), before.cacheKey());
        QVERIFY(sample.changedRows.isEmpty());
        QCOMPARE(sample.ownBytes, 0);
    }
}

/// A row whose change was read too early, or whose report got lost, is read again with the whole window.
void X11ChangesTest::reportThatIsMissingIsFoundWithinASecond()
{
    WindowProcess window({.pixel = blue});
    std::chrono::steady_clock::time_point now;
    Sampled<x11::WindowImages> source(window.id(), [&now] { return now; });
    settledImage(source);
    spoiledRows = true;
    QVERIFY(window.send("fill ff00ff00 0 100 320 20"));
    source.image();
    spoiledRows = false;
    now += x11::WindowImages::checkInterval;
    QVERIFY(window.send("fill ffff0000 0 0 1 1")); // something else goes on
    fetchedRows = 0;
    const QImage repaired = source.image();
    QCOMPARE(fetchedRows, 240);
    QCOMPARE(repaired.pixel(0, 0), 0xffff0000);
    QVERIFY(isFilled(repaired, QRect(0, 100, 320, 20), green));
    QVERIFY(isFilled(repaired, QRect(0, 1, 320, 99), blue));
}

void X11ChangesTest::coveredWindowIsWatched()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(window.send("cover ff0000"));
    const QImage before = settledImage(source);
    QVERIFY(isFilled(before, blue));
    QVERIFY(window.send("fill ff00ff00 10 10 5 5"));
    QVERIFY(isFilled(source.image(), QRect(10, 10, 5, 5), green));
}

void X11ChangesTest::changeInAChildIsSeen()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(window.send("child ffffff 40 50 60 70"));
    const QImage before = settledImage(source);
    QVERIFY(window.send("fillchild ff00ff00 5 5 1 1"));
    const QImage after = source.image();
    QVERIFY(after.cacheKey() != before.cacheKey());
    QCOMPARE(after.pixel(45, 55), green);
}

void X11ChangesTest::changeInAGrandchildOfAlphaWindowIsSeen()
{
    WindowProcess window({.depth = 32, .pixel = 0x80000000});
    WindowSource source(window.id());
    QVERIFY(window.send("child ff102030 40 50 60 70"));
    const QImage before = settledImage(source);
    QVERIFY(isFilled(before, QRect(40, 50, 60, 70), 0xff102030));
    QVERIFY(window.send("fillchild 40004000 0 0 60 70"));
    QVERIFY(isFilled(source.image(), QRect(40, 50, 60, 70), 0x40004000));
}

/// A move costs one fetch: the server reports the whole window as damaged.
void X11ChangesTest::movedWindowIsFollowed()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    settledImage(source);
    for (const QPoint place : {QPoint(300, 200), QPoint(-50, -60), QPoint(1000, 700), QPoint(5000, 5000)}) {
        QVERIFY(window.send("move " + QByteArray::number(place.x()) + ' ' + QByteArray::number(place.y())));
        QVERIFY(isFilled(source.image(), blue));
        QCOMPARE(source.bounds(), QRectF(place, QSizeF(320, 240)));
        const QImage settled = settledImage(source);
        const int fetchesBefore = fetches;
        QCOMPARE(source.image().cacheKey(), settled.cacheKey());
        QCOMPARE(fetches, fetchesBefore);
    }
}

void X11ChangesTest::coveringIsNoChange()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    const QImage before = settledImage(source);
    QVERIFY(window.send("cover ff0000"));
    QCOMPARE(source.image().cacheKey(), before.cacheKey());
    QVERIFY(window.send("uncover"));
    QVERIFY(isFilled(source.image(), blue)); // uncovering may repaint, and so be a change
}

void X11ChangesTest::changedBorderKeepsThePixelsRight()
{
    WindowProcess window({.border = 1, .pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(settledImage(source), blue));
    for (const int border : {0, 30, 5}) {
        QVERIFY(window.send("border " + QByteArray::number(border)));
        QVERIFY(isFilled(source.image(), blue));
        QCOMPARE(source.bounds(), QRectF(100 + border, 80 + border, 320, 240));
    }
}

void X11ChangesTest::changedFrameExtentsAreReadAgain()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(window.send("fill ff00ff00 0 0 220 240"));
    QVERIFY(window.send("extents 100 0 0 0"));
    QVERIFY(!isFilled(settledImage(source), green));
    QVERIFY(window.send("extents 0 100 0 0")); // the same size, another part
    QVERIFY(isFilled(source.image(), green));
    QCOMPARE(source.bounds(), QRectF(100, 80, 220, 240));
}

void X11ChangesTest::resizedThereAndBackIsReadAgain()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(window.send("fill ff00ff00 0 0 320 240"));
    QVERIFY(isFilled(settledImage(source), green));
    QVERIFY(window.send("resize 321 240"));
    QVERIFY(window.send("resize 320 240")); // the background has come back with the other size
    QVERIFY(isFilled(source.image(), blue));
}

void X11ChangesTest::alphaSurvivesTheCapture()
{
    WindowProcess window({.depth = 32, .pixel = 0x330a1433});
    MacWindowCapture capture(QString::number(window.id()));
    QRect bounds;
    const QImage image = capture.capture(&bounds);
    QCOMPARE(image.format(), QImage::Format_ARGB32);
    QVERIFY2(isFilled(image, 0x333264ff), qPrintable(QString::number(image.pixel(0, 0), 16)));
    QCOMPARE(bounds, QRect(100, 80, 320, 240));
}

void X11ChangesTest::unchangedCaptureSharesItsPixels()
{
    for (const int depth : {24, 32}) {
        WindowProcess window({.depth = depth, .pixel = blue});
        MacWindowCapture capture(QString::number(window.id()));
        QTRY_VERIFY(capture.capture(nullptr).cacheKey() == capture.capture(nullptr).cacheKey());
        const QImage before = capture.capture(nullptr);
        QCOMPARE(before.format(), QImage::Format_ARGB32);
        QVERIFY(isFilled(before, blue));
        QVERIFY(window.send("background ff00ff00"));
        QVERIFY(isFilled(capture.capture(nullptr), green));
        QVERIFY(isFilled(before, blue));
    }
}

ORVANTIS_TEST(X11ChangesTest)
#include "x11changes_test.moc"
