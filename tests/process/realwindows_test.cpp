// Windows that this project did not write: a browser, and a plain X client.
#include "desktop.h"
#include "mediafile.h"
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"

#include <QElapsedTimer>
#include <QFile>
#include <QMargins>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <array>
#include <cmath>
#include <utility>

namespace {

/// A page that fills its window: a frame of a known colour, white behind it, and a bar that moves all the time.
constexpr int pageFrame = 24; // pixels, as in the page
constexpr auto page = R"(<!DOCTYPE html><html><head><title>orvantis test page</title><style>
html, body { margin: 0; height: 100%; background: white; overflow: hidden }
#frame { position: fixed; inset: 0; border: 24px solid #0080ff }
#bar { position: fixed; top: 40%; width: 20%; height: 20%; background: #c02000; animation: go 1s linear infinite }
@keyframes go { from { left: 5% } to { left: 75% } }
</style></head><body><div id="frame"></div><div id="bar"></div></body></html>)";

/// A plain page with a tool tip, a menu of its own for the right button, and a list: each opens as a window of its
/// own.
constexpr auto popupPage = R"(<!DOCTYPE html><html><head><title>orvantis test page</title><style>
html, body { margin: 0; height: 100%; background: #103080; overflow: hidden }
select { position: fixed; left: 200px; top: 150px; width: 400px; height: 200px }
option { background: #00c040; color: black }
</style></head><body title="a tool tip that is long enough to be found in the frame of a recording">
<select><option>one<option>two<option>three<option>four</select></body></html>)";
constexpr QPoint onThePage(100, 450); // of the window
constexpr QPoint onTheList(400, 280);

bool isNear(QRgb pixel, QRgb wanted, int tolerance)
{
    return std::abs(qRed(pixel) - qRed(wanted)) <= tolerance && std::abs(qGreen(pixel) - qGreen(wanted)) <= tolerance
        && std::abs(qBlue(pixel) - qBlue(wanted)) <= tolerance;
}

/// How many pixels from a start on, in a direction, have the colour of the page's frame.
int frameWidth(const QImage& frame, QPoint start, QPoint step)
{
    int width = 0;
    for (QPoint at = start; frame.rect().contains(at) && isNear(frame.pixel(at), 0xff0080ff, 60); at += step)
        ++width;
    return width;
}

/// The middle column of the pixels that look like the bar; below 0 when there are none.
double barColumn(const QImage& frame)
{
    const int y = frame.height() / 2;
    double sum = 0.0;
    int count = 0;
    for (int x = 0; x < frame.width(); ++x) {
        if (isNear(frame.pixel(x, y), 0xffc02000, 60)) {
            sum += x;
            ++count;
        }
    }
    return count > 0 ? sum / count : -1.0;
}

/// In how many frames of a file the bar is somewhere else than in the one before.
int barMoves(const QString& path)
{
    int moves = 0;
    double lastColumn = -1.0;
    MediaFile media(path);
    media.forEachFrame([&](const MediaFrame& frame) {
        const double column = barColumn(frame.image);
        moves += column >= 0.0 && std::abs(column - lastColumn) > 1.0;
        lastColumn = column;
        return true;
    });
    return moves;
}

/// How much of a part of a frame is something else than in another frame, 0 to 1.
double changedShare(const QImage& frame, const QImage& before, const QRect& part)
{
    int changed = 0;
    for (int y = part.top(); y <= part.bottom(); ++y) {
        for (int x = part.left(); x <= part.right(); ++x)
            changed += !isNear(frame.pixel(x, y), before.pixel(x, y), 40);
    }
    return part.isEmpty() ? 0.0 : double(changed) / (part.width() * part.height());
}

QProcessEnvironment environmentFor(const QByteArray& display)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DISPLAY"), QString::fromLatin1(display));
    return environment;
}

}

class RealWindowsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void browser_data();
    void browser();
    void popupsOfTheBrowser();
    void plainClient();

private:
    /// The window of the browser: a top-level one that has the page's title; 0 when there is none yet.
    quint32 browserWindow() const;
    void startBrowser(QProcess& browser, const PrivateTempDir& directory, const char* html) const;
    /// Moves the pointer there, and clicks with a button of it; 0 for none.
    bool click(QPoint position, int button) const;
    bool press(const char* key) const;
    bool useTool(const QStringList& arguments) const;
    /// A visible window on the screen that was not there; null when none comes.
    QRect newWindow(const QList<quint32>& before) const;
    QList<quint32> visibleWindows() const;

    PrivateXServer server_;
    std::unique_ptr<Desktop> desktop_;
};

void RealWindowsTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    desktop_ = std::make_unique<Desktop>(server_.display());
    QVERIFY(desktop_->isConnected());
    desktop_->movePointer(QPoint(1900, 1190));
}

quint32 RealWindowsTest::browserWindow() const
{
    return desktop_->titled(QStringLiteral("orvantis test page"));
}

