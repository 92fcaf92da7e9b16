// X servers that lack an extension, hang, or end.
#include "displayrelay.h"
#include "testregistry.h"
#include "x11fixture.h"

#include <QScopeGuard>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <future>
#include <memory>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <utility>
#include <vector>

using WindowSource = SampledWindow;

namespace {

constexpr quint32 blue = 0xff2040c0;
constexpr quint32 green = 0xff00ff00;

PrivateXServer* serverToKillAtNextWrite = nullptr;
thread_local bool impatient = false;

/// The capture waits a tenth of its time for the server, for the lifetime of the object. That it waits no longer than
/// it should is looked at where there is none.
class Impatience {
public:
    Impatience() { impatient = true; }
    ~Impatience() { impatient = false; }
    Impatience(const Impatience&) = delete;
    Impatience& operator=(const Impatience&) = delete;
};

QStringList without(const QStringList& extensions)
{
    QStringList arguments;
    for (const QString& extension : extensions)
        arguments << QStringLiteral("-extension") << extension;
    return arguments;
}

/// A server that does not answer, for the lifetime of the object.
class Stopped {
public:
    explicit Stopped(const PrivateXServer& server) : pid_(pid_t(server.pid())) { ::kill(pid_, SIGSTOP); }
    ~Stopped() { ::kill(pid_, SIGCONT); }
    Stopped(const Stopped&) = delete;
    Stopped& operator=(const Stopped&) = delete;

private:
    pid_t pid_;
};

}

extern "C" decltype(sendmsg) __real_sendmsg;

/// The moment between a look at the connection and a write to it.
extern "C" ssize_t __wrap_sendmsg(int descriptor, const msghdr* message, int flags)
{
    if (PrivateXServer* server = std::exchange(serverToKillAtNextWrite, nullptr)) {
        server->kill();
        ::signal(SIGPIPE, SIG_DFL);
    }
    return __real_sendmsg(descriptor, message, flags);
}

extern "C" decltype(poll) __real_poll;

/// A wait that ends in vain fails as one with an ill descriptor: it is not begun again for the rest of the time.
extern "C" int __wrap_poll(pollfd* descriptors, nfds_t count, int timeoutMs)
{
    if (!impatient || timeoutMs <= 0)
        return __real_poll(descriptors, count, timeoutMs);
    const int ready = __real_poll(descriptors, count, std::max(timeoutMs / 10, 1));
    if (ready != 0)
        return ready;
    errno = EINVAL;
    return -1;
}

class X11ServerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void preflightWithADisplay();
    void preflightWithoutADisplay();
    void preflightWithoutTheCookie();
    void preflightWithoutComposite();
    void noDisplayGivesNoImage();
    void withoutSharedMemory_data();
    void withoutSharedMemory();
    void withoutDamageEveryImageIsRead();
    void killedServer();
    void serverThatDiesUnderAWrite();
    void stoppedServerIsWaitedForOnce();
    void stoppedAtAnyMoment_data();
    void stoppedAtAnyMoment();
    void answerThatStopsInTheMiddle_data();
    void answerThatStopsInTheMiddle();
    void relayThatPassesNoDescriptors();
    void openingAtAStoppedServer();
};

void X11ServerTest::preflightWithADisplay()
{
    DisplayForTest display;
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    QVERIFY(platform::preflightScreenCaptureAccess());
    QVERIFY(platform::requestScreenCaptureAccess());
}

void X11ServerTest::preflightWithoutADisplay()
{
    QByteArray unreachable;
    {
        DisplayForTest display;
        unreachable = display.server.display();
    }
    for (const QByteArray& name : {QByteArray(), QByteArray("nonsense"), QByteArray(":99999"), unreachable}) {
        qputenv("DISPLAY", name);
        QVERIFY(!platform::preflightScreenCaptureAccess());
        QVERIFY(!platform::requestScreenCaptureAccess());
    }
    qunsetenv("DISPLAY");
    QVERIFY(!platform::preflightScreenCaptureAccess());
    QVERIFY(!platform::requestScreenCaptureAccess());
}

/// A display that lets this client not in. So are all servers of the tests for other users of the machine: who has no
/// cookie could otherwise drive a browser there.
void X11ServerTest::preflightWithoutTheCookie()
{
    DisplayForTest display;
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    const QByteArray authority = qgetenv("XAUTHORITY");
    const auto giveBack = qScopeGuard([&] { qputenv("XAUTHORITY", authority); });
    qputenv("XAUTHORITY", "/dev/null");
    QVERIFY(!platform::preflightScreenCaptureAccess());
}

