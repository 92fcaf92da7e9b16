// Window images, bounds and the pointer, from CoreGraphics up to MacWindowCapture.
#include "macbench.h"
#include "macwindowcapture.h"
#include "testregistry.h"

#include <QRect>

#include <limits>
#include <thread>

using macsim::answers;
using macsim::WindowImage;
using macsim::WindowInfo;

namespace {

constexpr std::uint32_t windowId = 42;
const QString noImageLine = QStringLiteral("macOS CoreGraphics capture returned no image for window 42");
const QString emptyImagesLine = QStringLiteral(
    "Captured window has shown nothing but transparent images so far, although the permission is held (a newer macOS "
    "asks for it again from time to time, and gives none until it is answered). Told once; window: 42");

/// What each window shows now; windows have no image unless it is set.
void show(const WindowImage& image)
{
    answers().image = [image](std::uint32_t, int) { return std::optional<WindowImage>(image); };
}

}

Q_DECLARE_METATYPE(macsim::WindowImage)

class MacWindowTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void permissionIsHeld();
    void permissionIsGrantedOnRequest();
    void permissionIsRefused();

    void callsAreTheRightOnes();
    void pixelsComeOutStraight();
    void unchangedImageIsShared();
    void idIsCutTo32Bits();
    void imageOfAnyThread();

    void noImage_data();
    void noImage();
    void oneWarningOnly();
    void placeholderIsNoImage_data();
    void placeholderIsNoImage();
    void imageThatOnlyLooksLikeAPlaceholder_data();
    void imageThatOnlyLooksLikeAPlaceholder();
    void emptyImagesOfAHeldPermissionAreWarnedOf();
    void visiblePixelIsFoundAnywhere();
    void imageComesBack();
    void unusableImageLeavesTheWarningForLater();

    void boundsAreRounded();
    void boundsThatCannotBeTold_data();
    void boundsThatCannotBeTold();
    void boundsAreNotAskedForInVain();

    void pointer();

private:
    std::optional<MacBench> bench_;
};

void MacWindowTest::init()
{
    bench_.emplace();
}

void MacWindowTest::cleanup()
{
    MAC_IS_CLEAN();
    bench_.reset();
}

// ---- permission -------------------------------------------------------------------------------------------------

void MacWindowTest::permissionIsHeld()
{
    const MacWindowCapture capture(QStringLiteral("42"));
    QCOMPARE(macsim::record().preflights, 1);
    QCOMPARE(macsim::record().requests, 0);
    QVERIFY(bench_->log.contains(QStringLiteral("macOS screen recording preflight before request true")));
    QVERIFY(bench_->log.contains(QStringLiteral("macOS CoreGraphics capture configured for window 42")));
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList());
}

void MacWindowTest::permissionIsGrantedOnRequest()
{
    answers().preflight = {false, false};
    show(macsim::solidImage(2, 2, 0xff000000));
    const MacWindowCapture capture(QStringLiteral("42"));
    QCOMPARE(macsim::record().preflights, 2);
    QCOMPARE(macsim::record().requests, 1);
    QVERIFY(bench_->log.contains(
        QStringLiteral("macOS screen recording request result true preflight after request false")));
    QVERIFY(!capture.capture(nullptr).isNull());
}

void MacWindowTest::permissionIsRefused()
{
    answers().preflight = {false, true};
    answers().request = false;
    show(macsim::solidImage(2, 2, 0xff000000));
    const MacWindowCapture capture(QStringLiteral("42"));
    QCOMPARE(bench_->log.messages(QtWarningMsg),
        QStringList({QStringLiteral("macOS screen recording permission is not currently granted; requesting access."),
            QStringLiteral(
                "macOS screen recording permission was not granted; window capture will not produce frames.")}));
    QVERIFY(bench_->log.contains(
        QStringLiteral("macOS screen recording request result false preflight after request true")));
    QVERIFY(capture.capture(nullptr).isNull());
    QVERIFY(macsim::record().images.empty());
}

// ---- images -----------------------------------------------------------------------------------------------------

