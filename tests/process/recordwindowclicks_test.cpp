// The real mouse clicks that record-window reports on X11: where, when, and which of them.
#include "privatexserver.h"
#include "recordwindowprocess.h"
#include "testregistry.h"

#include <QDateTime>
#include <QFile>
#include <QPoint>
#include <QRect>
#include <QTest>

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <csignal>
#include <cstdlib>
#include <memory>

namespace {

constexpr int limitMs = 60'000;
constexpr QRect place(100, 50, 400, 200); // of the recorded window, root coordinates

struct DisconnectDeleter {
    void operator()(xcb_connection_t* connection) const { xcb_disconnect(connection); }
};

/// A user of the display: has windows, moves the pointer, clicks.
class XUser {
public:
    explicit XUser(const QByteArray& display) : connection_(xcb_connect(display.constData(), nullptr)) { }

    bool isThere() const { return !xcb_connection_has_error(connection_.get()); }
    xcb_window_t root() const { return xcb_setup_roots_iterator(xcb_get_setup(connection_.get())).data->root; }

    xcb_window_t makeWindow(const QRect& geometry, xcb_window_t parent = XCB_NONE)
    {
        const xcb_window_t window = xcb_generate_id(connection_.get());
        xcb_create_window(connection_.get(), XCB_COPY_FROM_PARENT, window, parent == XCB_NONE ? root() : parent,
            int16_t(geometry.x()), int16_t(geometry.y()), uint16_t(geometry.width()), uint16_t(geometry.height()), 0,
            XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, 0, nullptr);
        xcb_map_window(connection_.get(), window);
        synchronise();
        return window;
    }

    void destroyWindow(xcb_window_t window)
    {
        xcb_destroy_window(connection_.get(), window);
        synchronise();
    }

    void moveWindow(xcb_window_t window, QPoint to)
    {
        const uint32_t values[] = {uint32_t(to.x()), uint32_t(to.y())};
        xcb_configure_window(connection_.get(), window, XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y, values);
        synchronise();
    }

    void click(QPoint at, uint8_t button = 1)
    {
        xcb_test_fake_input(
            connection_.get(), XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, root(), int16_t(at.x()), int16_t(at.y()), 0);
        for (const uint8_t what : {XCB_BUTTON_PRESS, XCB_BUTTON_RELEASE})
            xcb_test_fake_input(connection_.get(), what, button, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        synchronise();
    }

private:
    void synchronise()
    {
        std::free(xcb_get_input_focus_reply(connection_.get(), xcb_get_input_focus(connection_.get()), nullptr));
    }

    const std::unique_ptr<xcb_connection_t, DisconnectDeleter> connection_;
};

}

class RecordWindowClicksTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void clickIsReported();
    void clickOnADescendantIsReported();
    void clickInAFramedWindowIsReported();
    void clickFollowsTheWindow();
    void everyButtonButTheWheelIsReported();
    void clickElsewhereIsNotReported();
    void clickOnACoveredPartIsNotReported();
    void clickBeforeTheReadinessIsNotReported();
    void noClickIsWatchedWhenUnwanted();
    void closingWindowEndsTheRecording();
    void recordingGoesOnWithoutTheWindow();
    void lossOfTheDisplayIsHarmless();
    void missingDisplayIsNoted();
    void missingWindowIsRefused();
    void stoppedDisplayAtTheStart();
    void stoppedDisplayInMidRecording();

private:
    bool record(xcb_window_t window, const QStringList& more = {});
    int finish();
    bool clickElsewhereNoticed(int count);

    std::unique_ptr<PrivateXServer> server_;
    std::unique_ptr<XUser> user_;
    std::unique_ptr<RecordWindowProcess> launcher_;
};

void RecordWindowClicksTest::init()
{
    server_ = std::make_unique<PrivateXServer>(QSize(800, 600));
    QVERIFY2(server_->isRunning(), qPrintable(server_->errorString()));
    user_ = std::make_unique<XUser>(server_->display());
    QVERIFY(user_->isThere());
    launcher_ = std::make_unique<RecordWindowProcess>();
    launcher_->setEnvironment("DISPLAY", server_->display());
}

void RecordWindowClicksTest::cleanup()
{
    launcher_.reset();
    user_.reset();
    server_.reset();
}

bool RecordWindowClicksTest::record(xcb_window_t window, const QStringList& more)
{
    launcher_->start(QStringList{"--window", QString::number(window), "--verbose"} + more);
    return launcher_->waitForRecording();
}