void X11ServerTest::preflightWithoutComposite()
{
    DisplayForTest display(QSize(640, 480), 24, without({QStringLiteral("Composite")}));
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    QVERIFY(!platform::preflightScreenCaptureAccess());
    QVERIFY(!platform::requestScreenCaptureAccess());
    WindowProcess window;
    QVERIFY2(window.id(), qPrintable(window.errorString()));
    WindowSource source(window.id());
    QVERIFY(source.image().isNull());
}

void X11ServerTest::noDisplayGivesNoImage()
{
    qunsetenv("DISPLAY");
    WindowSource source(0x200001);
    QVERIFY(source.image().isNull());
    QCOMPARE(source.bounds(), std::nullopt);
    QCOMPARE(source.pointerLocation(), std::nullopt);
}

void X11ServerTest::withoutSharedMemory_data()
{
    QTest::addColumn<QSize>("size");
    QTest::newRow("one answer") << QSize(100, 100);
    QTest::newRow("many answers") << QSize(1920, 1080);
    QTest::newRow("wider than an answer") << QSize(20000, 7);
    QTest::newRow("as high as can be") << QSize(3, 32761);
}

void X11ServerTest::withoutSharedMemory()
{
    QFETCH(QSize, size);
    DisplayForTest display(QSize(640, 480), 24, without({QStringLiteral("MIT-SHM")}));
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    QVERIFY(platform::preflightScreenCaptureAccess());
    WindowProcess window({.geometry = QRect(QPoint(0, 0), size), .border = 3, .pixel = blue});
    QVERIFY2(window.id(), qPrintable(window.errorString()));
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    const QPoint last(size.width() - 2, size.height() - 2);
    QVERIFY(
        window.send("fill ff00ff00 " + QByteArray::number(last.x()) + ' ' + QByteArray::number(last.y()) + " 2 2"));
    const QImage image = source.image();
    QCOMPARE(image.size(), size);
    QVERIFY(isFilled(image, QRect(last, QSize(2, 2)), green));
    QVERIFY(isFilled(image, QRect(0, 0, size.width(), last.y()), blue));
    QVERIFY(isFilled(image, QRect(0, last.y(), last.x(), 2), blue));
}

void X11ServerTest::withoutDamageEveryImageIsRead()
{
    DisplayForTest display(QSize(640, 480), 24, without({QStringLiteral("DAMAGE")}));
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    QVERIFY(platform::preflightScreenCaptureAccess());
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    const QImage first = source.image();
    QVERIFY(isFilled(first, blue));
    QCOMPARE(source.image().cacheKey(), first.cacheKey()); // compared
    QVERIFY(window.send("fill ff00ff00 0 0 320 240"));
    QVERIFY(isFilled(source.image(), green));
    QVERIFY(window.send("fill ff2040c0 319 239 1 1"));
    QCOMPARE(source.image().pixel(319, 239), blue);
}

void X11ServerTest::killedServer()
{
    DisplayForTest display;
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    display.server.kill();
    for (int i = 0; i < 3; ++i) {
        QVERIFY(source.image().isNull());
        QCOMPARE(source.bounds(), std::nullopt);
        QCOMPARE(source.pointerLocation(), std::nullopt);
    }
    QVERIFY(!platform::preflightScreenCaptureAccess());
}

void X11ServerTest::serverThatDiesUnderAWrite()
{
    DisplayForTest display;
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    serverToKillAtNextWrite = &display.server;
    QVERIFY(source.image().isNull());
    QCOMPARE(serverToKillAtNextWrite, nullptr);
    QVERIFY(source.image().isNull());
}

