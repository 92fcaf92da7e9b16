// Windows from nodes of PipeWire, against a node that plays known frames on a server of the test's own.
#include "logcapture.h"
#include "nodeimages.h"
#include "platform/screen.h"
#include "privateaudioserver.h"
#include "sampledwindow.h"
#include "testregistry.h"
#include "videonode.h"
#include "windowsampling.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>
#include <optional>

#include <spa/param/video/raw.h>

namespace {

constexpr int limitMs = 60'000; // against hanging; a busy machine took 24 s to show a still node
const QSize size(64, 48);

/// Different in every pixel; opaque.
QImage pattern(int seed, const QSize& ofSize = size)
{
    QImage image(ofSize, QImage::Format_ARGB32);
    for (int y = 0; y < ofSize.height(); ++y) {
        for (int x = 0; x < ofSize.width(); ++x)
            image.setPixel(x, y, qRgb(x * 3 + seed, y * 5 + seed, (x + y + seed) & 0xff));
    }
    return image;
}

/// As the window source has it.
QImage opaque(const QImage& image)
{
    return image.convertToFormat(QImage::Format_RGB32);
}

/// The pattern, and in place of what is around the window a shadow.
QImage withShadow(const QRect& window)
{
    QImage image = pattern(1);
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            const int outside
                = std::max({window.left() - x, x - window.right(), window.top() - y, y - window.bottom()});
            if (outside > 0)
                image.setPixel(x, y, qRgba(0, 0, 0, std::max(0, 0x50 - 16 * outside)));
        }
    }
    return image;
}

QRect boundsOf(const QSize& ofSize)
{
    return QRect(QPoint(int(wayland::nowhere), int(wayland::nowhere)), ofSize);
}

}

class PipeWireWindowTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void formats_data();
    void formats();
    void alphaIsKept();
    void paddingIsNotAlpha();
    void sameFrameIsTheSameImage();
    void newestFrame();
    void cropIsFollowed();
    void pointerOnly();
    void corruptedFrame();
    void shadowIsCutOff();
    void shadowThatChangesIsLogged();
    void boundsAreNowhere();
    void damagedRowsOnly();
    void wrongDamageIsFoundOut();
    void formatChanges();
    void sizeChangesWithoutAFrame();
    void stillWindowIsAskedAgain();
    void streamEnds();
    void serverDies();
    void serverHangs();
    void noSuchNode();
    void nodeOfAudio();
    void nodeThatSendsNothing();
    void firstFrameThatDoesNotComeIsNoSlowCapture();
    void onlyGraphicsMemory();
    void noServer();
    void unknownSource();
    void secondRecorder();
    void oneAfterTheOther();

private:
    /// Waits until the window shows it.
    bool shows(const QImage& image)
    {
        return QTest::qWaitFor([&] { return window_->image() == image; }, limitMs);
    }
    void start(const VideoNode::Options& options = VideoNode::Options());

    std::unique_ptr<PrivateAudioServer> server_;
    std::unique_ptr<VideoNode> node_;
    std::unique_ptr<SampledWindow> window_;
};

void PipeWireWindowTest::initTestCase()
{
    server_ = std::make_unique<PrivateAudioServer>();
    QVERIFY2(server_->isRunning(), qPrintable(server_->errorString()));
    server_->apply();
}

void PipeWireWindowTest::init()
{
    qputenv("ORVANTIS_WINDOW_SOURCE", "pipewire");
    if (!server_->isRunning())
        initTestCase();
}

void PipeWireWindowTest::cleanup()
{
    window_.reset();
    node_.reset();
}

/// A window of a node that has sent its first frame.
void PipeWireWindowTest::start(const VideoNode::Options& options)
{
    VideoNode::Options sending = options;
    if (!sending.atStart)
        sending.atStart = NodeFrame{pattern(0, options.size), {}, {}, {}};
    node_ = std::make_unique<VideoNode>(sending);
    QVERIFY(node_->id() != 0);
    window_ = std::make_unique<SampledWindow>(node_->id());
    QTRY_VERIFY_WITH_TIMEOUT(!window_->image().isNull(), limitMs);
}

