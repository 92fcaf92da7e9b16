// Windows that real compositors hand out, against a window that every pixel of is known.
#include "childprocess.h"
#include "logcapture.h"
#include "nodeimages.h"
#include "sampledwindow.h"
#include "testregistry.h"
#include "waylanddesktop.h"
#include "waylandpointer.h"
#include "waylandwindow.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QScopeGuard>
#include <QTest>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>

namespace {

constexpr int limitMs = 60'000; // against hanging
using Kind = WaylandDesktop::Kind;

/// As waylandwindow draws it.
QRgb expectedPixel(const QSize& size, int x, int y)
{
    const bool isLeft = x < size.width() / 2;
    if (y < size.height() / 2)
        return isLeft ? 0xffff0000 : 0xff00ff00;
    return isLeft ? 0xff0000ff : 0xffffff00;
}

/// The number of the frame; nothing when a pixel is not as it was drawn.
std::optional<quint32> numberIn(const QImage& image)
{
    const QImage pixels = image.convertToFormat(QImage::Format_RGB32);
    const QRgb number = pixels.pixel(0, 0);
    for (int y = 0; y < pixels.height(); ++y) {
        const auto* row = reinterpret_cast<const QRgb*>(pixels.constScanLine(y));
        for (int x = 0; x < pixels.width(); ++x) {
            const QRgb expected = y < waylandWindowNumberRows ? number : expectedPixel(pixels.size(), x, y);
            if (row[x] != expected)
                return std::nullopt;
        }
    }
    return number & 0xffffffU;
}

}

class CompositorsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void everySize_data() { kinds(); }
    void everySize();
    void coveredAndMinimised_data() { kinds(); }
    void coveredAndMinimised();
    void shadow_data() { kinds(); }
    void shadow();
    void shadowOfGtk_data();
    void shadowOfGtk();
    void pointer_data() { kinds(); }
    void pointer();
    void scaledDisplay_data();
    void scaledDisplay();
    void closed_data() { kinds(); }
    void closed();
    void firstFrameOfAStillWindow_data() { kinds(); }
    void firstFrameOfAStillWindow();
    void oneAfterTheOther_data() { kinds(); }
    void oneAfterTheOther();
    void twoWindows_data() { kinds(); }
    void twoWindows();
    void compositorHangs_data() { kinds(); }
    void compositorHangs();
    void compositorDies_data() { kinds(); }
    void compositorDies();

private:
    static void kinds();
    void show(const QSize& size, const QStringList& more = QStringList());
    bool follow(const std::set<std::pair<int, int>>& sizes, const std::function<bool(const QImage&)>& isDone);
    bool goesOn(int frames);

    std::map<Kind, std::unique_ptr<WaylandDesktop>> desktops_; // made when first wanted
    WaylandDesktop* desktop_ = nullptr;
    std::unique_ptr<WaylandWindow> shown_;
    std::unique_ptr<WindowCast> cast_;
    std::unique_ptr<SampledWindow> window_;
    QImage wrong_; // what was not as it was drawn
};

void CompositorsTest::kinds()
{
    QTest::addColumn<int>("kind");
    QTest::newRow("mutter") << int(Kind::Mutter);
    QTest::newRow("kwin") << int(Kind::KWin);
}

void CompositorsTest::init()
{
    QFETCH(const int, kind);
    std::unique_ptr<WaylandDesktop>& desktop = desktops_[Kind(kind)];
    if (!desktop || !desktop->isRunning()) {
        WaylandDesktop::Options options;
        options.kind = Kind(kind);
        desktop = std::make_unique<WaylandDesktop>(options);
    }
    QVERIFY2(desktop->isRunning(), qPrintable(desktop->errorString()));
    desktop_ = desktop.get();
    desktop_->apply();
    qputenv("ORVANTIS_WINDOW_SOURCE", "pipewire");
}

void CompositorsTest::cleanup()
{
    window_.reset();
    cast_.reset();
    shown_.reset();
}

void CompositorsTest::show(const QSize& size, const QStringList& more)
{
    static int count = 0;
    const QString title = QStringLiteral("window-%1").arg(++count);
    shown_ = std::make_unique<WaylandWindow>(*desktop_, title, size, more);
    QVERIFY(shown_->isShown());
    cast_ = std::make_unique<WindowCast>(*desktop_, title);
    QVERIFY2(cast_->node() != 0, qPrintable(cast_->errorString()));
    window_ = std::make_unique<SampledWindow>(cast_->node());
}