bool RealWindowsTest::useTool(const QStringList& arguments) const
{
    QProcess tool;
    tool.setProcessEnvironment(environmentFor(server_.display()));
    tool.start(QStringLiteral("xdotool"), arguments);
    return tool.waitForFinished(hangLimitMs) && tool.exitCode() == 0;
}

bool RealWindowsTest::click(QPoint position, int button) const
{
    QStringList arguments{QStringLiteral("mousemove"), QString::number(position.x()), QString::number(position.y())};
    if (button != 0)
        arguments += {QStringLiteral("click"), QString::number(button)};
    return useTool(arguments);
}

bool RealWindowsTest::press(const char* key) const
{
    return useTool({QStringLiteral("key"), QLatin1String(key)});
}

QList<quint32> RealWindowsTest::visibleWindows() const
{
    QList<quint32> visible;
    for (const quint32 window : desktop_->children(desktop_->root())) {
        if (desktop_->isViewable(window))
            visible.append(window);
    }
    return visible;
}

QRect RealWindowsTest::newWindow(const QList<quint32>& before) const
{
    QRect place;
    static_cast<void>(QTest::qWaitFor(
        [&] {
            for (const quint32 window : visibleWindows()) {
                if (!before.contains(window))
                    place = desktop_->geometry(window);
            }
            return !place.isNull();
        },
        hangLimitMs));
    return place;
}

void RealWindowsTest::startBrowser(QProcess& browser, const PrivateTempDir& directory, const char* html) const
{
    QFile file(directory.filePath(QStringLiteral("page.html")));
    if (file.open(QIODevice::WriteOnly))
        file.write(html);
    file.close();
    browser.setProcessEnvironment(environmentFor(server_.display()));
    browser.setProcessChannelMode(QProcess::MergedChannels);
    browser.start(QStringLiteral("chromium"),
        {QStringLiteral("--no-sandbox"), QStringLiteral("--disable-gpu"), QStringLiteral("--disable-quic"),
            QStringLiteral("--no-first-run"), QStringLiteral("--disable-background-networking"),
            QStringLiteral("--disable-component-update"), QStringLiteral("--disable-sync"),
            QStringLiteral("--user-data-dir=") + directory.filePath(QStringLiteral("profile")),
            QStringLiteral("--window-position=50,40"), QStringLiteral("--window-size=800,600"),
            QStringLiteral("--app=file://") + file.fileName()});
}

void RealWindowsTest::browser_data()
{
    QTest::addColumn<bool>("compositor"); // then the browser makes its window with an alpha channel
    QTest::newRow("opaque window") << false;
    QTest::newRow("window with an alpha channel") << true;
}

void RealWindowsTest::browser()
{
    QFETCH(bool, compositor);
    if (compositor)
        desktop_->claimCompositor();
    RecordingScene scene(server_.display(), 0);
    QProcess browser;
    startBrowser(browser, scene.directory, page);
    QVERIFY2(browser.waitForStarted(), qPrintable(browser.errorString()));
    QVERIFY2(QTest::qWaitFor([this] { return browserWindow() != 0; }, hangLimitMs), browser.readAll());
    const quint32 window = browserWindow();

    // As if the application drew a shadow around what the user takes for the window.
    const QMargins shadow(10, 4, 12, 8);
    const QList<quint32> leftRightTopBottom{
        quint32(shadow.left()), quint32(shadow.right()), quint32(shadow.top()), quint32(shadow.bottom())};
    desktop_->setProperty(window, "_GTK_FRAME_EXTENTS", leftRightTopBottom);
    const QSize visible = desktop_->geometry(window).marginsRemoved(shadow).size();
    QCOMPARE(visible, QSize(778, 588));
    scene.command.window = QString::number(window);
    scene.command.canvasWidth = QString::number(visible.width());
    scene.command.canvasHeight = QString::number(visible.height());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(4000), scene.story());
    QVERIFY2(scene.stopAndExit(), scene.story());
    browser.terminate();
    QVERIFY(browser.waitForFinished(hangLimitMs));

    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QCOMPARE(file.last.size(), visible);
    // What is left of the page's frame, without the shadow and without bars of a letterbox. Halved chroma blurs it.
    const QPoint inside(visible.width() / 2, visible.height() * 3 / 4);
    QVERIFY2(isNear(file.last.pixel(inside), 0xffffffff, 20), qPrintable(file.last.pixelColor(inside).name()));
    const QList<int> found{frameWidth(file.last, QPoint(0, inside.y()), QPoint(1, 0)),
        frameWidth(file.last, QPoint(visible.width() - 1, inside.y()), QPoint(-1, 0)),
        frameWidth(file.last, QPoint(inside.x(), visible.height() - 1), QPoint(0, -1))};
    const QList<int> expected{pageFrame - shadow.left(), pageFrame - shadow.right(), pageFrame - shadow.bottom()};
    for (qsizetype i = 0; i < found.size(); ++i)
        QVERIFY2(std::abs(found[i] - expected[i]) <= 2, qPrintable(QStringLiteral("%1: %2").arg(i).arg(found[i])));
    QVERIFY(barMoves(scene.command.output) > file.ptsMs.size() / 4);
}