void PipeWireWindowTest::formats_data()
{
    QTest::addColumn<uint>("format");
    QTest::addColumn<bool>("hasAlpha");
    QTest::newRow("BGRx") << uint(SPA_VIDEO_FORMAT_BGRx) << false;
    QTest::newRow("BGRA") << uint(SPA_VIDEO_FORMAT_BGRA) << true;
    QTest::newRow("RGBx") << uint(SPA_VIDEO_FORMAT_RGBx) << false;
    QTest::newRow("RGBA") << uint(SPA_VIDEO_FORMAT_RGBA) << true;
    QTest::newRow("xRGB") << uint(SPA_VIDEO_FORMAT_xRGB) << false;
    QTest::newRow("ARGB") << uint(SPA_VIDEO_FORMAT_ARGB) << true;
    QTest::newRow("xBGR") << uint(SPA_VIDEO_FORMAT_xBGR) << false;
    QTest::newRow("ABGR") << uint(SPA_VIDEO_FORMAT_ABGR) << true;
}

void PipeWireWindowTest::formats()
{
    QFETCH(const uint, format);
    QFETCH(const bool, hasAlpha);
    VideoNode::Options options;
    options.format = format;
    start(options);
    const QImage image = window_->image();
    QCOMPARE(image.format(), hasAlpha ? QImage::Format_ARGB32_Premultiplied : QImage::Format_RGB32);
    QCOMPARE(opaque(image), opaque(pattern(0)));
}

void PipeWireWindowTest::alphaIsKept()
{
    QImage image = pattern(3);
    image.setPixel(5, 6, 0x40201008);
    VideoNode::Options options;
    options.format = SPA_VIDEO_FORMAT_BGRA;
    options.atStart = NodeFrame{image, {}, {}, {}};
    start(options);
    const QImage shown = window_->image();
    QCOMPARE(reinterpret_cast<const quint32*>(shown.constScanLine(6))[5], 0x40201008U);
}

void PipeWireWindowTest::paddingIsNotAlpha()
{
    QImage image = pattern(3);
    image.setPixel(5, 6, 0x00201008);
    VideoNode::Options options;
    options.atStart = NodeFrame{image, {}, {}, {}};
    start(options);
    const QImage shown = window_->image();
    QCOMPARE(reinterpret_cast<const quint32*>(shown.constScanLine(6))[5], 0xff201008U);
}

void PipeWireWindowTest::sameFrameIsTheSameImage()
{
    start();
    const qint64 key = window_->image().cacheKey();
    QCOMPARE(window_->image().cacheKey(), key);
    QVERIFY(window_->sample().changedRows.isEmpty());
    QVERIFY(node_->send({pattern(0), {}, {}, {}})); // the same pixels once more
    const NodeFrame withPointer{pattern(0), {}, QPoint(4, 4), {}};
    QTRY_VERIFY_WITH_TIMEOUT(node_->send(withPointer) && window_->pointerLocation(), limitMs);
    QCOMPARE(window_->image().cacheKey(), key);
}

/// PipeWire (0.3.65) may lose a frame that is sent while the one before it is being taken. Compositors leave some
/// milliseconds between them; so do the last ones here.
void PipeWireWindowTest::newestFrame()
{
    start();
    for (int seed = 1; seed < 40; ++seed) // more than there are buffers
        QVERIFY(node_->send({pattern(seed), {}, {}, {}}));
    const NodeFrame last{pattern(40), {}, {}, {}};
    QTRY_VERIFY_WITH_TIMEOUT(node_->send(last) && window_->image() == opaque(last.image), limitMs);
}

