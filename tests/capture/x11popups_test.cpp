// What pops out of a window is in its images: menus, lists and tool tips are windows of their own.
#include "foreignclient.h"
#include "logcapture.h"
#include "memorylimit.h"
#include "testregistry.h"
#include "x11fixture.h"

#include <QTest>

#include <algorithm>
#include <memory>

using WindowSource = SampledWindow;

namespace {

constexpr quint32 blue = 0xff204060; // the window, at 100, 80, of 320x240 pixels
constexpr quint32 red = 0xffff0000;
constexpr quint32 green = 0xff00ff00;
constexpr quint32 secret = 0xffabcdef;

bool shows(const QImage& image, quint32 pixel)
{
    for (int y = 0; y < image.height(); ++y) {
        const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
        if (std::find(line, line + image.width(), pixel) != line + image.width())
            return true;
    }
    return false;
}

/// The window of one colour, but for one part.
bool isWindowWith(const QImage& image, const QRect& part, quint32 pixel)
{
    if (!image.rect().contains(part))
        return false;
    QImage rest = image.copy();
    for (int y = part.top(); y <= part.bottom(); ++y)
        std::fill_n(reinterpret_cast<quint32*>(rest.scanLine(y)) + part.left(), part.width(), blue);
    return isFilled(image, part, pixel) && isFilled(rest, blue);
}

}

class X11PopupsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void notWithoutBeingAskedFor();
    void appearsMovesAndDisappears();
    void paintedAnew();
    void stacking();
    void belowTheWindow();
    void outsideIsCutOff();
    void whereTheWindowIs();
    void windowInAFrame();
    void otherProgram();
    void otherProgramThatLies();
    void otherProgramOverThePopup();
    void sameProcessOtherConnection();
    void managedWindow();
    void managedMenu();
    void framedMenu();
    void translucent();
    void translucentWindow();
    void shaped();
    void unpainted();
    void unpaintedOverAnotherProgram();
    void unpaintedOverAnotherProgramThatIsGone();
    void mappedAgainUnpainted();
    void toldRowsAreAllThatDiffer();
    void stillPopupGivesTheSameImage();
    void connectionsEnded();
    void withoutMemoryTheWindowIsAlone();
    void withoutMemoryForPopupsTheWindowIsAlone();

private:
    bool popUp(const QByteArray& name, const QByteArray& geometryDepthAndPixel);

    std::unique_ptr<DisplayForTest> display_;
    std::unique_ptr<WindowProcess> window_;
};

void X11PopupsTest::initTestCase()
{
    display_ = std::make_unique<DisplayForTest>();
    QVERIFY2(display_->server.isRunning(), qPrintable(display_->server.errorString()));
}

void X11PopupsTest::init()
{
    qputenv("ORVANTIS_POPUPS", "1");
    window_ = std::make_unique<WindowProcess>();
    QVERIFY2(window_->id(), qPrintable(window_->errorString()));
}

void X11PopupsTest::cleanup()
{
    window_.reset();
    qunsetenv("ORVANTIS_POPUPS");
}

bool X11PopupsTest::popUp(const QByteArray& name, const QByteArray& geometryDepthAndPixel)
{
    return window_->send("popup " + name + ' ' + geometryDepthAndPixel) && window_->send("on " + name + " map");
}

void X11PopupsTest::notWithoutBeingAskedFor()
{
    for (const char* value : {"", "0", "yes"}) {
        qputenv("ORVANTIS_POPUPS", value);
        WindowSource source(window_->id());
        QVERIFY(popUp("menu", "150 100 100 50 24 ff0000"));
        QVERIFY(isFilled(source.image(), blue));
        QVERIFY(window_->send("on menu destroy"));
    }
}

void X11PopupsTest::appearsMovesAndDisappears()
{
    WindowSource source(window_->id());
    const QImage before = source.image();
    QVERIFY(isFilled(before, blue));
    QVERIFY(popUp("menu", "150 100 100 50 24 ff0000"));
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
    QVERIFY(window_->send("on menu move 180 200"));
    QVERIFY(isWindowWith(source.image(), QRect(80, 120, 100, 50), red));
    QVERIFY(window_->send("on menu resize 60 40"));
    QVERIFY(isWindowWith(source.image(), QRect(80, 120, 60, 40), red));
    QVERIFY(window_->send("on menu unmap"));
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window_->send("on menu map"));
    QVERIFY(isWindowWith(source.image(), QRect(80, 120, 60, 40), red));
    QVERIFY(window_->send("on menu destroy"));
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(isFilled(before, blue)); // an image stays as it is
}