/// If each call waited or sent something, this would take hours, or fill the socket and block.
void X11ServerTest::stoppedServerIsWaitedForOnce()
{
    DisplayForTest display;
    WindowProcess window({.pixel = blue});
    auto source = std::make_unique<WindowSource>(window.id());
    QVERIFY(isFilled(source->image(), blue));
    {
        const Stopped stopped(display.server);
        for (int i = 0; i < 20'000; ++i) {
            QVERIFY(source->image().isNull());
            QCOMPARE(source->bounds(), std::nullopt);
            QCOMPARE(source->pointerLocation(), std::nullopt);
        }
    }
    QTRY_VERIFY(isFilled(source->image(), blue));
    QCOMPARE(source->bounds(), QRectF(100, 80, 320, 240));
    QVERIFY(source->pointerLocation().has_value());
    QVERIFY(window.send("background ff00ff00"));
    QVERIFY(isFilled(source->image(), green));
    // Another time it does not hold up the end either.
    const Impatience impatience;
    const Stopped stopped(display.server);
    QVERIFY(source->image().isNull());
    source.reset();
}

void X11ServerTest::stoppedAtAnyMoment_data()
{
    QTest::addColumn<QStringList>("missing"); // without DAMAGE every image is read
    QTest::newRow("shared memory") << QStringList{QStringLiteral("DAMAGE")};
    QTest::newRow("socket") << QStringList{QStringLiteral("DAMAGE"), QStringLiteral("MIT-SHM")};
}

void X11ServerTest::stoppedAtAnyMoment()
{
    QFETCH(QStringList, missing);
    DisplayForTest display(QSize(1920, 1200), 24, without(missing));
    QVERIFY2(display.server.isRunning(), qPrintable(display.server.errorString()));
    WindowProcess window({.geometry = QRect(0, 0, 1920, 1080), .pixel = blue});
    WindowSource source(window.id());
    for (int i = 0; i < 4; ++i) {
        QTRY_VERIFY(isFilled(source.image(), blue));
        const Impatience impatience;
        const auto pid = pid_t(display.server.pid());
        std::thread stopper([pid, i] {
            std::this_thread::sleep_for(std::chrono::microseconds(400 * i)); // a moment, not a duration to keep
            ::kill(pid, SIGSTOP);
        });
        while (!source.image().isNull()) { }
        stopper.join();
        ::kill(pid, SIGCONT);
    }
    QTRY_VERIFY(isFilled(source.image(), blue));
}

void X11ServerTest::answerThatStopsInTheMiddle_data()
{
    QTest::addColumn<QStringList>("missing");
    QTest::addColumn<int>("leastSize"); // of what the answer stops in, bytes
    QTest::newRow("short answer") << QStringList{} << 1;
    QTest::newRow("image") << QStringList{QStringLiteral("DAMAGE"), QStringLiteral("MIT-SHM")} << 10'000;
}

/// libxcb itself would wait for the rest of such an answer without a limit.
void X11ServerTest::answerThatStopsInTheMiddle()
{
    QFETCH(QStringList, missing);
    QFETCH(int, leastSize);
    DisplayForTest display(QSize(640, 480), 24, without(missing));
    WindowProcess window({.pixel = blue});
    QVERIFY2(window.id(), qPrintable(window.errorString()));
    DisplayRelay relay(display.server.display());
    QVERIFY2(relay.errorString().isEmpty(), qPrintable(relay.errorString()));
    qputenv("DISPLAY", relay.display());
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));

    {
        const Impatience impatience;
        relay.holdNextAnswer(leastSize);
        QVERIFY(source.image().isNull());
        QVERIFY(relay.isHolding());
        for (int i = 0; i < 1000; ++i)
            QVERIFY(source.image().isNull());
    }
    relay.release();
    QTRY_VERIFY(isFilled(source.image(), blue));
}

/// As a forwarded display does.
void X11ServerTest::relayThatPassesNoDescriptors()
{
    DisplayForTest display;
    WindowProcess window({.pixel = blue});
    DisplayRelay relay(display.server.display());
    qputenv("DISPLAY", relay.display());
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("background ff00ff00"));
    QVERIFY(isFilled(source.image(), green));
}

void X11ServerTest::openingAtAStoppedServer()
{
    DisplayForTest display;
    WindowProcess window({.pixel = blue});
    {
        const Stopped stopped(display.server);
        // Both at once: each waits.
        auto preflight = std::async(std::launch::async, [] { return platform::preflightScreenCaptureAccess(); });
        WindowSource source(window.id());
        QVERIFY(source.image().isNull());
        QVERIFY(!preflight.get());
    }
    QVERIFY(platform::preflightScreenCaptureAccess());
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
}

ORVANTIS_TEST(X11ServerTest)
#include "x11server_test.moc"