void PipeWireWindowTest::cropIsFollowed()
{
    start();
    for (const QRect& crop : {QRect(0, 0, 30, 20), QRect(7, 5, 40, 43), QRect(0, 0, 64, 48)}) {
        QVERIFY(node_->send({pattern(9), crop, {}, {}}));
        QVERIFY(shows(opaque(pattern(9).copy(crop))));
        QCOMPARE(window_->bounds()->toRect(), boundsOf(crop.size()));
    }
    // What does not lie in the frame is not read; without anything left it says nothing.
    QVERIFY(node_->send({pattern(8), QRect(60, 40, 100, 2'000'000'000), {}, {}}));
    QVERIFY(shows(opaque(pattern(8).copy(60, 40, 4, 8))));
    QVERIFY(node_->send({pattern(7), QRect(-100, 500, 10, 10), {}, {}}));
    QVERIFY(shows(opaque(pattern(7))));
}

/// Compositors leave the crop of such a buffer as it happens to be.
void PipeWireWindowTest::pointerOnly()
{
    start();
    const qint64 key = window_->image().cacheKey();
    QVERIFY(!window_->pointerLocation());
    QVERIFY(node_->send({QImage(), QRect(1, 1, 2, 2), QPoint(12, 34), {}}));
    const QPointF expected(wayland::nowhere + 12, wayland::nowhere + 34);
    QTRY_COMPARE_WITH_TIMEOUT(window_->pointerLocation().value_or(QPointF()), expected, limitMs);
    QCOMPARE(window_->image().cacheKey(), key);
    QCOMPARE(window_->bounds()->toRect(), boundsOf(size));
    QVERIFY(node_->send({QImage(), {}, {}, {}}));
    QTRY_VERIFY_WITH_TIMEOUT(!window_->pointerLocation(), limitMs);
    QCOMPARE(window_->image().cacheKey(), key);
}

void PipeWireWindowTest::corruptedFrame()
{
    start();
    QVERIFY(node_->send({pattern(5), {}, QPoint(1, 1), {}, true}));
    QTRY_VERIFY_WITH_TIMEOUT(window_->pointerLocation(), limitMs);
    QCOMPARE(window_->image(), opaque(pattern(0)));
}

void PipeWireWindowTest::shadowIsCutOff()
{
    const QRect inside(6, 4, 50, 38);
    VideoNode::Options options;
    options.atStart = NodeFrame{withShadow(inside), {}, QPoint(10, 10), {}};
    start(options);
    QCOMPARE(window_->image(), opaque(pattern(1).copy(inside)));
    QCOMPARE(window_->bounds()->toRect(), boundsOf(inside.size()));
    QCOMPARE(window_->sample().pointer, QPointF(wayland::nowhere + 4, wayland::nowhere + 6));
}

/// Not as often as it changes, nor before it does.
void PipeWireWindowTest::shadowThatChangesIsLogged()
{
    const LogCapture log;
    start();
    for (const QRect& inside : {QRect(6, 4, 50, 38), QRect(7, 4, 50, 38)}) {
        QVERIFY(node_->send({withShadow(inside), {}, {}, {}}));
        QVERIFY(shows(opaque(pattern(1).copy(inside))));
    }
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList(
            QStringLiteral("Captured window has changed what it counts as its shadow, which is cut off; left, "
                           "right, top, bottom: 6 8 4 6 changes not logged before: 0")));
}

/// A launcher cannot know where a window is; a global position of 0, 0 or any other must not be taken for one in it.
void PipeWireWindowTest::boundsAreNowhere()
{
    start();
    window_->image();
    const QRectF bounds = *window_->bounds();
    QCOMPARE(bounds.size(), QSizeF(size));
    QVERIFY(!bounds.intersects(QRectF(-100'000'000, -100'000'000, 200'000'000, 200'000'000)));
}

void PipeWireWindowTest::damagedRowsOnly()
{
    start();
    const QImage before = window_->image();
    QImage image = pattern(0);
    image.setPixel(3, 10, qRgb(1, 2, 3));
    image.setPixel(3, 30, qRgb(1, 2, 3)); // not told
    QVERIFY(node_->send({image, {}, {}, std::vector{QRect(0, 9, 64, 4)}}));
    QImage expected = before.copy();
    expected.setPixel(3, 10, qRgb(1, 2, 3));
    QTRY_VERIFY_WITH_TIMEOUT(window_->image().cacheKey() != before.cacheKey(), limitMs);
    QCOMPARE(window_->image(), expected);
}

void PipeWireWindowTest::wrongDamageIsFoundOut()
{
    VideoNode::Options options;
    options.atStart = NodeFrame{pattern(0), {}, {}, {}};
    node_ = std::make_unique<VideoNode>(options);
    std::chrono::milliseconds later{0};
    Sampled<wayland::NodeImages> window(node_->id(), [&] { return wayland::NodeImages::Clock::now() + later; });
    QTRY_VERIFY_WITH_TIMEOUT(!window.image().isNull(), limitMs);
    QImage image = pattern(0);
    image.setPixel(3, 30, qRgb(1, 2, 3));
    QVERIFY(node_->send({image, {}, QPoint(1, 1), std::vector{QRect(0, 9, 64, 4)}}));
    QTRY_VERIFY_WITH_TIMEOUT(window.pointerLocation(), limitMs);
    later += wayland::NodeImages::checkInterval;
    QCOMPARE(window.image(), opaque(image));
}

void PipeWireWindowTest::formatChanges()
{
    start();
    const QSize larger(100, 30);
    QVERIFY(node_->setFormat(larger, SPA_VIDEO_FORMAT_RGBA));
    // The link may stay paused until the stream asks again.
    QTRY_VERIFY_WITH_TIMEOUT(!window_->image().isNull() && node_->starts() >= 2, limitMs);
    QTRY_VERIFY_WITH_TIMEOUT(
        node_->send({pattern(4, larger), {}, {}, {}}) && opaque(window_->image()) == opaque(pattern(4, larger)),
        limitMs);
    QCOMPARE(window_->bounds()->toRect(), boundsOf(larger));
}

/// The last image is the old one; it is not for ever what the window shows.
void PipeWireWindowTest::sizeChangesWithoutAFrame()
{
    start();
    QVERIFY(node_->setFormat(QSize(100, 30), SPA_VIDEO_FORMAT_BGRx)); // the frame at the start does not fit any more
    QTRY_VERIFY_WITH_TIMEOUT(window_->image().isNull(), limitMs);
    // One that is sent while the stream asks again may be lost.
    const NodeFrame frame{pattern(4, QSize(100, 30)), {}, {}, {}};
    QTRY_VERIFY_WITH_TIMEOUT(node_->send(frame) && window_->image() == opaque(frame.image), limitMs);
}

/// A node that sends no frame at its first starts is asked until it does, and left alone then.
void PipeWireWindowTest::stillWindowIsAskedAgain()
{
    VideoNode::Options options;
    options.startsWithout = 2;
    options.atStart = NodeFrame{pattern(6), {}, {}, {}};
    node_ = std::make_unique<VideoNode>(options);
    std::chrono::milliseconds later{0};
    Sampled<wayland::NodeImages> window(node_->id(), [&] { return wayland::NodeImages::Clock::now() + later; });
    QTRY_COMPARE_WITH_TIMEOUT(window.image(), opaque(pattern(6)), limitMs);
    const int starts = node_->starts();
    for (int frame = 0; frame < 4; ++frame) {
        later += std::chrono::minutes(1);
        QVERIFY(!window.image().isNull());
        QTRY_VERIFY_WITH_TIMEOUT(
            node_->send({pattern(frame), {}, {}, {}}) && window.image() == opaque(pattern(frame)), limitMs);
    }
    // One may have been under way when the first frame came.
    QVERIFY2(node_->starts() <= starts + 1, qPrintable(QString::number(node_->starts() - starts)));
}

void PipeWireWindowTest::streamEnds()
{
    start();
    const LogCapture log;
    node_.reset();
    QTRY_VERIFY_WITH_TIMEOUT(window_->image().isNull(), limitMs);
    QCOMPARE(log.countStartingWith(QStringLiteral("Window's PipeWire stream has ended; node: ")), 1);
    // The id is another node's now, or may be.
    node_ = std::make_unique<VideoNode>(VideoNode::Options());
    QVERIFY(window_->image().isNull());
    QCOMPARE(log.messages().size(), 1);
}

void PipeWireWindowTest::serverDies()
{
    start();
    const LogCapture log;
    server_->killDaemon();
    QTRY_VERIFY_WITH_TIMEOUT(window_->image().isNull(), limitMs);
    QCOMPARE(log.countStartingWith(QStringLiteral("Window's PipeWire stream has ended; node: ")), 1);
    cleanup();
}

void PipeWireWindowTest::serverHangs()
{
    start();
    server_->stopDaemon();
    QCOMPARE(window_->image(), opaque(pattern(0))); // as a still window
    QVERIFY(!platform::preflightScreenCaptureAccess());
    SampledWindow other(node_->id());
    QVERIFY(other.image().isNull());
    server_->continueDaemon();
    QTRY_VERIFY_WITH_TIMEOUT(node_->send({pattern(1), {}, {}, {}}) && !other.image().isNull(), limitMs);
}

void PipeWireWindowTest::noSuchNode()
{
    const LogCapture log;
    SampledWindow window(987'654U);
    QVERIFY(window.image().isNull());
    QVERIFY(window.image().isNull());
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList(QStringLiteral("Window argument is not a PipeWire node of video: 987654 \"there is no such node, "
                                   "or it is not one of video\"")));
}

void PipeWireWindowTest::nodeOfAudio()
{
    VideoNode::Options options;
    options.mediaClass = "Stream/Output/Audio";
    const VideoNode node(options);
    const LogCapture log;
    SampledWindow window(node.id());
    QVERIFY(window.image().isNull());
    QCOMPARE(log.countStartingWith(QStringLiteral("Window argument is not a PipeWire node of video: ")), 1);
}

/// The wait for it ends before the capture counts as one that stalls.
void PipeWireWindowTest::firstFrameThatDoesNotComeIsNoSlowCapture()
{
    node_ = std::make_unique<VideoNode>(VideoNode::Options());
    QVERIFY(node_->id() != 0);
    const LogCapture log;
    WindowSampling sampling(node_->id());
    QTRY_VERIFY_WITH_TIMEOUT(sampling.sample(true), limitMs);
    QCOMPARE(log.countStartingWith(QStringLiteral("Window capture takes longer than")), 0);
}

void PipeWireWindowTest::nodeThatSendsNothing()
{
    const VideoNode node{VideoNode::Options()};
    const LogCapture log;
    std::chrono::milliseconds later{0};
    wayland::NodeImages window(node.id(), [&] { return wayland::NodeImages::Clock::now() + later; });
    QVERIFY(window.sample().image.isNull());
    QCOMPARE(log.messages(QtWarningMsg), QStringList());
    later += wayland::NodeImages::patience;
    QVERIFY(window.sample().image.isNull());
    QVERIFY(window.sample().image.isNull());
    QCOMPARE(log.countStartingWith(QStringLiteral("PipeWire gives no frame of the window yet (")), 1);
    QCOMPARE(log.messages(QtWarningMsg).size(), 1);
}

/// PipeWire leaves the stream without a link, or removes it at once. Either is told, once.
void PipeWireWindowTest::onlyGraphicsMemory()
{
    VideoNode::Options options;
    options.onlyGraphicsMemory = true;
    const VideoNode node(options);
    const LogCapture log;
    std::chrono::milliseconds later{0};
    wayland::NodeImages window(node.id(), [&] { return wayland::NodeImages::Clock::now() + later; });
    QVERIFY(window.sample().image.isNull());
    later += wayland::NodeImages::patience;
    QVERIFY(window.sample().image.isNull());
    QVERIFY(window.sample().image.isNull());
    const QStringList warnings = log.messages(QtWarningMsg);
    QCOMPARE(warnings.size(), 1);
    QVERIFY2(warnings.first().contains(QStringLiteral("not only DMA-BUF?)")), qPrintable(warnings.first()));
    QVERIFY(!node.isStreaming());
}

void PipeWireWindowTest::noServer()
{
    QVERIFY(platform::preflightScreenCaptureAccess());
    QVERIFY(platform::requestScreenCaptureAccess());
    const QTemporaryDir empty;
    const QByteArray before = qgetenv("XDG_RUNTIME_DIR");
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(empty.path()));
    const LogCapture log;
    const bool reached = platform::preflightScreenCaptureAccess();
    SampledWindow window(1U);
    const bool hasImage = !window.image().isNull();
    qputenv("XDG_RUNTIME_DIR", before);
    QVERIFY(!reached);
    QVERIFY(!hasImage);
    QCOMPARE(log.countStartingWith(QStringLiteral("PipeWire is not there for the capture of windows: ")), 2);
}

void PipeWireWindowTest::unknownSource()
{
    qputenv("ORVANTIS_WINDOW_SOURCE", "portal");
    const LogCapture log;
    QVERIFY(!platform::preflightScreenCaptureAccess());
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList{
            QStringLiteral("ORVANTIS_WINDOW_SOURCE has a value that this recorder does not know: \"portal\"")});
}

void PipeWireWindowTest::secondRecorder()
{
    start();
    QVERIFY(node_->send({pattern(1), {}, {}, {}}));
    QVERIFY(shows(opaque(pattern(1))));
    SampledWindow other(node_->id());
    QElapsedTimer sinceThen;
    sinceThen.start();
    while (sinceThen.elapsed() < 1500) // it asks for its first frame again and again; the window is still
        QVERIFY(other.image().isNull());
    QTRY_VERIFY_WITH_TIMEOUT(node_->send({pattern(2), {}, {}, {}}) && other.image() == opaque(pattern(2))
            && window_->image() == opaque(pattern(2)),
        limitMs);
}

void PipeWireWindowTest::oneAfterTheOther()
{
    start();
    for (int i = 0; i < 5; ++i) {
        window_ = std::make_unique<SampledWindow>(node_->id());
        QTRY_VERIFY_WITH_TIMEOUT(!window_->image().isNull(), limitMs);
    }
}

ORVANTIS_TEST(PipeWireWindowTest)
#include "pipewirewindow_test.moc"
