// Another client of the X server that tries to blind the recording.
#include "foreignclient.h"
#include "testregistry.h"
#include "x11fixture.h"

#include <QTest>

#include <memory>
#include <utility>

using platform::WindowSource;

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
    void detachedSegment();
    void freedPixmaps();

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

ORVANTIS_TEST(X11AttacksTest)
#include "x11attacks_test.moc"