void MacWindowTest::callsAreTheRightOnes()
{
    show(macsim::solidImage(5, 3, 0xff204060));
    const MacWindowCapture capture(QStringLiteral("42"));
    QRect bounds;
    const QImage image = capture.capture(&bounds);
    QCOMPARE(image.size(), QSize(5, 3));

    const macsim::Record record = macsim::record();
    QCOMPARE(record.images.size(), 1U);
    QVERIFY(record.images[0].boundsAreNull);
    QCOMPARE(record.images[0].listOption, 8U);
    QCOMPARE(record.images[0].windowId, windowId);
    QCOMPARE(record.images[0].imageOption, 1U);
    QCOMPARE(record.contexts.size(), 1U);
    QCOMPARE(record.contexts[0].width, 5U);
    QCOMPARE(record.contexts[0].height, 3U);
    QCOMPARE(record.contexts[0].bitsPerComponent, 8U);
    QCOMPARE(record.contexts[0].bytesPerRow, 20U);
    QCOMPARE(record.contexts[0].bitmapInfo, 8194U);
    QCOMPARE(record.drawings.size(), 1U);
    QVERIFY((record.drawings[0] == macsim::Rect{0, 0, 5, 3}));
    QCOMPARE(record.infos.size(), 1U);
    QCOMPARE(record.infos[0].option, 8U);
    QCOMPARE(record.infos[0].windowId, windowId);
}

void MacWindowTest::pixelsComeOutStraight()
{
    show({3, 2, {0xff112233, 0x00000000, 0x330a1428, 0xffffffff, 0xff0000ff, 0x40400000}, std::nullopt});
    const std::vector<QRgb> straight{0xff112233, 0x00000000, 0x333264c8, 0xffffffff, 0xff0000ff, 0x40ff0000};
    const MacWindowCapture capture(QStringLiteral("42"));
    const QImage image = capture.capture(nullptr);
    QCOMPARE(image.format(), QImage::Format_ARGB32);
    QCOMPARE(image.size(), QSize(3, 2));
    for (int y = 0; y < 2; ++y) {
        for (int x = 0; x < 3; ++x)
            QCOMPARE(image.pixel(x, y), straight[std::size_t(y) * 3 + std::size_t(x)]);
    }
}

void MacWindowTest::unchangedImageIsShared()
{
    auto colour = std::make_shared<std::uint32_t>(0xff101010);
    answers().image
        = [colour](std::uint32_t, int) { return std::optional<WindowImage>(macsim::solidImage(4, 4, *colour)); };
    const MacWindowCapture capture(QStringLiteral("42"));
    const QImage first = capture.capture(nullptr);
    const QImage second = capture.capture(nullptr);
    *colour = 0xff101011;
    const QImage third = capture.capture(nullptr);
    QCOMPARE(second.cacheKey(), first.cacheKey());
    QVERIFY(third.cacheKey() != first.cacheKey());
    QCOMPARE(first.pixel(1, 1), 0xff101010U);
    QCOMPARE(third.pixel(1, 1), 0xff101011U);
    QCOMPARE(macsim::record().drawings.size(), 3U);
}

void MacWindowTest::idIsCutTo32Bits()
{
    show(macsim::solidImage(2, 2, 0xff000000));
    const MacWindowCapture capture(QStringLiteral("4294967338"));
    QVERIFY(!capture.capture(nullptr).isNull());
    QCOMPARE(macsim::record().images.at(0).windowId, windowId);
}

void MacWindowTest::imageOfAnyThread()
{
    show(macsim::solidImage(2, 2, 0xff0000ff));
    const MacWindowCapture capture(QStringLiteral("42"));
    QImage image;
    QRect bounds;
    std::optional<QPointF> pointer;
    std::thread thread([&] {
        const CapturedWindow captured = capture.captureWindow();
        image = captured.image;
        bounds = captured.bounds;
        pointer = captured.pointer;
    });
    thread.join();
    QCOMPARE(image.pixel(0, 0), 0xff0000ffU);
    QCOMPARE(bounds, QRect(10, 20, 40, 30));
    QVERIFY(pointer);
}

void MacWindowTest::noImage_data()
{
    QTest::addColumn<QString>("why");
    for (const char* why : {"null", "no function", "zero width", "zero height", "width beyond int",
             "height beyond int", "too large", "no colour space", "no context"})
        QTest::newRow(why) << QString::fromLatin1(why);
}

void MacWindowTest::noImage()
{
    QFETCH(const QString, why);
    constexpr auto beyondInt = std::size_t(std::numeric_limits<int>::max()) + 1;
    constexpr auto large = std::size_t(std::numeric_limits<int>::max());
    WindowImage image = macsim::solidImage(4, 4, 0xff000000);
    const QMap<QString, std::pair<std::size_t, std::size_t>> sizes{{"zero width", {0, 4}}, {"zero height", {4, 0}},
        {"width beyond int", {beyondInt, 4}}, {"height beyond int", {4, beyondInt}}, {"too large", {large, large}}};
    if (sizes.contains(why))
        image.claimedSize = sizes[why];
    if (why != QLatin1String("null"))
        show(image);
    answers().noImageFunction = why == QLatin1String("no function");
    answers().noColorSpace = why == QLatin1String("no colour space");
    answers().noBitmapContext = why == QLatin1String("no context");

    const MacWindowCapture capture(QStringLiteral("42"));
    QRect bounds(1, 2, 3, 4);
    QVERIFY(capture.capture(&bounds).isNull());
    QCOMPARE(bounds, QRect(1, 2, 3, 4));
    QVERIFY(macsim::record().infos.empty());
    QVERIFY(macsim::record().drawings.empty());
    QCOMPARE(macsim::record().images.size(), why == QLatin1String("no function") ? 0U : 1U);
    // Only an image that the system does not give is warned of, not one that cannot be used.
    const bool notGiven = why == QLatin1String("null") || why == QLatin1String("no function");
    QCOMPARE(bench_->log.messages(QtWarningMsg), notGiven ? QStringList(noImageLine) : QStringList());
}