/// Samples until it is done. False when a sample is not as it was drawn, of another size, or it takes too long.
bool CompositorsTest::follow(
    const std::set<std::pair<int, int>>& sizes, const std::function<bool(const QImage&)>& isDone)
{
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < limitMs) {
        const QImage image = window_->image();
        const bool isKnown = image.isNull() || sizes.count({image.width(), image.height()}) > 0;
        if (!isKnown || (!image.isNull() && !numberIn(image))) {
            wrong_ = image;
            return false;
        }
        if (isDone(image))
            return true;
        QTest::qWait(2);
    }
    return false;
}

/// This many frames more, each as it was drawn.
bool CompositorsTest::goesOn(int frames)
{
    QImage first;
    if (!QTest::qWaitFor([&] { return !(first = window_->image()).isNull(); }, limitMs))
        return false;
    const std::optional<quint32> from = numberIn(first);
    return from && follow({{first.width(), first.height()}}, [&](const QImage& image) {
        return !image.isNull() && *numberIn(image) >= *from + quint32(frames);
    });
}

void CompositorsTest::everySize()
{
    show(QSize(640, 360));
    QVERIFY(goesOn(5));
    QSize before(640, 360);
    for (const QSize& size : {QSize(800, 500), QSize(301, 203), QSize(1000, 90), QSize(640, 360)}) {
        shown_->send("size " + QByteArray::number(size.width()) + ' ' + QByteArray::number(size.height()));
        const bool followed = follow({{before.width(), before.height()}, {size.width(), size.height()}},
            [&](const QImage& image) { return image.size() == size; });
        QVERIFY2(followed, qPrintable(QStringLiteral("%1x%2").arg(wrong_.width()).arg(wrong_.height())));
        QVERIFY(goesOn(5));
        before = size;
    }
}

void CompositorsTest::coveredAndMinimised()
{
    show(QSize(640, 360));
    QVERIFY(goesOn(3));
    const WaylandWindow cover(*desktop_, QStringLiteral("cover"), QSize(1280, 720), {QStringLiteral("still")});
    QVERIFY(cover.isShown());
    QVERIFY(goesOn(10));
    shown_->send("minimise");
    QVERIFY(goesOn(10));
}

/// Mutter's images have it, KWin's have not; the recording has not.
void CompositorsTest::shadow()
{
    show(QSize(400, 300), {QStringLiteral("shadow"), QStringLiteral("20")});
    QVERIFY2(goesOn(3), qPrintable(QStringLiteral("%1").arg(window_->image().width())));
    QCOMPARE(window_->image().size(), QSize(400, 300));
}

void CompositorsTest::shadowOfGtk_data()
{
    QTest::addColumn<int>("kind");
    QTest::newRow("mutter") << int(Kind::Mutter);
}

/// As a toolkit draws it, around a window that is light. What it has in place of alpha is lost, and it would be
/// black.
void CompositorsTest::shadowOfGtk()
{
    QProcess dialogue;
    QProcessEnvironment environment = desktop_->environment();
    environment.insert(QStringLiteral("GDK_BACKEND"), QStringLiteral("wayland"));
    dialogue.setProcessEnvironment(environment);
    childprocess::endWithParent(dialogue);
    dialogue.start(QStringLiteral("zenity"), {QStringLiteral("--info"), QStringLiteral("--text=light")});
    const auto end = qScopeGuard([&] { childprocess::end(dialogue); });
    QVERIFY2(dialogue.waitForStarted(), qPrintable(dialogue.errorString()));
    cast_ = std::make_unique<WindowCast>(*desktop_, QString());
    QVERIFY2(cast_->node() != 0, qPrintable(cast_->errorString()));
    window_ = std::make_unique<SampledWindow>(cast_->node());
    const auto isLight = [&] {
        const QImage image = window_->image();
        const QPoint middle = image.rect().center();
        const auto pixels = {QPoint(0, middle.y()), QPoint(image.width() - 1, middle.y()), QPoint(middle.x(), 0),
            QPoint(middle.x(), image.height() - 1)};
        return !image.isNull() && std::all_of(pixels.begin(), pixels.end(), [&](const QPoint& pixel) {
            return qGray(image.pixel(pixel)) > 100;
        });
    };
    QTRY_VERIFY_WITH_TIMEOUT(isLight(), limitMs);
}

/// Told beside the image, which never has it painted in.
void CompositorsTest::pointer()
{
    show(QSize(640, 360));
    QVERIFY(goesOn(3));
    shown_->send("fullscreen");
    QTRY_COMPARE_WITH_TIMEOUT(window_->image().size(), QSize(1280, 720), limitMs);
    WaylandPointer pointer(*desktop_, *shown_);
    QVERIFY2(pointer.errorString().isEmpty(), qPrintable(pointer.errorString()));
    for (const QPoint& place : {QPoint(100, 200), QPoint(1200, 30)}) {
        pointer.move(place);
        const auto inWindow = [&]() -> QPointF {
            const std::optional<QPointF> location = window_->pointerLocation();
            return location && window_->bounds() ? *location - window_->bounds()->topLeft() : QPointF(-1, -1);
        };
        QTRY_COMPARE_WITH_TIMEOUT(inWindow(), QPointF(place), limitMs);
        QVERIFY(goesOn(3));
    }
    QVERIFY(pointer.errorString().isEmpty());
}