void X11PopupsTest::paintedAnew()
{
    WindowSource source(window_->id());
    QVERIFY(popUp("menu", "150 100 100 50 24 ff0000"));
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
    QVERIFY(window_->send("on menu fill ff00 0 10 100 10")); // the highlighted entry
    QImage image = source.image();
    QVERIFY(isFilled(image, QRect(50, 30, 100, 10), green));
    QVERIFY(isFilled(image, QRect(50, 20, 100, 10), red));
    QVERIFY(window_->send("fill ff00 0 0 320 240")); // behind the menu
    image = source.image();
    QVERIFY(isFilled(image, QRect(50, 40, 100, 30), red));
    QVERIFY(isFilled(image, QRect(0, 70, 320, 170), green));
    QVERIFY(window_->send("on menu unmap"));
    QVERIFY(isFilled(source.image(), green));
}

void X11PopupsTest::stacking()
{
    WindowSource source(window_->id());
    QVERIFY(popUp("menu", "150 100 100 50 24 ff0000"));
    QVERIFY(popUp("submenu", "200 120 100 50 24 00ff00"));
    QImage image = source.image();
    QVERIFY(isFilled(image, QRect(100, 40, 100, 50), green));
    QVERIFY(isFilled(image, QRect(50, 20, 50, 50), red));
    QVERIFY(window_->send("on menu raise"));
    image = source.image();
    QVERIFY(isFilled(image, QRect(50, 20, 100, 50), red));
    QVERIFY(isFilled(image, QRect(150, 40, 50, 50), green));
}

void X11PopupsTest::belowTheWindow()
{
    WindowSource source(window_->id());
    QVERIFY(popUp("menu", "150 100 100 50 24 ff0000"));
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
    QVERIFY(window_->send("raise"));
    QVERIFY(isFilled(source.image(), blue));
}

void X11PopupsTest::outsideIsCutOff()
{
    WindowSource source(window_->id());
    QVERIFY(popUp("menu", "50 60 100 50 24 ff0000"));
    QVERIFY(popUp("tip", "400 300 100 50 24 00ff00"));
    QVERIFY(popUp("elsewhere", "600 500 100 50 24 00ff00"));
    const QImage image = source.image();
    QCOMPARE(image.size(), QSize(320, 240));
    QCOMPARE(source.bounds(), std::optional(QRectF(100, 80, 320, 240)));
    QVERIFY(isFilled(image, QRect(0, 0, 50, 30), red));
    QVERIFY(isFilled(image, QRect(300, 220, 20, 20), green));
    QVERIFY(isFilled(image, QRect(0, 30, 300, 210), blue));
    QVERIFY(isFilled(image, QRect(50, 0, 270, 30), blue));
}

/// Border and client's shadow are no part of the image; the window moves and changes its size.
void X11PopupsTest::whereTheWindowIs()
{
    WindowSource source(window_->id());
    QVERIFY(window_->send("border 3") && window_->send("extents 10 10 20 10"));
    QVERIFY(popUp("menu", "150 130 100 50 24 ff0000")); // the image begins at 113, 103
    QVERIFY(isWindowWith(source.image(), QRect(37, 27, 100, 50), red));
    QVERIFY(window_->send("move 110 85"));
    QVERIFY(isWindowWith(source.image(), QRect(27, 22, 100, 50), red));
    QVERIFY(window_->send("resize 200 150"));
    const QImage image = source.image();
    QCOMPARE(image.size(), QSize(180, 120));
    QVERIFY(isWindowWith(image, QRect(27, 22, 100, 50), red));
}

void X11PopupsTest::windowInAFrame()
{
    WindowSource source(window_->id());
    QVERIFY(window_->send("frame 200 300"));
    QVERIFY(popUp("menu", "255 370 100 50 24 ff0000"));
    QVERIFY(isWindowWith(source.image(), QRect(50, 50, 100, 50), red));
}

