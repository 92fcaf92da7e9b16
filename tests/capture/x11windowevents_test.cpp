// Which events count: the server's own, about the window that is watched.
#include "linux/x11/x11windowevents.h"
#include "testregistry.h"

#include <QTest>

#include <cstring>

#include <xcb/damage.h>

using x11::WindowEvent;

namespace {

constexpr x11::WatchedWindow watched{0x200001, 91, 0x400002};

template <typename Event>
std::optional<WindowEvent> tell(const Event& event)
{
    xcb_generic_event_t raw{};
    static_assert(sizeof(Event) <= sizeof(raw));
    std::memcpy(&raw, &event, sizeof(event));
    return x11::windowEvent(raw, watched);
}

template <typename Event>
Event about(xcb_window_t window, int type)
{
    Event event{};
    event.response_type = quint8(type);
    event.event = window;
    event.window = window;
    return event;
}

xcb_damage_notify_event_t damage(xcb_window_t window, xcb_damage_damage_t object)
{
    xcb_damage_notify_event_t event{};
    event.response_type = 91;
    event.drawable = window;
    event.damage = object;
    event.area = {-3, 4, 50, 60};
    return event;
}

xcb_visibility_notify_event_t shown(xcb_window_t window, int type)
{
    xcb_visibility_notify_event_t event{};
    event.response_type = quint8(type);
    event.window = window;
    return event;
}

}

class X11WindowEventsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void ownEvents();
    void sentEvents();
    void eventsOfOtherWindows();
    void otherDamage();
    void errors();
};

void X11WindowEventsTest::ownEvents()
{
    using Kind = WindowEvent::Kind;
    const xcb_window_t own = watched.window;
    QCOMPARE(tell(about<xcb_destroy_notify_event_t>(own, XCB_DESTROY_NOTIFY))->kind, Kind::Destroyed);
    QCOMPARE(tell(about<xcb_map_notify_event_t>(own, XCB_MAP_NOTIFY))->kind, Kind::Mapped);
    QCOMPARE(tell(about<xcb_unmap_notify_event_t>(own, XCB_UNMAP_NOTIFY))->kind, Kind::Mapped);
    QCOMPARE(tell(about<xcb_reparent_notify_event_t>(own, XCB_REPARENT_NOTIFY))->kind, Kind::Mapped);
    QCOMPARE(tell(shown(own, XCB_VISIBILITY_NOTIFY))->kind, Kind::Shown);

    auto configure = about<xcb_configure_notify_event_t>(own, XCB_CONFIGURE_NOTIFY);
    configure.x = -7;
    configure.y = 8;
    configure.width = 300;
    configure.height = 200;
    const auto configured = tell(configure);
    QCOMPARE(configured->kind, Kind::Configured);
    QCOMPARE(configured->area, QRect(-7, 8, 300, 200));

    auto report = damage(own, watched.damage);
    QCOMPARE(tell(report)->kind, Kind::Damaged);
    QCOMPARE(tell(report)->area, QRect(-3, 4, 50, 60));
    QVERIFY(!tell(report)->more);
    report.level = 0x80;
    QVERIFY(tell(report)->more);
}

void X11WindowEventsTest::sentEvents()
{
    constexpr int sent = 0x80;
    const xcb_window_t own = watched.window;
    QVERIFY(!tell(about<xcb_destroy_notify_event_t>(own, XCB_DESTROY_NOTIFY | sent)));
    QVERIFY(!tell(about<xcb_map_notify_event_t>(own, XCB_MAP_NOTIFY | sent)));
    QVERIFY(!tell(about<xcb_unmap_notify_event_t>(own, XCB_UNMAP_NOTIFY | sent)));
    QVERIFY(!tell(about<xcb_reparent_notify_event_t>(own, XCB_REPARENT_NOTIFY | sent)));
    QVERIFY(!tell(shown(own, XCB_VISIBILITY_NOTIFY | sent)));
    QVERIFY(!tell(about<xcb_configure_notify_event_t>(own, XCB_CONFIGURE_NOTIFY | sent)));
    auto report = damage(own, watched.damage);
    report.response_type |= sent;
    QVERIFY(!tell(report));
}

void X11WindowEventsTest::eventsOfOtherWindows()
{
    constexpr xcb_window_t other = 0x200002;
    QVERIFY(!tell(about<xcb_destroy_notify_event_t>(other, XCB_DESTROY_NOTIFY)));
    QVERIFY(!tell(about<xcb_map_notify_event_t>(other, XCB_MAP_NOTIFY)));
    QVERIFY(!tell(shown(other, XCB_VISIBILITY_NOTIFY)));
    QVERIFY(!tell(about<xcb_configure_notify_event_t>(other, XCB_CONFIGURE_NOTIFY)));
    // Of a child, as who watches the parent gets it.
    auto child = about<xcb_destroy_notify_event_t>(watched.window, XCB_DESTROY_NOTIFY);
    child.window = other;
    QVERIFY(!tell(child));
}

void X11WindowEventsTest::otherDamage()
{
    QVERIFY(!tell(damage(0x200002, watched.damage)));
    QVERIFY(!tell(damage(watched.window, 0x400003)));
    xcb_generic_event_t raw{};
    const auto report = damage(watched.window, watched.damage);
    std::memcpy(&raw, &report, sizeof(report));
    QVERIFY(!x11::windowEvent(raw, {watched.window, std::nullopt, XCB_NONE}));
}

void X11WindowEventsTest::errors()
{
    QVERIFY(!tell(about<xcb_destroy_notify_event_t>(watched.window, 0)));
}

ORVANTIS_TEST(X11WindowEventsTest)
#include "x11windowevents_test.moc"