int RecordWindowClicksTest::finish()
{
    launcher_->interrupt(SIGINT);
    return launcher_->waitForEnd() ? launcher_->process().exitCode() : -1;
}

/// Waits until it has dealt with that many clicks which are none of its window's.
bool RecordWindowClicksTest::clickElsewhereNoticed(int count)
{
    return QTest::qWaitFor(
        [&] { return launcher_->standardError().count("a click elsewhere, not reported") == count; }, limitMs);
}

void RecordWindowClicksTest::clickIsReported()
{
    const xcb_window_t window = user_->makeWindow(place);
    QVERIFY2(record(window), launcher_->standardError());
    const qint64 beforeMs = QDateTime::currentMSecsSinceEpoch();
    user_->click(QPoint(200, 200));
    QTRY_COMPARE_WITH_TIMEOUT(launcher_->clickLines().size(), 1, limitMs);
    const qint64 afterMs = QDateTime::currentMSecsSinceEpoch();
    const QByteArrayList fields = launcher_->clickLines().constFirst().split('|');
    QCOMPARE(fields.size(), 6);
    QCOMPARE(fields.mid(0, 5), QByteArrayList({"click", "200", "200", "0.25", "0.75"}));
    QVERIFY(fields[5].toLongLong() >= beforeMs && fields[5].toLongLong() <= afterMs);
    QCOMPARE(finish(), 0);
    QCOMPARE(launcher_->clickLines().size(), 1); // the release is none
}

void RecordWindowClicksTest::clickOnADescendantIsReported()
{
    const xcb_window_t window = user_->makeWindow(place);
    const xcb_window_t child = user_->makeWindow(QRect(50, 50, 200, 100), window);
    user_->makeWindow(QRect(10, 10, 20, 20), child);
    QVERIFY2(record(window), launcher_->standardError());
    user_->click(QPoint(165, 115)); // on the grandchild
    QTRY_COMPARE_WITH_TIMEOUT(launcher_->clickLines().size(), 1, limitMs);
    QVERIFY2(launcher_->clickLines()[0].startsWith("click|165|115|0.1625|0.325|"), launcher_->clickLines()[0]);
}

void RecordWindowClicksTest::clickInAFramedWindowIsReported()
{
    const xcb_window_t frame = user_->makeWindow(place);
    const xcb_window_t window = user_->makeWindow(QRect(10, 40, 200, 100), frame);
    QVERIFY2(record(window), launcher_->standardError());
    user_->click(QPoint(105, 55)); // on the frame
    QVERIFY(clickElsewhereNoticed(1));
    user_->click(QPoint(160, 115));
    QTRY_COMPARE_WITH_TIMEOUT(launcher_->clickLines().size(), 1, limitMs);
    QVERIFY2(launcher_->clickLines()[0].startsWith("click|160|115|0.25|0.25|"), launcher_->clickLines()[0]);
}

void RecordWindowClicksTest::clickFollowsTheWindow()
{
    const xcb_window_t window = user_->makeWindow(place);
    QVERIFY2(record(window), launcher_->standardError());
    user_->moveWindow(window, QPoint(300, 300));
    user_->click(QPoint(200, 200)); // where it was
    QVERIFY(clickElsewhereNoticed(1));
    user_->click(QPoint(340, 310));
    QTRY_COMPARE_WITH_TIMEOUT(launcher_->clickLines().size(), 1, limitMs);
    QVERIFY2(launcher_->clickLines()[0].startsWith("click|340|310|0.1|0.05|"), launcher_->clickLines()[0]);
}

void RecordWindowClicksTest::everyButtonButTheWheelIsReported()
{
    const xcb_window_t window = user_->makeWindow(place);
    QVERIFY2(record(window), launcher_->standardError());
    for (const uint8_t button : {4, 5, 1, 2, 3})
        user_->click(QPoint(200, 200), button);
    QTRY_COMPARE_WITH_TIMEOUT(launcher_->clickLines().size(), 3, limitMs);
    QCOMPARE(finish(), 0);
    QCOMPARE(launcher_->clickLines().size(), 3);
}