void MacWindowTest::oneWarningOnly()
{
    const MacWindowCapture capture(QStringLiteral("42"));
    for (int i = 0; i < 4; ++i)
        QVERIFY(capture.capture(nullptr).isNull());
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList(noImageLine));
    QCOMPARE(macsim::record().images.size(), 4U);
}

void MacWindowTest::placeholderIsNoImage_data()
{
    QTest::addColumn<WindowImage>("shown");
    QTest::addColumn<int>("info");
    const WindowImage transparent = macsim::solidImage(40, 30, 0);
    QTest::newRow("empty, closed") << transparent << int(WindowInfo::EmptyArray);
    QTest::newRow("empty, no list") << transparent << int(WindowInfo::NoArray);
    QTest::newRow("empty, nothing in the list") << transparent << int(WindowInfo::NullElement);
    QTest::newRow("empty, not on the screen") << transparent << int(WindowInfo::NotOnScreen);
    QTest::newRow("empty, not said to be on the screen") << transparent << int(WindowInfo::OnScreenIsNotTold);
    QTest::newRow("one pixel, larger window") << macsim::solidImage(1, 1, 0xff000000) << int(WindowInfo::Whole);
    QTest::newRow("one pixel, minimised") << macsim::solidImage(1, 1, 0xff000000) << int(WindowInfo::NotOnScreen);
    QTest::newRow("one empty pixel, closed") << macsim::solidImage(1, 1, 0) << int(WindowInfo::EmptyArray);
}

/// One warning as for every image that the system does not give; with and without a question for the bounds.
void MacWindowTest::placeholderIsNoImage()
{
    QFETCH(const WindowImage, shown);
    QFETCH(const int, info);
    show(shown);
    answers().windowInfo = WindowInfo(info);
    const MacWindowCapture capture(QStringLiteral("42"));
    QRect bounds(1, 2, 3, 4);
    QVERIFY(capture.capture(&bounds).isNull());
    QCOMPARE(bounds, QRect(1, 2, 3, 4));
    QVERIFY(capture.capture(nullptr).isNull());
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList(noImageLine));
    QCOMPARE(macsim::record().infos.size(), 2U);
    answers().windowInfo = WindowInfo::Whole;
    show(macsim::solidImage(40, 30, 0xff335577));
    QCOMPARE(capture.capture(nullptr).pixel(1, 1), 0xff335577U);
}

void MacWindowTest::imageThatOnlyLooksLikeAPlaceholder_data()
{
    QTest::addColumn<WindowImage>("shown");
    QTest::addColumn<int>("info");
    const WindowImage old = macsim::solidImage(40, 30, 0xff335577);
    QTest::newRow("transparent, on the screen") << macsim::solidImage(40, 30, 0) << int(WindowInfo::Whole);
    QTest::newRow("old image, closed") << old << int(WindowInfo::EmptyArray);
    QTest::newRow("old image, not on the screen") << old << int(WindowInfo::NotOnScreen);
    QTest::newRow("one pixel, bounds not told") << macsim::solidImage(1, 1, 0xff000000) << int(WindowInfo::NoBounds);
    QTest::newRow("one pixel, no list") << macsim::solidImage(1, 1, 0xff000000) << int(WindowInfo::NoArray);
}

void MacWindowTest::imageThatOnlyLooksLikeAPlaceholder()
{
    QFETCH(const WindowImage, shown);
    QFETCH(const int, info);
    show(shown);
    answers().windowInfo = WindowInfo(info);
    const MacWindowCapture capture(QStringLiteral("42"));
    QRect bounds;
    QCOMPARE(capture.capture(&bounds).size(), QSize(int(shown.width), int(shown.height)));
    QVERIFY(!capture.capture(nullptr).isNull());
    QVERIFY(bounds.isValid());
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList());
}