/// Its list is drawn by another process of the browser than its page; the X server knows one client for both.
void RealWindowsTest::popupsOfTheBrowser()
{
    RecordingScene scene(server_.display(), 0);
    scene.recorder.setVariable(QStringLiteral("ORVANTIS_POPUPS"), QStringLiteral("1"));
    QProcess browser;
    startBrowser(browser, scene.directory, popupPage);
    QVERIFY2(browser.waitForStarted(), qPrintable(browser.errorString()));
    QVERIFY2(QTest::qWaitFor([this] { return browserWindow() != 0; }, hangLimitMs), browser.readAll());
    const quint32 window = browserWindow();
    const QRect place = desktop_->geometry(window);
    scene.command.window = QString::number(window);
    scene.command.canvasWidth = QString::number(place.width());
    scene.command.canvasHeight = QString::number(place.height());
    QVERIFY2(scene.startRecording(), scene.story());
    constexpr int shownMs = 1000;
    QVERIFY2(scene.waitUntilRecorded(shownMs), scene.story());
    QElapsedTimer sinceThen;
    sinceThen.start();
    const auto recordSome = [&] { return scene.waitUntilRecorded(int(sinceThen.elapsed()) + 2 * shownMs); };
    const QList<quint32> before = visibleWindows();
    const std::array popups{std::pair{onThePage, 0}, std::pair{onThePage, 3}, std::pair{onTheList, 1}};
    QList<QRect> parts; // of the frame
    for (const auto& [position, button] : popups) {
        QVERIFY(click(place.topLeft() + position - QPoint(3, 0), 0));
        QVERIFY(click(place.topLeft() + position, button));
        const QRect popup = newWindow(before);
        QVERIFY2(!popup.isNull(), qPrintable(QString::number(parts.size())));
        parts.append((popup & place).translated(-place.topLeft()));
        QVERIFY2(recordSome(), scene.story());
        QVERIFY(press("Escape"));
        QVERIFY(QTest::qWaitFor([&] { return visibleWindows() == before; }, hangLimitMs));
    }
    QVERIFY2(recordSome(), scene.story());
    QVERIFY2(scene.stopAndExit(), scene.story());
    browser.terminate();
    QVERIFY(browser.waitForFinished(hangLimitMs));

    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QImage first;
    QList<double> shares(parts.size(), 0.0);
    MediaFile media(scene.command.output);
    media.forEachFrame([&](const MediaFrame& frame) {
        if (first.isNull())
            first = frame.image.copy();
        for (qsizetype i = 0; i < parts.size(); ++i)
            shares[i] = std::max(shares[i], changedShare(frame.image, first, parts[i]));
        return true;
    });
    for (qsizetype i = 0; i < parts.size(); ++i)
        QVERIFY2(shares[i] > 0.5, qPrintable(QStringLiteral("%1: %2").arg(i).arg(shares[i])));
    QVERIFY(changedShare(file.last, first, parts[1]) < 0.1); // and then it is gone
}

void RealWindowsTest::plainClient()
{
    // An event tester: white, with a black square in it, as drawn by Xlib.
    QProcess client;
    client.setProcessEnvironment(environmentFor(server_.display()));
    client.setProcessChannelMode(QProcess::MergedChannels);
    client.start(QStringLiteral("xev"), {QStringLiteral("-geometry"), QStringLiteral("400x300+700+500")});
    QVERIFY2(client.waitForStarted(), qPrintable(client.errorString()));
    QByteArray said;
    static const QRegularExpression outer(QStringLiteral("Outer window is (0x[0-9a-f]+)"));
    const auto isShown = [&] {
        said += client.readAll();
        return said.contains("MapNotify") && outer.match(QString::fromLatin1(said)).hasMatch();
    };
    QVERIFY2(QTest::qWaitFor(isShown, hangLimitMs), said);
    const quint32 window = outer.match(QString::fromLatin1(said)).captured(1).toUInt(nullptr, 0);

    RecordingScene scene(server_.display(), window);
    scene.command.canvasWidth = QStringLiteral("400");
    scene.command.canvasHeight = QStringLiteral("300");
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(1000), scene.story());
    QVERIFY2(scene.stopAndExit(), scene.story());
    client.terminate();
    QVERIFY(client.waitForFinished(hangLimitMs));

    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole() && file.ptsMs.size() > 5, file.description()); // although nothing changes in it
    QVERIFY2(isNear(file.last.pixel(300, 250), 0xffffffff, 12), qPrintable(file.last.pixelColor(300, 250).name()));
    bool hasBlack = false;
    for (int y = 0; y < file.last.height(); ++y) {
        for (int x = 0; x < file.last.width(); ++x)
            hasBlack = hasBlack || isNear(file.last.pixel(x, y), 0xff000000, 24);
    }
    QVERIFY(hasBlack);
}

ORVANTIS_TEST(RealWindowsTest)
#include "realwindows_test.moc"