void X11PopupsTest::otherProgram()
{
    WindowSource source(window_->id());
    WindowProcess other({.geometry = QRect(150, 100, 100, 50), .pixel = secret, .overrideRedirect = true});
    QVERIFY(isFilled(source.image(), blue));
    WindowProcess cover({.geometry = QRect(0, 0, 1024, 768), .pixel = secret, .overrideRedirect = true});
    QVERIFY(isFilled(source.image(), blue));
}

void X11PopupsTest::otherProgramThatLies()
{
    WindowSource source(window_->id());
    WindowProcess other(
        {.geometry = QRect(150, 100, 100, 50), .pixel = secret, .overrideRedirect = true, .mapped = false});
    QVERIFY(other.send("transient " + QByteArray::number(window_->id())));
    QVERIFY(other.send("pid " + QByteArray::number(window_->pid())));
    QVERIFY(other.send("type _NET_WM_WINDOW_TYPE_POPUP_MENU"));
    QVERIFY(other.send("map"));
    QVERIFY(isFilled(source.image(), blue));
}

/// The popup has its own pixels, whatever covers it: when it is seen for the first time, and later.
void X11PopupsTest::otherProgramOverThePopup()
{
    WindowSource source(window_->id());
    QVERIFY(popUp("menu", "150 100 100 50 24 ff0000"));
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
    const WindowProcess cover({.geometry = QRect(0, 0, 1024, 768), .pixel = secret, .overrideRedirect = true});
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
    WindowSource later(window_->id());
    QVERIFY(!shows(later.image(), secret));
    QTRY_VERIFY(isWindowWith(later.image(), QRect(50, 20, 100, 50), red));
}

void X11PopupsTest::sameProcessOtherConnection()
{
    const ForeignClient one;
    const ForeignClient two; // of this process, too
    const auto makeWindow = [](const ForeignClient& client, const QRect& at, quint32 pixel) {
        const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(client.xcb())).data;
        const xcb_window_t window = xcb_generate_id(client.xcb());
        const quint32 values[] = {pixel, 1};
        xcb_create_window(client.xcb(), XCB_COPY_FROM_PARENT, window, screen->root, int16_t(at.x()), int16_t(at.y()),
            uint16_t(at.width()), uint16_t(at.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
            XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT, values);
        xcb_map_window(client.xcb(), window);
        const x11::Allocated<xcb_get_input_focus_reply_t> done(
            xcb_get_input_focus_reply(client.xcb(), xcb_get_input_focus(client.xcb()), nullptr));
        return window;
    };
    const xcb_window_t window = makeWindow(one, QRect(600, 400, 320, 240), 0x204060);
    WindowSource source(window);
    QVERIFY(isFilled(source.image(), blue));
    makeWindow(two, QRect(650, 420, 100, 50), 0xff0000);
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
}

/// Another document of the same program.
void X11PopupsTest::managedWindow()
{
    WindowSource source(window_->id());
    QVERIFY(window_->send("popup other 150 100 100 50 24 ff0000") && window_->send("on other managed"));
    QVERIFY(window_->send("on other map"));
    QVERIFY(isFilled(source.image(), blue));
}

void X11PopupsTest::managedMenu()
{
    WindowSource source(window_->id());
    QVERIFY(window_->send("popup other 150 100 100 50 24 ff0000") && window_->send("on other managed"));
    QVERIFY(window_->send("on other type _NET_WM_WINDOW_TYPE_MENU"));
    QVERIFY(window_->send("on other map"));
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
}

/// As window managers frame a menu that was torn off; the frame is another program's.
void X11PopupsTest::framedMenu()
{
    WindowSource source(window_->id());
    QVERIFY(window_->send("popup menu 0 0 100 50 24 ff0000") && window_->send("on menu managed"));
    QVERIFY(window_->send("on menu type _NET_WM_WINDOW_TYPE_MENU"));
    WindowProcess manager({.geometry = QRect(150, 100, 110, 75), .pixel = secret, .overrideRedirect = true});
    QVERIFY(window_->send("on menu into " + QByteArray::number(manager.id()) + " 5 20"));
    QVERIFY(window_->send("on menu map"));
    QVERIFY(isWindowWith(source.image(), QRect(55, 40, 100, 50), red));
}