/// A system that wants to be asked for the permission again says that it is held, and may give empty images.
void MacWindowTest::emptyImagesOfAHeldPermissionAreWarnedOf()
{
    show(macsim::solidImage(40, 30, 0));
    const MacWindowCapture capture(QStringLiteral("42"));
    for (int i = 0; i < 71; ++i)
        QVERIFY(!capture.capture(nullptr).isNull());
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList());
    for (int i = 0; i < 200; ++i)
        QVERIFY(!capture.capture(nullptr).isNull());
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList(emptyImagesLine));
}

void MacWindowTest::visiblePixelIsFoundAnywhere()
{
    answers().windowInfo = WindowInfo::NotOnScreen;
    WindowImage image = macsim::solidImage(7, 5, 0);
    for (const std::size_t place : {0U, 6U, 28U, 34U}) {
        image.pixels.assign(image.pixels.size(), 0);
        image.pixels[place] = 0x01000000;
        show(image);
        const MacWindowCapture capture(QStringLiteral("42"));
        QVERIFY(!capture.capture(nullptr).isNull());
    }
}

void MacWindowTest::imageComesBack()
{
    answers().image = [](std::uint32_t, int index) {
        return index == 1 ? std::nullopt : std::optional<WindowImage>(macsim::solidImage(2, 2, 0xff335577));
    };
    const MacWindowCapture capture(QStringLiteral("42"));
    QVERIFY(!capture.capture(nullptr).isNull());
    QVERIFY(capture.capture(nullptr).isNull());
    const QImage image = capture.capture(nullptr);
    QCOMPARE(image.pixel(1, 1), 0xff335577U);
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList(noImageLine));
}

void MacWindowTest::unusableImageLeavesTheWarningForLater()
{
    WindowImage empty = macsim::solidImage(4, 4, 0xff000000);
    empty.claimedSize = {0, 4};
    answers().image
        = [empty](std::uint32_t, int index) { return index < 2 ? std::optional<WindowImage>(empty) : std::nullopt; };
    const MacWindowCapture capture(QStringLiteral("42"));
    for (int i = 0; i < 2; ++i)
        QVERIFY(capture.capture(nullptr).isNull());
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList());
    for (int i = 0; i < 2; ++i)
        QVERIFY(capture.capture(nullptr).isNull());
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList(noImageLine));
}

// ---- bounds and pointer -----------------------------------------------------------------------------------------

void MacWindowTest::boundsAreRounded()
{
    answers().bounds = {-0.5, 0.5, 99.5, 80.4};
    show(macsim::solidImage(2, 2, 0xff000000));
    const MacWindowCapture capture(QStringLiteral("42"));
    QRect bounds;
    QVERIFY(!capture.capture(&bounds).isNull());
    QCOMPARE(bounds, QRect(-1, 1, 100, 80));
}

void MacWindowTest::boundsThatCannotBeTold_data()
{
    QTest::addColumn<int>("info");
    QTest::newRow("no array") << int(WindowInfo::NoArray);
    QTest::newRow("empty array") << int(WindowInfo::EmptyArray);
    QTest::newRow("null element") << int(WindowInfo::NullElement);
    QTest::newRow("no bounds") << int(WindowInfo::NoBounds);
    QTest::newRow("malformed bounds") << int(WindowInfo::MalformedBounds);
    QTest::newRow("empty bounds") << int(WindowInfo::Whole);
}

void MacWindowTest::boundsThatCannotBeTold()
{
    QFETCH(const int, info);
    answers().windowInfo = WindowInfo(info);
    answers().bounds = {5, 5, 0, 30};
    show(macsim::solidImage(7, 9, 0xff000000));
    const MacWindowCapture capture(QStringLiteral("42"));
    QRect bounds;
    QVERIFY(!capture.capture(&bounds).isNull());
    QCOMPARE(bounds, QRect(0, 0, 7, 9));
    QCOMPARE(macsim::record().infos.size(), 1U);
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList());
}

void MacWindowTest::boundsAreNotAskedForInVain()
{
    show(macsim::solidImage(7, 9, 0xff000000));
    const MacWindowCapture capture(QStringLiteral("42"));
    QVERIFY(!capture.capture(nullptr).isNull());
    QVERIFY(macsim::record().infos.empty());
}

void MacWindowTest::pointer()
{
    show(macsim::solidImage(2, 2, 0xff0000ff));
    answers().pointer = macsim::Point{-17.25, 33.5};
    const MacWindowCapture capture(QStringLiteral("42"));
    QCOMPARE(capture.captureWindow().pointer, std::optional<QPointF>(QPointF(-17.25, 33.5)));
    answers().pointer.reset();
    QVERIFY(!capture.captureWindow().pointer);
}

ORVANTIS_TEST(MacWindowTest)
#include "macwindow_test.moc"