void RecordWindowClicksTest::clickElsewhereIsNotReported()
{
    const xcb_window_t window = user_->makeWindow(place);
    QVERIFY2(record(window), launcher_->standardError());
    const QPoint firstInside = place.topLeft();
    const QPoint lastInside = place.bottomRight();
    int elsewhere = 0;
    for (const QPoint& beside : {firstInside - QPoint(1, 0), firstInside - QPoint(0, 1), lastInside + QPoint(1, 0),
             lastInside + QPoint(0, 1), QPoint(0, 0)}) {
        user_->click(beside);
        QVERIFY(clickElsewhereNoticed(++elsewhere));
    }
    QCOMPARE(launcher_->clickLines().size(), 0);
    user_->click(firstInside);
    QTRY_COMPARE_WITH_TIMEOUT(launcher_->clickLines().size(), 1, limitMs);
    user_->click(lastInside);
    QTRY_COMPARE_WITH_TIMEOUT(launcher_->clickLines().size(), 2, limitMs);
}

void RecordWindowClicksTest::clickOnACoveredPartIsNotReported()
{
    const xcb_window_t window = user_->makeWindow(place);
    const xcb_window_t cover = user_->makeWindow(QRect(150, 100, 100, 100));
    QVERIFY2(record(window), launcher_->standardError());
    user_->click(QPoint(200, 150));
    QVERIFY(clickElsewhereNoticed(1));
    user_->click(QPoint(300, 150)); // the part that is to be seen
    QTRY_COMPARE_WITH_TIMEOUT(launcher_->clickLines().size(), 1, limitMs);
    user_->destroyWindow(cover);
    user_->click(QPoint(200, 150));
    QTRY_COMPARE_WITH_TIMEOUT(launcher_->clickLines().size(), 2, limitMs);
    QVERIFY(launcher_->clickLines()[0].startsWith("click|300|150|"));
    QVERIFY(launcher_->clickLines()[1].startsWith("click|200|150|"));
}

void RecordWindowClicksTest::clickBeforeTheReadinessIsNotReported()
{
    launcher_ = std::make_unique<RecordWindowProcess>("noimage");
    launcher_->setEnvironment("DISPLAY", server_->display());
    launcher_->start({"--window", QString::number(user_->makeWindow(place)), "--verbose"});
    QTRY_VERIFY_WITH_TIMEOUT(launcher_->recorderGroup() > 0, limitMs);
    const auto noticed = [&] { return launcher_->standardError().count("a click elsewhere, not reported"); };
    const auto clickUntilNoticed = [&](qsizetype count) {
        user_->click(QPoint(0, 0));
        return noticed() > count;
    };
    QVERIFY(QTest::qWaitFor([&] { return clickUntilNoticed(0); }, limitMs)); // the clicks are watched from now on
    user_->click(QPoint(200, 200));
    const qsizetype before = noticed();
    QVERIFY(QTest::qWaitFor([&] { return clickUntilNoticed(before); }, limitMs));
    QCOMPARE(finish(), 5);
    QCOMPARE(launcher_->clickLines().size(), 0);
}

void RecordWindowClicksTest::noClickIsWatchedWhenUnwanted()
{
    const xcb_window_t window = user_->makeWindow(place);
    QVERIFY2(record(window, {"--no-watch-clicks", "--click", "7,8@0.3"}), launcher_->standardError());
    user_->click(QPoint(200, 200));
    QTRY_COMPARE_WITH_TIMEOUT(launcher_->clickLines().size(), 1, limitMs);
    QCOMPARE(finish(), 0);
    QCOMPARE(launcher_->clickLines().size(), 1);
    QVERIFY(launcher_->clickLines()[0].startsWith("click|7|8|"));
}

void RecordWindowClicksTest::closingWindowEndsTheRecording()
{
    const xcb_window_t window = user_->makeWindow(place);
    QVERIFY2(record(window), launcher_->standardError());
    user_->destroyWindow(window);
    QVERIFY(launcher_->waitForEnd());
    QCOMPARE(launcher_->process().exitCode(), 0); // no length was asked for
    QVERIFY2(launcher_->standardError().contains("the window has closed"), launcher_->standardError());
    QVERIFY2(launcher_->standardOutput().contains("duration  1.234 s\n"), launcher_->standardOutput());

    launcher_ = std::make_unique<RecordWindowProcess>();
    launcher_->setEnvironment("DISPLAY", server_->display());
    const xcb_window_t second = user_->makeWindow(place);
    QVERIFY2(record(second, {"--no-watch-clicks", "--seconds", "100"}), launcher_->standardError());
    user_->destroyWindow(second);
    QVERIFY(launcher_->waitForEnd());
    QCOMPARE(launcher_->process().exitCode(), 8);
    QVERIFY2(
        launcher_->standardError().contains("the recording lasted 1.23 s, not the 100.00 s that were asked for: the "
                                            "window has closed"),
        launcher_->standardError());
}