void X11PopupsTest::translucent()
{
    WindowSource source(window_->id());
    QVERIFY(popUp("menu", "150 100 100 50 32 80800000")); // half of red, premultiplied
    const QImage image = source.image();
    QCOMPARE(image.format(), QImage::Format_RGB32);
    // What remains of the window is 127/255 of it.
    QVERIFY(isWindowWith(image, QRect(50, 20, 100, 50), 0xff902030));
    QVERIFY(window_->send("on menu background 0"));
    QVERIFY(isFilled(source.image(), blue));
}

void X11PopupsTest::translucentWindow()
{
    const WindowProcess window({.geometry = QRect(500, 400, 320, 240), .depth = 32, .pixel = 0x40100000});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), 0x40100000));
    window_ = std::make_unique<WindowProcess>(
        WindowStart{.geometry = QRect(100, 80, 320, 240), .depth = 32, .pixel = 0x40100000});
    WindowSource own(window_->id());
    QVERIFY(popUp("menu", "150 100 100 50 24 ff0000"));
    const QImage image = own.image();
    QCOMPARE(image.format(), QImage::Format_ARGB32_Premultiplied);
    QVERIFY(isFilled(image, QRect(50, 20, 100, 50), red));
    QVERIFY(isFilled(image, QRect(0, 70, 320, 170), 0x40100000));
}

void X11PopupsTest::shaped()
{
    WindowSource source(window_->id());
    QVERIFY(popUp("tip", "150 100 100 50 24 ff0000"));
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
    QVERIFY(window_->send("on tip shape 10 5 80 40"));
    QVERIFY(isWindowWith(source.image(), QRect(60, 25, 80, 40), red));
}

/// Over its own window it has the pixels of that, which are no secret.
void X11PopupsTest::unpainted()
{
    WindowSource source(window_->id());
    QVERIFY(window_->send("popup menu 150 100 100 50 24 0") && window_->send("on menu nobackground"));
    QVERIFY(window_->send("on menu map"));
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window_->send("on menu fill ff0000 0 0 100 50"));
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
}

void X11PopupsTest::unpaintedOverAnotherProgram()
{
    WindowSource source(window_->id());
    const WindowProcess other({.geometry = QRect(150, 90, 50, 300), .pixel = secret, .overrideRedirect = true});
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window_->send("popup menu 150 100 100 50 24 0") && window_->send("on menu nobackground"));
    QVERIFY(window_->send("on menu map"));
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window_->send("on menu fill ff0000 0 0 100 50"));
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
}

void X11PopupsTest::unpaintedOverAnotherProgramThatIsGone()
{
    WindowSource source(window_->id());
    WindowProcess other({.geometry = QRect(150, 90, 50, 300), .pixel = secret, .overrideRedirect = true});
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window_->send("popup menu 150 100 100 50 24 0") && window_->send("on menu nobackground"));
    QVERIFY(window_->send("on menu map") && other.send("unmap"));
    QVERIFY(isFilled(source.image(), blue));
}

void X11PopupsTest::mappedAgainUnpainted()
{
    WindowSource source(window_->id());
    QVERIFY(popUp("menu", "150 100 100 50 24 ff0000"));
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
    QVERIFY(window_->send("on menu nobackground"));
    const WindowProcess other({.geometry = QRect(150, 90, 50, 300), .pixel = secret, .overrideRedirect = true});
    QVERIFY(window_->send("on menu unmap") && window_->send("on menu raise") && window_->send("on menu map"));
    QVERIFY(!shows(source.image(), secret));
    QVERIFY(window_->send("on menu fill ff00 0 0 100 50"));
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), green));
}

