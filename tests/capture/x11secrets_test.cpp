// Windows without a background, where the X server has the pixels of what was on the screen before.
#include "testregistry.h"
#include "x11fixture.h"

#include <QTest>

#include <algorithm>
#include <memory>

using WindowSource = SampledWindow;

namespace {

constexpr quint32 green = 0xff00ff00;
constexpr quint32 black = 0xff000000;
constexpr quint32 secret = 0xffabcdef;
const QByteArray paintAll = "fill ff00ff00 0 0 2000 2000";

/// Whether a single pixel of another window is in the image.
bool showsSecret(const QImage& image)
{
    for (int y = 0; y < image.height(); ++y) {
        const auto* line = reinterpret_cast<const quint32*>(image.constScanLine(y));
        if (std::find(line, line + image.width(), secret) != line + image.width())
            return true;
    }
    return false;
}

}

class X11SecretsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void enlargedWindow_data();
    void enlargedWindow();
    void enlargedBeforeItsFirstPainting();
    void movedBeforeItsPainting();
    void mappedWindow();
    void mappedAgain();
    void parentMappedAgain();
    void coveredWhenTheRecordingStarts();
    void coveredLater();
    void paintedPartIsShown();
    void translucentWindow();
    void resizedBackAndForth();
    void windowThatNeverPaintsIsShownLater();

private:
    std::unique_ptr<WindowProcess> makeWindow(bool mapped = true, int depth = 24);

    std::unique_ptr<DisplayForTest> display_;
    std::unique_ptr<WindowProcess> foreign_; // all over the screen
};

void X11SecretsTest::initTestCase()
{
    display_ = std::make_unique<DisplayForTest>();
    QVERIFY2(display_->server.isRunning(), qPrintable(display_->server.errorString()));
}

void X11SecretsTest::init()
{
    foreign_ = std::make_unique<WindowProcess>(
        WindowStart{.geometry = QRect(0, 0, 1024, 768), .pixel = secret, .overrideRedirect = true});
    QVERIFY2(foreign_->id(), qPrintable(foreign_->errorString()));
}

std::unique_ptr<WindowProcess> X11SecretsTest::makeWindow(bool mapped, int depth)
{
    auto window = std::make_unique<WindowProcess>(
        WindowStart{.depth = depth, .pixel = green, .overrideRedirect = true, .mapped = false});
    if (!window->send("nobackground") || (mapped && !(window->send("map") && window->send(paintAll))))
        return nullptr;
    return window;
}

void X11SecretsTest::enlargedWindow_data()
{
    QTest::addColumn<QByteArray>("preparation");
    QTest::addColumn<bool>("keepsPixels");
    QTest::newRow("forgets its pixels") << QByteArray("nobackground") << false;
    QTest::newRow("keeps its pixels") << QByteArray("keeppixels") << true;
}

void X11SecretsTest::enlargedWindow()
{
    QFETCH(QByteArray, preparation);
    QFETCH(bool, keepsPixels);
    const auto window = makeWindow();
    QVERIFY(window && window->send(preparation));
    WindowSource source(window->id());
    QVERIFY(isFilled(source.image(), green));
    QVERIFY(window->send("resize 400 300"));
    const QImage image = source.image();
    QCOMPARE(image.size(), QSize(400, 300));
    QVERIFY(isFilled(image, QRect(0, 0, 320, 240), keepsPixels ? green : black));
    QVERIFY(isFilled(image, QRect(320, 0, 80, 300), black));
    QVERIFY(isFilled(image, QRect(0, 240, 400, 60), black));
    QVERIFY(window->send(paintAll)); // once is enough
    QVERIFY(isFilled(source.image(), green));
    QVERIFY(window->send("resize 500 350"));
    QVERIFY(window->send(paintAll)); // before anybody has looked
    QVERIFY(isFilled(source.image(), green));
    QVERIFY(window->send("resize 200 150"));
    QVERIFY(window->send(paintAll));
    QVERIFY(isFilled(source.image(), green));
}

/// What the server keeps is then what it had copied from the screen.
void X11SecretsTest::enlargedBeforeItsFirstPainting()
{
    const auto window = makeWindow(false);
    QVERIFY(window && window->send("keeppixels"));
    WindowSource source(window->id());
    QVERIFY(window->send("map"));
    QVERIFY(window->send("resize 400 300"));
    QVERIFY(isFilled(source.image(), black));
    QVERIFY(window->send(paintAll));
    QVERIFY(isFilled(source.image(), green));
}

