// How record-window finds the window that is meant on X11, and what it takes from it: size and process.
#include "privatexserver.h"
#include "recordwindowprocess.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <xcb/xcb.h>
#include <xcb/xtest.h>

#include <csignal>
#include <cstdlib>
#include <memory>

namespace {

struct DisconnectDeleter {
    void operator()(xcb_connection_t* connection) const { xcb_disconnect(connection); }
};

/// An application of the test's own process, and the user who moves the pointer and clicks.
class XUser {
public:
    explicit XUser(const QByteArray& display) : connection_(xcb_connect(display.constData(), nullptr)) { }

    xcb_window_t makeWindow(const QRect& place, const QByteArray& title)
    {
        const xcb_window_t window = xcb_generate_id(xcb());
        xcb_create_window(xcb(), XCB_COPY_FROM_PARENT, window, root(), int16_t(place.x()), int16_t(place.y()),
            uint16_t(place.width()), uint16_t(place.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
            0, nullptr);
        xcb_change_property(xcb(), XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
            uint32_t(title.size()), title.constData());
        xcb_map_window(xcb(), window);
        synchronise();
        return window;
    }
    void focus(xcb_window_t window)
    {
        xcb_set_input_focus(xcb(), XCB_INPUT_FOCUS_PARENT, window, XCB_CURRENT_TIME);
        synchronise();
    }
    void click(QPoint at, uint8_t button)
    {
        xcb_test_fake_input(
            xcb(), XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, root(), int16_t(at.x()), int16_t(at.y()), 0);
        for (const uint8_t what : {XCB_BUTTON_PRESS, XCB_BUTTON_RELEASE})
            xcb_test_fake_input(xcb(), what, button, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        synchronise();
    }
    /// Codes of keys, as Xvfb's keyboard has them.
    void type(std::initializer_list<uint8_t> keys)
    {
        for (const uint8_t key : keys) {
            for (const uint8_t what : {XCB_KEY_PRESS, XCB_KEY_RELEASE})
                xcb_test_fake_input(xcb(), what, key, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
        }
        synchronise();
    }
    /// Whether another client holds the pointer. Tried while the server serves nobody else: who asks for the pointer
    /// in that moment would be refused.
    bool pointerIsHeld()
    {
        xcb_grab_server(xcb());
        const std::unique_ptr<xcb_grab_pointer_reply_t, decltype(&std::free)> reply(
            xcb_grab_pointer_reply(xcb(),
                xcb_grab_pointer(xcb(), 0, root(), 0, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC, XCB_NONE, XCB_NONE,
                    XCB_CURRENT_TIME),
                nullptr),
            &std::free);
        xcb_ungrab_pointer(xcb(), XCB_CURRENT_TIME);
        xcb_ungrab_server(xcb());
        synchronise();
        return reply && reply->status == XCB_GRAB_STATUS_ALREADY_GRABBED;
    }

private:
    xcb_connection_t* xcb() const { return connection_.get(); }
    xcb_window_t root() const { return xcb_setup_roots_iterator(xcb_get_setup(xcb())).data->root; }
    void synchronise() { std::free(xcb_get_input_focus_reply(xcb(), xcb_get_input_focus(xcb()), nullptr)); }

    const std::unique_ptr<xcb_connection_t, DisconnectDeleter> connection_;
};

constexpr QRect letterPlace(100, 50, 402, 200);
constexpr QRect notesPlace(520, 50, 200, 100);

}

class RecordWindowChoiceTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();

    void listShowsTheWindows();
    void listAsJson();
    void listWithoutADisplay();
    void chosenByTitle();
    void severalTitlesAreShown();
    void chosenByProcess();
    void activeWindow();
    void selectedWindow();
    void selectionCancelled_data();
    void selectionCancelled();
    void ignoredInterruptEndsTheSelection();
    void sizeAndProcessAreTheWindows();
    void wishesComeFirst();
    void nothingFound_data();
    void nothingFound();

private:
    QByteArray recorded(const QStringList& arguments);
    int list(const QStringList& arguments = {});

    PrivateXServer server_{QSize(800, 600)};
    std::unique_ptr<XUser> user_;
    std::unique_ptr<TruthWindowProcess> truth_;
    xcb_window_t letter_ = XCB_NONE;
    xcb_window_t notes_ = XCB_NONE;
    std::unique_ptr<RecordWindowProcess> launcher_;
};

void RecordWindowChoiceTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    user_ = std::make_unique<XUser>(server_.display());
    truth_ = std::make_unique<TruthWindowProcess>(server_.display(), QRect(40, 300, 640, 240), 0);
    QVERIFY2(truth_->id() != 0, qPrintable(truth_->errorString()));
    letter_ = user_->makeWindow(letterPlace, "A letter \033[31mto you");
    notes_ = user_->makeWindow(notesPlace, "Notes to self");
}

void RecordWindowChoiceTest::init()
{
    launcher_ = std::make_unique<RecordWindowProcess>();
    launcher_->setEnvironment("DISPLAY", server_.display());
}

/// The window id that the recorder gets; empty when it gets none.
QByteArray RecordWindowChoiceTest::recorded(const QStringList& arguments)
{
    const int code = launcher_->run(arguments + QStringList{"--seconds", "0.1"});
    return code == 0 ? launcher_->recorderArguments().value(3) : launcher_->standardError();
}

int RecordWindowChoiceTest::list(const QStringList& arguments)
{
    launcher_->startWithout(QStringList{"--list"} + arguments);
    return launcher_->waitForEnd() ? launcher_->process().exitCode() : -1;
}

void RecordWindowChoiceTest::listShowsTheWindows()
{
    QCOMPARE(list(), 0);
    const QByteArray list = launcher_->standardOutput();
    QCOMPARE(list.count('\n'), 1 + 3);
    const QByteArray process = QByteArray::number(QCoreApplication::applicationPid()) + " process_tests";
    const QByteArray id = "0x" + QByteArray::number(letter_, 16);
    QVERIFY2(list.contains("\n" + id.leftJustified(10) + "  402x200      " + process.leftJustified(24)
                 + "  A letter ?[31mto you\n"),
        list);
    QVERIFY2(list.contains(QByteArray::number(truth_->pid()) + " truthwindow"), list);
    QCOMPARE(launcher_->leftFiles(), QStringList());
}

void RecordWindowChoiceTest::listAsJson()
{
    QCOMPARE(list({"--json"}), 0);
    const QJsonArray list = QJsonDocument::fromJson(launcher_->standardOutput()).array();
    QCOMPARE(list.size(), 3);
    QJsonObject notes;
    for (const QJsonValue& window : list) {
        if (window.toObject().value("window").toInteger() == notes_)
            notes = window.toObject();
    }
    const QJsonObject expected{{"window", qint64(notes_)}, {"pid", QCoreApplication::applicationPid()},
        {"process", "process_tests"}, {"title", "Notes to self"}, {"width", 200}, {"height", 100}, {"shown", true}};
    QCOMPARE(notes, expected);
}

void RecordWindowChoiceTest::listWithoutADisplay()
{
    launcher_->unsetEnvironment("DISPLAY");
    QCOMPARE(list(), 2);
    QCOMPARE(launcher_->standardError(), QByteArray("record-window: no X display can be reached\n"));
}

void RecordWindowChoiceTest::chosenByTitle()
{
    QCOMPARE(recorded({"--title", "LETTER"}), QByteArray::number(letter_));
    init();
    QCOMPARE(recorded({"--title", "/^Notes .*self$/"}), QByteArray::number(notes_));
}

void RecordWindowChoiceTest::severalTitlesAreShown()
{
    QCOMPARE(launcher_->run({"--title", "to"}), 2);
    const QByteArray error = launcher_->standardError();
    QVERIFY2(error.contains("2 windows are meant"), error);
    QVERIFY(error.contains("A letter ?[31mto you") || error.contains("Notes to self"));
    QVERIFY(!error.contains('\033'));
    QCOMPARE(launcher_->leftFiles(), QStringList());
}

void RecordWindowChoiceTest::chosenByProcess()
{
    QCOMPARE(recorded({"--pid", QString::number(truth_->pid())}), QByteArray::number(truth_->id()));
    init();
    QCOMPARE(launcher_->run({"--pid", QString::number(QCoreApplication::applicationPid())}), 2);
    QVERIFY2(launcher_->standardError().contains("2 windows are meant"), launcher_->standardError());
}

void RecordWindowChoiceTest::activeWindow()
{
    user_->focus(notes_);
    QCOMPARE(recorded({"--active"}), QByteArray::number(notes_));
}

void RecordWindowChoiceTest::selectedWindow()
{
    launcher_->start({"--select", "--seconds", "0.1"});
    QTRY_VERIFY_WITH_TIMEOUT(user_->pointerIsHeld(), 60'000);
    user_->click(QPoint(110, 60), 1);
    QVERIFY(launcher_->waitForEnd());
    QCOMPARE(launcher_->recorderArguments().value(3), QByteArray::number(letter_));
}

void RecordWindowChoiceTest::selectionCancelled_data()
{
    QTest::addColumn<bool>("byKey");
    QTest::newRow("right button") << false;
    QTest::newRow("Escape") << true;
}

void RecordWindowChoiceTest::selectionCancelled()
{
    QFETCH(const bool, byKey);
    launcher_->start({"--select"});
    QTRY_VERIFY_WITH_TIMEOUT(user_->pointerIsHeld(), 60'000);
    if (byKey)
        user_->type({38, 9}); // "a", which means nothing, and Escape
    else
        user_->click(QPoint(110, 60), 3);
    QVERIFY(launcher_->waitForEnd());
    QCOMPARE(launcher_->process().exitCode(), 2);
    QVERIFY2(launcher_->standardError().contains("--select: no window was clicked"), launcher_->standardError());
    QTRY_VERIFY_WITH_TIMEOUT(!user_->pointerIsHeld(), 60'000); // the server may notice the end later
}

/// As a job in the background of a script has it.
void RecordWindowChoiceTest::ignoredInterruptEndsTheSelection()
{
    launcher_->process().setChildProcessModifier([] { std::signal(SIGINT, SIG_IGN); });
    launcher_->start({"--select"});
    QTRY_VERIFY_WITH_TIMEOUT(user_->pointerIsHeld(), 60'000);
    launcher_->interrupt(SIGINT);
    QVERIFY(launcher_->waitForEnd());
    QCOMPARE(launcher_->leftFiles(), QStringList());
    QTRY_VERIFY_WITH_TIMEOUT(!user_->pointerIsHeld(), 60'000);
}

void RecordWindowChoiceTest::sizeAndProcessAreTheWindows()
{
    QCOMPARE(recorded({"--window", QString::number(truth_->id())}), QByteArray::number(truth_->id()));
    const QByteArrayList arguments = launcher_->recorderArguments();
    QCOMPARE(arguments.mid(6, 2), QByteArrayList({"640", "240"}));
    QCOMPARE(arguments[9], "app-pid:" + QByteArray::number(truth_->pid()));
}

void RecordWindowChoiceTest::wishesComeFirst()
{
    QCOMPARE(recorded({"--window", QString::number(truth_->id()), "--canvas", "32x34", "--audio", "system"}),
        QByteArray::number(truth_->id()));
    QCOMPARE(launcher_->recorderArguments().mid(6, 2), QByteArrayList({"32", "34"}));
    QCOMPARE(launcher_->recorderArguments()[9], QByteArray());
}

void RecordWindowChoiceTest::nothingFound_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("sentence");
    QTest::newRow("title") << QStringList{"--title", "n\033o"}
                           << QByteArray("no window has 'n?o' in its title; --list shows");
    QTest::newRow("process") << QStringList{"--pid", "1"} << QByteArray("process 1 shows no window; --list shows");
    QTest::newRow("id") << QStringList{"--window", "0x77"} << QByteArray("there is no window 0x77 on this display");
}

void RecordWindowChoiceTest::nothingFound()
{
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, sentence);
    QCOMPARE(launcher_->run(arguments), 2);
    QVERIFY2(launcher_->standardError().contains(sentence), launcher_->standardError());
    QCOMPARE(launcher_->leftFiles(), QStringList());
    QCOMPARE(launcher_->note("process"), QByteArray());
}

ORVANTIS_TEST(RecordWindowChoiceTest)
#include "recordwindowchoice_test.moc"
