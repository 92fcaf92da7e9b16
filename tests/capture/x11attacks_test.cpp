// Another client of the X server that tries to blind the recording.
#include "foreignclient.h"
#include "linux/x11/x11windowimages.h"
#include "logcapture.h"
#include "testregistry.h"
#include "x11fixture.h"

#include <QTest>

#include <chrono>
#include <memory>
#include <utility>

using WindowSource = SampledWindow;

namespace {

constexpr quint32 blue = 0xff2040c0;
constexpr quint32 green = 0xff00ff00;

}

class X11AttacksTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void forgedEndOfTheWindow();
    void forgedEventsReadNothing();
    void destroyedDamage();
    void damageDestroyedAgainAndAgain();
    void resizedThereAndBackWithoutDamage();
    void detachedSegment();
    void freedPixmaps();
    void endedConnection();
    void idOfAnotherProgramAfterwards();

private:
    std::unique_ptr<DisplayForTest> display_;
};

void X11AttacksTest::initTestCase()
{
    display_ = std::make_unique<DisplayForTest>();
    QVERIFY2(display_->server.isRunning(), qPrintable(display_->server.errorString()));
}

void X11AttacksTest::forgedEndOfTheWindow()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    ForeignClient attacker;
    QVERIFY(attacker.isConnected());
    xcb_destroy_notify_event_t event{};
    event.response_type = XCB_DESTROY_NOTIFY;
    event.event = window.id();
    event.window = window.id();
    attacker.send(window.id(), event);
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("background ff00ff00"));
    QVERIFY(isFilled(source.image(), green));
}

/// A change that a client makes up costs no fetch, so that it cannot make us work either.
void X11AttacksTest::forgedEventsReadNothing()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QImage settled = source.image();
    QTRY_VERIFY(std::exchange(settled, source.image()).cacheKey() == settled.cacheKey());
    ForeignClient attacker;
    xcb_map_notify_event_t map{};
    map.response_type = XCB_MAP_NOTIFY;
    map.event = window.id();
    map.window = window.id();
    attacker.send(window.id(), map);
    QCOMPARE(source.image().cacheKey(), settled.cacheKey());
    xcb_configure_notify_event_t configure{};
    configure.response_type = XCB_CONFIGURE_NOTIFY;
    configure.event = window.id();
    configure.window = window.id();
    configure.width = 10;
    configure.height = 10;
    attacker.send(window.id(), configure);
    QCOMPARE(source.image().cacheKey(), settled.cacheKey());
}

void X11AttacksTest::destroyedDamage()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    ForeignClient().destroyDamage();
    QVERIFY(window.send("background ff00ff00"));
    QTRY_VERIFY(isFilled(source.image(), green));
    // From then on reported again.
    for (const char* pixel : {"ff000001", "ff000002", "ff000003"}) {
        QVERIFY(window.send(QByteArray("background ") + pixel));
        QVERIFY(isFilled(source.image(), QByteArray(pixel).toUInt(nullptr, 16)));
    }
}

void X11AttacksTest::damageDestroyedAgainAndAgain()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    ForeignClient attacker;
    for (quint32 i = 1; i <= 3; ++i) {
        attacker.destroyDamage();
        QVERIFY(window.send("background " + QByteArray::number(i, 16)));
        QTRY_VERIFY(isFilled(source.image(), 0xff000000 | i));
    }
}

/// The background has come back with the other size, and nothing else tells.
void X11AttacksTest::resizedThereAndBackWithoutDamage()
{
    WindowProcess window({.pixel = blue});
    Sampled<x11::WindowImages> source(window.id(), [] { return std::chrono::steady_clock::time_point(); });
    QVERIFY(window.send("fill ff00ff00 0 0 320 240"));
    QVERIFY(isFilled(source.image(), green));
    ForeignClient().destroyDamage();
    while (source.image().cacheKey() != source.image().cacheKey()) { } // until what was reported before is read
    QVERIFY(window.send("resize 321 240") && window.send("resize 320 240"));
    QVERIFY(!isFilled(source.image(), green));
    QTRY_VERIFY(isFilled(source.image(), blue));
}

void X11AttacksTest::detachedSegment()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    ForeignClient attacker;
    for (quint32 i = 1; i <= 3; ++i) {
        attacker.detachSegments();
        QVERIFY(window.send("background " + QByteArray::number(i, 16)));
        QVERIFY(isFilled(source.image(), 0xff000000 | i));
    }
    QVERIFY(window.send("background ff00ff00")); // with a segment again
    QVERIFY(isFilled(source.image(), green));
}

void X11AttacksTest::freedPixmaps()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    ForeignClient().freePixmaps();
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("background ff00ff00"));
    QVERIFY(isFilled(source.image(), green));
}

void X11AttacksTest::endedConnection()
{
    LogCapture log;
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    for (quint32 i = 1; i <= 3; ++i) {
        ForeignClient().endConnections(window.id());
        QTRY_VERIFY(isFilled(source.image(), blue));
        QVERIFY(source.pointerLocation().has_value());
    }
    QVERIFY(window.send("background ff00ff00"));
    QVERIFY(isFilled(source.image(), green));
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList(
            QStringLiteral("Connection to the X server was ended from outside; connecting again. Told once.")));
}

/// Its window is not the one that is recorded.
void X11AttacksTest::idOfAnotherProgramAfterwards()
{
    auto window = std::make_unique<WindowProcess>(WindowStart{.pixel = blue});
    const quint32 id = window->id();
    std::chrono::steady_clock::time_point now;
    Sampled<x11::WindowImages> source(id, [&now] { return now; });
    QVERIFY(isFilled(source.image(), blue));
    ForeignClient().endConnections(id);
    window->kill();
    window = std::make_unique<WindowProcess>(WindowStart{.pixel = green});
    for (int i = 0; window->id() != id && i < 20; ++i) // the server gives ids away in turn
        window = std::make_unique<WindowProcess>(WindowStart{.pixel = green});
    QCOMPARE(window->id(), id);
    for (int i = 0; i < 3; ++i) {
        QVERIFY(source.image().isNull());
        now += x11::WindowImages::checkInterval;
    }
}

ORVANTIS_TEST(X11AttacksTest)
#include "x11attacks_test.moc"