void RecordWindowClicksTest::recordingGoesOnWithoutTheWindow()
{
    const xcb_window_t window = user_->makeWindow(place);
    QVERIFY2(record(window, {"--keep-going"}), launcher_->standardError());
    user_->destroyWindow(window);
    user_->click(QPoint(200, 200));
    QVERIFY(clickElsewhereNoticed(1));
    const QByteArray closed = "the window has closed; the recording goes on without frames";
    QTRY_VERIFY2_WITH_TIMEOUT(launcher_->standardError().contains(closed), launcher_->standardError(), limitMs);
    QFile log(launcher_->path("20260101T000000.000Z-orvantis-recorder-log.txt"));
    QVERIFY(log.open(QIODevice::Append));
    log.write("Warning: macOS CoreGraphics capture returned no image for window 7 (f:1, g)\n"
              "Warning: something else (f:1, g)\n");
    log.close();
    QTRY_VERIFY2_WITH_TIMEOUT(
        launcher_->standardError().contains("something else"), launcher_->standardError(), limitMs);
    QVERIFY2(!launcher_->standardError().contains("gives no image"), launcher_->standardError()); // it is known why
    QCOMPARE(finish(), 8);
    QCOMPARE(launcher_->clickLines().size(), 0);
}

void RecordWindowClicksTest::lossOfTheDisplayIsHarmless()
{
    const xcb_window_t window = user_->makeWindow(place);
    QVERIFY2(record(window), launcher_->standardError());
    server_->kill(); // first: the window of a client that leaves is closed, which ends the recording
    user_.reset();
    QTRY_VERIFY_WITH_TIMEOUT(
        launcher_->standardError().contains("not watched: the connection to the X server is lost"), limitMs);
    QCOMPARE(finish(), 0);
}

void RecordWindowClicksTest::missingDisplayIsNoted()
{
    launcher_->unsetEnvironment("DISPLAY");
    QVERIFY2(record(77), launcher_->standardError());
    QCOMPARE(finish(), 0);
    QVERIFY2(
        launcher_->standardError().contains("not watched: no X display can be reached"), launcher_->standardError());
}

void RecordWindowClicksTest::missingWindowIsRefused()
{
    QCOMPARE(launcher_->run({"--window", "0x7fffff", "--output", "wrong"}), 2);
    QVERIFY2(launcher_->standardError().contains("there is no window 0x7fffff on this display"),
        launcher_->standardError());
    QCOMPARE(launcher_->leftFiles(), QStringList());
    QCOMPARE(launcher_->note("process"), QByteArray());
}

void RecordWindowClicksTest::stoppedDisplayAtTheStart()
{
    const xcb_window_t window = user_->makeWindow(place);
    ::kill(pid_t(server_->pid()), SIGSTOP);
    QVERIFY2(record(window), launcher_->standardError());
    QVERIFY2(
        launcher_->standardError().contains("not watched: the X server does not answer"), launcher_->standardError());
    QCOMPARE(finish(), 0);

    launcher_ = std::make_unique<RecordWindowProcess>();
    launcher_->setEnvironment("DISPLAY", server_->display());
    QVERIFY2(record(window), launcher_->standardError());
    ::kill(pid_t(server_->pid()), SIGCONT); // clicks are watched from now on
    const auto isReported = [&] {
        user_->click(QPoint(200, 200));
        return !launcher_->clickLines().isEmpty();
    };
    QVERIFY(QTest::qWaitFor(isReported, limitMs));
    QCOMPARE(finish(), 0);
}

void RecordWindowClicksTest::stoppedDisplayInMidRecording()
{
    const xcb_window_t window = user_->makeWindow(place);
    QVERIFY2(record(window), launcher_->standardError());
    // It finds a click, asks where that was, and gets no answer.
    launcher_->interrupt(SIGSTOP);
    user_->click(QPoint(200, 200));
    ::kill(pid_t(server_->pid()), SIGSTOP);
    launcher_->interrupt(SIGCONT);
    QCOMPARE(finish(), 0);
    QCOMPARE(launcher_->clickLines().size(), 0);
    ::kill(pid_t(server_->pid()), SIGCONT); // XUser closes its connection to it
}

ORVANTIS_TEST(RecordWindowClicksTest)
#include "recordwindowclicks_test.moc"