void CompositorsTest::scaledDisplay_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<double>("scale");
    QTest::addColumn<int>("windowScale");
    QTest::newRow("kwin 1.5, a window that is scaled up") << int(Kind::KWin) << 1.5 << 1;
    QTest::newRow("kwin 2, a window that paints for it") << int(Kind::KWin) << 2.0 << 2;
}

/// KWin's stream has a pixel for each point, whatever the window paints.
void CompositorsTest::scaledDisplay()
{
    QFETCH(const double, scale);
    QFETCH(const int, windowScale);
    WaylandDesktop::Options options;
    options.kind = Kind::KWin;
    options.scale = scale;
    WaylandDesktop scaled(options);
    QVERIFY2(scaled.isRunning(), qPrintable(scaled.errorString()));
    desktop_ = &scaled;
    desktop_->apply();
    show(QSize(300, 200), {QStringLiteral("scale"), QString::number(windowScale)});
    QVERIFY(goesOn(5));
    QCOMPARE(window_->image().size(), QSize(300, 200));
    cleanup(); // before the desktop
}

void CompositorsTest::closed()
{
    show(QSize(320, 240));
    QVERIFY(goesOn(3));
    const LogCapture log;
    shown_->send("quit");
    QVERIFY(follow({{320, 240}}, [](const QImage& image) { return image.isNull(); }));
    QVERIFY(window_->image().isNull());
    QCOMPARE(log.countStartingWith(QStringLiteral("Window's PipeWire stream has ended; node: ")), 1);
}

void CompositorsTest::firstFrameOfAStillWindow()
{
    const int starts = qEnvironmentVariableIntValue("ORVANTIS_FIRST_FRAMES");
    for (int i = 0; i < std::max(starts, 3); ++i) {
        show(QSize(640, 360), {QStringLiteral("still")});
        QTRY_VERIFY2_WITH_TIMEOUT(!window_->image().isNull(), QByteArray::number(i), limitMs);
        QVERIFY2(numberIn(window_->image()), QByteArray::number(i));
        cleanup();
    }
}

/// A launcher looks at a window before it starts the recorder. It is still, and its stream the same.
void CompositorsTest::oneAfterTheOther()
{
    show(QSize(640, 360), {QStringLiteral("still")});
    for (int i = 0; i < 5; ++i) {
        QTRY_VERIFY2_WITH_TIMEOUT(!window_->image().isNull(), QByteArray::number(i), limitMs);
        window_ = std::make_unique<SampledWindow>(cast_->node());
    }
}

void CompositorsTest::twoWindows()
{
    show(QSize(640, 360));
    QVERIFY(goesOn(3));
    SampledWindow same(cast_->node());
    const WaylandWindow other(*desktop_, QStringLiteral("other"), QSize(320, 200));
    QVERIFY(other.isShown());
    const WindowCast otherCast(*desktop_, QStringLiteral("other"));
    QVERIFY2(otherCast.node() != 0, qPrintable(otherCast.errorString()));
    QVERIFY(otherCast.node() != cast_->node());
    SampledWindow second(otherCast.node());
    QTRY_COMPARE_WITH_TIMEOUT(second.image().size(), QSize(320, 200), limitMs);
    QTRY_COMPARE_WITH_TIMEOUT(same.image().size(), QSize(640, 360), limitMs);
    for (int i = 0; i < 20; ++i) {
        QVERIFY(goesOn(1));
        QVERIFY(numberIn(second.image()));
        QVERIFY(numberIn(same.image()));
    }
}

/// As a window that is still.
void CompositorsTest::compositorHangs()
{
    show(QSize(640, 360));
    QVERIFY(goesOn(3));
    desktop_->stop();
    QTest::qWait(200); // what was on its way
    const QImage image = window_->image();
    QVERIFY(numberIn(image));
    QCOMPARE(window_->image().cacheKey(), image.cacheKey());
    desktop_->resume();
    QVERIFY(goesOn(5));
}

void CompositorsTest::compositorDies()
{
    show(QSize(640, 360));
    QVERIFY(goesOn(3));
    const LogCapture log;
    desktop_->kill();
    QVERIFY(follow({{640, 360}}, [](const QImage& image) { return image.isNull(); }));
    QVERIFY(window_->image().isNull());
    QCOMPARE(log.countStartingWith(QStringLiteral("Window's PipeWire stream has ended; node: ")), 1);
}

ORVANTIS_TEST(CompositorsTest)
#include "compositors_test.moc"