/// A recording paints only these rows.
void X11PopupsTest::toldRowsAreAllThatDiffer()
{
    WindowSource source(window_->id());
    QImage known = source.image();
    const QByteArrayList steps{"popup menu 150 100 100 50 24 ff0000", "on menu map", "on menu move 170 140",
        "fill ff00 0 0 320 30", "on menu fill ff 10 10 20 20", "popup tip 180 150 200 30 32 80008000", "on tip map",
        "on menu fill ff00ff 0 0 100 50", "on tip raise", "on menu raise", "fill ffff 0 90 320 30",
        "on tip shape 0 0 50 10", "on menu unmap", "fill ff8080 0 100 200 10", "on tip destroy", "on menu map",
        "move 110 90", "on menu destroy", "fill 0 0 0 10 10"};
    int stepsSeen = 0;
    for (const QByteArray& step : steps) {
        QVERIFY2(window_->send(step), qPrintable(window_->errorString()));
        const platform::WindowSample sample = source.sample();
        QCOMPARE(sample.image.size(), known.size());
        int differing = 0;
        for (int y = 0; y < known.height(); ++y) {
            const bool equal = std::equal(sample.image.constScanLine(y),
                sample.image.constScanLine(y) + known.width() * 4, known.constScanLine(y));
            QVERIFY2(equal || sample.changedRows.contains(y), step + " row " + QByteArray::number(y));
            differing += !equal;
        }
        QVERIFY2(sample.changedRows.count() <= 120, step); // never simply all of them
        QCOMPARE(sample.changedRows.isEmpty(), sample.image.cacheKey() == known.cacheKey());
        stepsSeen += differing > 0;
        known = sample.image;
    }
    QCOMPARE(stepsSeen, 16); // but for windows that are not mapped yet, and a part that is covered
    WindowSource fresh(window_->id());
    QCOMPARE(fresh.image(), known);
}

void X11PopupsTest::stillPopupGivesTheSameImage()
{
    WindowSource source(window_->id());
    QVERIFY(popUp("menu", "150 100 100 50 24 ff0000"));
    const QImage image = source.image();
    QVERIFY(isWindowWith(image, QRect(50, 20, 100, 50), red));
    const platform::WindowSample next = source.sample();
    QCOMPARE(next.image.cacheKey(), image.cacheKey());
    QVERIFY(next.changedRows.isEmpty());
    QCOMPARE(next.ownBytes, 0);
}

void X11PopupsTest::connectionsEnded()
{
    WindowSource source(window_->id());
    QVERIFY(popUp("menu", "150 100 100 50 24 ff0000"));
    QVERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
    ForeignClient foreign;
    foreign.endConnections(window_->id());
    QTRY_VERIFY(isWindowWith(source.image(), QRect(50, 20, 100, 50), red));
    QVERIFY(window_->send("on menu unmap"));
    QVERIFY(isFilled(source.image(), blue));
}

void X11PopupsTest::withoutMemoryTheWindowIsAlone()
{
    window_ = std::make_unique<WindowProcess>(WindowStart{.geometry = QRect(0, 0, 3000, 3000)}); // 34 MiB
    QVERIFY2(window_->id(), qPrintable(window_->errorString()));
    WindowSource source(window_->id());
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(popUp("menu", "150 100 100 50 24 ff0000"));
    const LogCapture log;
    {
        const MemoryLimit limit(rlim_t(8) << 20);
        for (int i = 0; i < 2; ++i)
            QVERIFY(isFilled(source.image(), blue));
    }
    const auto line = QStringLiteral("No memory for what pops out of a window; it is left out. Told once.");
    QCOMPARE(log.messages(QtWarningMsg).count(line), 1); // beside Qt's own
    QVERIFY(isWindowWith(source.image(), QRect(150, 100, 100, 50), red));
}

/// Pixels that are not taken as they are: the image of a popup itself finds no memory. One popup after the other.
void X11PopupsTest::withoutMemoryForPopupsTheWindowIsAlone()
{
    DisplayForTest display(QSize(640, 480), 16);
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    window_ = std::make_unique<WindowProcess>(WindowStart{.depth = 16, .pixel = 0xf800});
    QVERIFY2(window_->id(), qPrintable(window_->errorString()));
    WindowSource source(window_->id());
    QVERIFY(isFilled(source.image(), red));
    const LogCapture log;
    for (const char* name : {"menu", "list"}) {
        QVERIFY(popUp(name, "150 100 3000 3000 16 7e0")); // 34 MiB in 32 bits a pixel
        const MemoryLimit limit(rlim_t(8) << 20);
        QVERIFY(isFilled(source.image(), red));
    }
    const auto ofPopups = QStringLiteral("No memory for what pops out of a window; it is left out. Told once.");
    QCOMPARE(log.messages(QtWarningMsg).count(ofPopups), 1); // beside Qt's own
    const auto ofFrames = QStringLiteral("No memory for the image of a window; the frame is left out. Told once.");
    QVERIFY(!log.contains(ofFrames));
    QVERIFY(shows(source.image(), green));
    window_.reset();
    qputenv("DISPLAY", display_->server.display());
}

ORVANTIS_TEST(X11PopupsTest)
#include "x11popups_test.moc"
