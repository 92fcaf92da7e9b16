// PipeWire's calls, refused one after the other while a capture is set up, and an exception in the middle of one of
// its own; against a server of the test's own.
#include "allocationfaults.h"
#include "logcapture.h"
#include "privateaudioserver.h"
#include "recorderaudiocapture.h"
#include "sampledwindow.h"
#include "testregistry.h"
#include "videonode.h"

#include <QTest>

#include <atomic>
#include <cerrno>
#include <limits>
#include <memory>
#include <vector>

#include <pipewire/pipewire.h>

namespace {

constexpr int limitMs = 60'000; // against hanging
const QSize size(64, 48);
const auto cannotBeReached = QStringLiteral("\"PipeWire cannot be reached: Cannot allocate memory\"");

/// A call, and from which one on it is refused.
struct Call {
    std::atomic<int> calls = 0;
    std::atomic<int> firstRefusal = std::numeric_limits<int>::max();

    bool isRefused()
    {
        if (++calls < firstRefusal)
            return false;
        errno = ENOMEM;
        return true;
    }
    void refuseFrom(int nth)
    {
        calls = 0;
        firstRefusal = nth;
    }
    void heal() { firstRefusal = std::numeric_limits<int>::max(); }
};

Call newLoop;
Call newContext;
Call startLoop;
Call newStream;
Call connectStream;

QImage pattern(int seed)
{
    QImage image(size, QImage::Format_ARGB32);
    for (int y = 0; y < size.height(); ++y) {
        for (int x = 0; x < size.width(); ++x)
            image.setPixel(x, y, qRgb(x * 3 + seed, y * 5 + seed, (x + y + seed) & 0xff));
    }
    return image;
}

QImage opaque(const QImage& image)
{
    return image.convertToFormat(QImage::Format_RGB32);
}

VideoNode::Options nodeThatSends(const QImage& image)
{
    VideoNode::Options options;
    options.size = size;
    options.atStart = NodeFrame{image, {}, {}, {}};
    return options;
}

}

Q_DECLARE_METATYPE(Call*)

extern "C" decltype(pw_thread_loop_new) __real_pw_thread_loop_new;
extern "C" decltype(pw_thread_loop_start) __real_pw_thread_loop_start;
extern "C" decltype(pw_context_new) __real_pw_context_new;
extern "C" decltype(pw_stream_new) __real_pw_stream_new;
extern "C" decltype(pw_stream_connect) __real_pw_stream_connect;

extern "C" pw_thread_loop* __wrap_pw_thread_loop_new(const char* name, const spa_dict* properties)
{
    return newLoop.isRefused() ? nullptr : __real_pw_thread_loop_new(name, properties);
}

extern "C" int __wrap_pw_thread_loop_start(pw_thread_loop* loop)
{
    return startLoop.isRefused() ? -ENOMEM : __real_pw_thread_loop_start(loop);
}

// These two own their properties in any case.
extern "C" pw_context* __wrap_pw_context_new(pw_loop* loop, pw_properties* properties, size_t extra)
{
    if (!newContext.isRefused())
        return __real_pw_context_new(loop, properties, extra);
    pw_properties_free(properties);
    errno = ENOMEM;
    return nullptr;
}

extern "C" pw_stream* __wrap_pw_stream_new(pw_core* core, const char* name, pw_properties* properties)
{
    if (!newStream.isRefused())
        return __real_pw_stream_new(core, name, properties);
    pw_properties_free(properties);
    return nullptr;
}

extern "C" int __wrap_pw_stream_connect(pw_stream* stream, pw_direction direction, uint32_t target,
    pw_stream_flags flags, const spa_pod** parameters, uint32_t count)
{
    return connectStream.isRefused() ? -ENOMEM
                                     : __real_pw_stream_connect(stream, direction, target, flags, parameters, count);
}

class PipeWireFaultsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void windowIsRefused_data();
    void windowIsRefused();
    void audioIsRefused_data();
    void audioIsRefused();
    void frameThatMeetsAnException();

private:
    std::unique_ptr<PrivateAudioServer> server_;
};

void PipeWireFaultsTest::initTestCase()
{
    qputenv("ORVANTIS_WINDOW_SOURCE", "pipewire");
    server_ = std::make_unique<PrivateAudioServer>();
    QVERIFY2(server_->isRunning(), qPrintable(server_->errorString()));
    server_->apply();
}

void PipeWireFaultsTest::cleanup()
{
    for (Call* const call : {&newLoop, &newContext, &startLoop, &newStream, &connectStream})
        call->heal();
}

