// Windows that this project did not write: a browser, and a plain X client.
#include "desktop.h"
#include "mediafile.h"
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"

#include <QFile>
#include <QMargins>
#include <QProcess>
#include <QRegularExpression>
#include <QTest>

#include <cmath>

namespace {

/// A page that fills its window: a frame of a known colour, white behind it, and a bar that moves all the time.
constexpr int pageFrame = 24; // pixels, as in the page
constexpr auto page = R"(<!DOCTYPE html><html><head><title>orvantis test page</title><style>
html, body { margin: 0; height: 100%; background: white; overflow: hidden }
#frame { position: fixed; inset: 0; border: 24px solid #0080ff }
#bar { position: fixed; top: 40%; width: 20%; height: 20%; background: #c02000; animation: go 1s linear infinite }
@keyframes go { from { left: 5% } to { left: 75% } }
</style></head><body><div id="frame"></div><div id="bar"></div></body></html>)";

/// A list that opens over the page, as a window of its own; its entries have a colour that is nowhere else.
constexpr auto listPage = R"(<!DOCTYPE html><html><head><title>orvantis test page</title><style>
html, body { margin: 0; height: 100%; background: white; overflow: hidden }
select { position: fixed; left: 200px; top: 150px; width: 400px; height: 200px }
option { background: #00c040; color: black }
</style></head><body><select><option>one<option>two<option>three<option>four</select></body></html>)";
constexpr QPoint onTheList(400, 280); // of the window

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

int pixelsLike(const QImage& frame, QRgb wanted)
{
    int count = 0;
    for (int y = 0; y < frame.height(); ++y) {
        for (int x = 0; x < frame.width(); ++x)
            count += isNear(frame.pixel(x, y), wanted, 30);
    }
    return count;
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
    void listOfTheBrowser();
    void plainClient();

private:
    /// The window of the browser: a top-level one that has the page's title; 0 when there is none yet.
    quint32 browserWindow() const;
    void startBrowser(QProcess& browser, const PrivateTempDir& directory, const char* html) const;
    bool click(QPoint position) const;

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

bool RealWindowsTest::click(QPoint position) const
{
    QProcess clicking;
    clicking.setProcessEnvironment(environmentFor(server_.display()));
    clicking.start(QStringLiteral("xdotool"),
        {QStringLiteral("mousemove"), QString::number(position.x()), QString::number(position.y()),
            QStringLiteral("click"), QStringLiteral("1")});
    return clicking.waitForFinished(hangLimitMs) && clicking.exitCode() == 0;
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

/// Drawn by another process of the browser than its page; the X server knows one client for both.
void RealWindowsTest::listOfTheBrowser()
{
    RecordingScene scene(server_.display(), 0);
    scene.recorder.setVariable(QStringLiteral("ORVANTIS_POPUPS"), QStringLiteral("1"));
    QProcess browser;
    startBrowser(browser, scene.directory, listPage);
    QVERIFY2(browser.waitForStarted(), qPrintable(browser.errorString()));
    QVERIFY2(QTest::qWaitFor([this] { return browserWindow() != 0; }, hangLimitMs), browser.readAll());
    const quint32 window = browserWindow();
    const QRect place = desktop_->geometry(window);
    scene.command.window = QString::number(window);
    scene.command.canvasWidth = QString::number(place.width());
    scene.command.canvasHeight = QString::number(place.height());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(1000), scene.story());
    const qsizetype windows = desktop_->children(desktop_->root()).size();
    QVERIFY(click(place.topLeft() + onTheList));
    QVERIFY(QTest::qWaitFor([&] { return desktop_->children(desktop_->root()).size() > windows; }, hangLimitMs));
    QVERIFY2(scene.waitUntilRecorded(3000), scene.story());
    QVERIFY2(scene.stopAndExit(), scene.story());
    browser.terminate();
    QVERIFY(browser.waitForFinished(hangLimitMs));

    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QCOMPARE(file.last.size(), place.size());
    int first = -1;
    MediaFile media(scene.command.output);
    media.forEachFrame([&](const MediaFrame& frame) {
        first = pixelsLike(frame.image, 0xff00c040);
        return false;
    });
    QCOMPARE(first, 0);
    const int entries = pixelsLike(file.last, 0xff00c040);
    QVERIFY2(entries > 5000, qPrintable(QString::number(entries)));
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