void X11SecretsTest::movedBeforeItsPainting()
{
    const auto window = makeWindow();
    QVERIFY(window);
    WindowSource source(window->id());
    QVERIFY(window->send("resize 400 300"));
    QVERIFY(window->send("move 130 140"));
    QVERIFY(!showsSecret(source.image()));
    QVERIFY(window->send(paintAll));
    QVERIFY(isFilled(source.image(), green));
}

void X11SecretsTest::mappedWindow()
{
    const auto window = makeWindow(false);
    QVERIFY(window);
    WindowSource source(window->id());
    QVERIFY(window->send("map"));
    QVERIFY(isFilled(source.image(), black));
    QVERIFY(window->send(paintAll));
    QVERIFY(isFilled(source.image(), green));
}

void X11SecretsTest::mappedAgain()
{
    const auto window = makeWindow();
    QVERIFY(window);
    WindowSource source(window->id());
    QVERIFY(isFilled(source.image(), green));
    QVERIFY(window->send("unmap"));
    QVERIFY(window->send("map"));
    QVERIFY(isFilled(source.image(), black));
    QVERIFY(window->send(paintAll));
    QVERIFY(isFilled(source.image(), green));
}

void X11SecretsTest::parentMappedAgain()
{
    const auto window = makeWindow();
    QVERIFY(window && window->send("frame 200 300") && window->send(paintAll));
    WindowSource source(window->id());
    QVERIFY(isFilled(source.image(), green));
    QVERIFY(window->send("unmapframe"));
    QVERIFY(window->send("mapframe"));
    QVERIFY(isFilled(source.image(), black));
    QVERIFY(window->send(paintAll));
    QVERIFY(isFilled(source.image(), green));
}

/// Its pixels are new there, the others stay.
void X11SecretsTest::coveredWhenTheRecordingStarts()
{
    const auto window = makeWindow();
    QVERIFY(window);
    WindowProcess cover({.geometry = QRect(150, 100, 100, 50), .pixel = secret, .overrideRedirect = true});
    WindowSource source(window->id());
    const QImage image = source.image();
    QVERIFY(isFilled(image, QRect(50, 20, 100, 50), black));
    QVERIFY(isFilled(image, QRect(0, 0, 320, 20), green));
    QVERIFY(isFilled(image, QRect(0, 70, 320, 170), green));
    QVERIFY(window->send(paintAll));
    QVERIFY(isFilled(source.image(), green));
}

void X11SecretsTest::coveredLater()
{
    const auto window = makeWindow();
    QVERIFY(window);
    WindowSource source(window->id());
    QVERIFY(window->send("cover abcdef"));
    QVERIFY(isFilled(source.image(), green));
    QVERIFY(window->send("uncover"));
    QVERIFY(isFilled(source.image(), green));
}

void X11SecretsTest::paintedPartIsShown()
{
    const auto window = makeWindow(false);
    QVERIFY(window && window->send("extents 10 10 10 10"));
    WindowSource source(window->id());
    QVERIFY(window->send("map"));
    QVERIFY(window->send("fill ff00ff00 20 30 40 50"));
    const QImage image = source.image();
    QCOMPARE(image.size(), QSize(300, 220));
    QVERIFY(isFilled(image, QRect(10, 20, 40, 50), green));
    QVERIFY(isFilled(image, QRect(0, 0, 300, 20), black));
    QVERIFY(isFilled(image, QRect(0, 20, 10, 200), black));
    QVERIFY(isFilled(image, QRect(50, 20, 250, 200), black));
}

void X11SecretsTest::translucentWindow()
{
    const auto window = makeWindow(false, 32);
    QVERIFY(window);
    WindowSource source(window->id());
    QVERIFY(window->send("map"));
    QVERIFY(isFilled(source.image(), 0));
    QVERIFY(window->send("fill 80004000 0 0 2000 2000"));
    QVERIFY(isFilled(source.image(), 0x80004000));
}

void X11SecretsTest::resizedBackAndForth()
{
    const auto window = makeWindow();
    QVERIFY(window);
    WindowSource source(window->id());
    for (int i = 0; i < 20; ++i) {
        QVERIFY(window->send("resize " + QByteArray::number(300 + 20 * (i % 3)) + " 300"));
        QVERIFY(!showsSecret(source.image()));
        QVERIFY(window->send(paintAll));
        QVERIFY(isFilled(source.image(), green));
    }
}

void X11SecretsTest::windowThatNeverPaintsIsShownLater()
{
    const auto window = makeWindow(false);
    QVERIFY(window);
    WindowSource source(window->id());
    QVERIFY(window->send("map"));
    QVERIFY(isFilled(source.image(), black));
    QTRY_VERIFY(showsSecret(source.image()));
}

ORVANTIS_TEST(X11SecretsTest)
#include "x11secrets_test.moc"