void PipeWireFaultsTest::windowIsRefused_data()
{
    QTest::addColumn<Call*>("call");
    QTest::addColumn<QString>("line"); // %1: the node
    const auto notThere = QStringLiteral("PipeWire is not there for the capture of windows: ") + cannotBeReached;
    const auto ended = QStringLiteral("Window's PipeWire stream has ended; node: %1 \"%2\"");
    QTest::newRow("no loop") << &newLoop << notThere;
    QTest::newRow("no context") << &newContext << notThere;
    QTest::newRow("loop not started") << &startLoop << notThere;
    QTest::newRow("no stream") << &newStream
                               << ended.arg(QStringLiteral("%1"), QStringLiteral("PipeWire makes no stream"));
    QTest::newRow("stream not connected")
        << &connectStream << ended.arg(QStringLiteral("%1"), QStringLiteral("PipeWire does not connect the stream"));
}

void PipeWireFaultsTest::windowIsRefused()
{
    QFETCH(Call* const, call);
    QFETCH(const QString, line);
    const VideoNode node(nodeThatSends(pattern(1)));
    QVERIFY(node.id() != 0);
    {
        const LogCapture log;
        call->refuseFrom(1);
        SampledWindow window(node.id());
        QVERIFY(window.image().isNull());
        QVERIFY(window.image().isNull());
        call->heal();
        const QString expected = line.contains(QStringLiteral("%1")) ? line.arg(node.id()) : line;
        QCOMPARE(log.messages(QtWarningMsg), QStringList{expected});
    }
    SampledWindow another(node.id());
    QTRY_COMPARE_WITH_TIMEOUT(another.image(), opaque(pattern(1)), limitMs);
}

void PipeWireFaultsTest::audioIsRefused_data()
{
    QTest::addColumn<Call*>("call");
    QTest::addColumn<int>("nth"); // what can be recorded is looked up first, on a connection of its own
    QTest::addColumn<QString>("line");
    const auto lookUp = QStringLiteral("macOS ScreenCaptureKit shareable content lookup failed: ") + cannotBeReached;
    const auto setUp = QStringLiteral("macOS ScreenCaptureKit audio output setup failed: ");
    QTest::newRow("no loop for the look-up") << &newLoop << 1 << lookUp;
    QTest::newRow("no context for the look-up") << &newContext << 1 << lookUp;
    QTest::newRow("loop of the look-up not started") << &startLoop << 1 << lookUp;
    QTest::newRow("no loop") << &newLoop << 2 << setUp + cannotBeReached;
    QTest::newRow("no context") << &newContext << 2 << setUp + cannotBeReached;
    QTest::newRow("loop not started") << &startLoop << 2 << setUp + cannotBeReached;
    const auto noStream = setUp + QStringLiteral("\"PipeWire has no stream\"");
    QTest::newRow("no stream") << &newStream << 1 << noStream;
    QTest::newRow("stream not connected") << &connectStream << 1 << noStream;
}

void PipeWireFaultsTest::audioIsRefused()
{
    QFETCH(Call* const, call);
    QFETCH(const int, nth);
    QFETCH(const QString, line);
    {
        const LogCapture log;
        call->refuseFrom(nth);
        RecorderAudioCapture capture{QString()};
        QVERIFY(!capture.isValid());
        QVERIFY(!capture.start());
        call->heal();
        QCOMPARE(log.messages(QtWarningMsg), QStringList{line});
    }
    RecorderAudioCapture another{QString()};
    QVERIFY(another.isValid());
    QVERIFY(another.start());
}

/// Memory is refused to the thread of PipeWire that takes the frames: each is left out, its buffer goes back, and
/// what it changed is not missing in the next one.
void PipeWireFaultsTest::frameThatMeetsAnException()
{
    constexpr std::size_t areas = 3; // their list grows to four
    VideoNode node(nodeThatSends(pattern(0)));
    SampledWindow window(node.id());
    QTRY_COMPARE_WITH_TIMEOUT(window.image(), opaque(pattern(0)), limitMs);
    const LogCapture log;
    QImage image = pattern(0);
    image.setPixel(3, 30, qRgb(1, 2, 3));
    {
        const allocationfaults::Refusal refusal(4 * sizeof(QRect));
        for (int count = 1; count <= 20; ++count) { // more than there are buffers
            const std::vector<QRect> damage(areas, QRect(0, 29, 64, 4));
            QVERIFY(node.send({image, {}, {}, damage}));
            QTRY_VERIFY_WITH_TIMEOUT(refusal.count() >= count, limitMs);
        }
    }
    QCOMPARE(log.messages(QtCriticalMsg),
        QStringList{QStringLiteral("Window capture was interrupted by an exception: std::bad_alloc")});
    QCOMPARE(window.image(), opaque(pattern(0)));

    const qint64 before = window.image().cacheKey();
    image.setPixel(3, 10, qRgb(1, 2, 3));
    QVERIFY(node.send({image, {}, {}, std::vector{QRect(0, 9, 64, 4)}}));
    QTRY_VERIFY_WITH_TIMEOUT(window.image().cacheKey() != before, limitMs);
    QCOMPARE(window.image(), opaque(image));
}

ORVANTIS_TEST(PipeWireFaultsTest)
#include "pipewirefaults_test.moc"
