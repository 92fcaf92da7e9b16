// Recordings on real compositors: a browser that runs natively on Wayland, and programs of X11 on Xwayland at several
// scales.
#include "desktop.h"
#include "mediafile.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthreport.h"
#include "truthwindowprocess.h"
#include "waylanddesktop.h"
#include "waylandwindow.h"

#include <QDateTime>
#include <QFile>
#include <QProcess>
#include <QTest>

#include <algorithm>
#include <cmath>
#include <optional>
#include <utility>

namespace {

using Kind = WaylandDesktop::Kind;

/// A page that fills its window: a frame of a known colour, white behind it, and a bar that moves all the time. It
/// changes the window's size.
constexpr auto page = R"(<!DOCTYPE html><html><head><title>orvantis test page</title><style>
html, body { margin: 0; height: 100%; background: white; overflow: hidden }
#frame { position: fixed; inset: 0; border: 24px solid #0080ff }
#bar { position: fixed; top: 40%; width: 20%; height: 20%; background: #c02000; animation: go 1s linear infinite }
@keyframes go { from { left: 5% } to { left: 75% } }
</style></head><body><div id="frame"></div><div id="bar"></div><script>
let step = 0;
setInterval(() => { ++step; window.resizeTo(step % 2 ? 500 : 640, step % 2 ? 520 : 400) }, 700);
</script></body></html>)";

constexpr QSize canvas(800, 600);

bool isNear(QRgb pixel, QRgb wanted)
{
    constexpr int tolerance = 70; // of the encoder, and of scaling
    return std::abs(qRed(pixel) - qRed(wanted)) <= tolerance && std::abs(qGreen(pixel) - qGreen(wanted)) <= tolerance
        && std::abs(qBlue(pixel) - qBlue(wanted)) <= tolerance;
}

/// What of a frame is not the black beside the window. Its content has no black.
QRect shownPart(const QImage& frame)
{
    const auto isBlack = [](QRgb pixel) { return qRed(pixel) + qGreen(pixel) + qBlue(pixel) < 120; };
    QRect part = frame.rect();
    const QPoint middle = part.center();
    while (part.left() < middle.x() && isBlack(frame.pixel(part.left(), middle.y())))
        part.setLeft(part.left() + 1);
    while (part.right() > middle.x() && isBlack(frame.pixel(part.right(), middle.y())))
        part.setRight(part.right() - 1);
    while (part.bottom() > middle.y() && isBlack(frame.pixel(middle.x(), part.bottom())))
        part.setBottom(part.bottom() - 1);
    return part;
}

/// The page's frame lies at three edges of what is shown; a title bar may be at the fourth.
bool isWholePage(const QImage& frame)
{
    constexpr int inside = 8; // of 24, scaled
    const QRect part = shownPart(frame);
    const QPoint middle = part.center();
    return isNear(frame.pixel(part.left() + inside, middle.y()), 0xff0080ff)
        && isNear(frame.pixel(part.right() - inside, middle.y()), 0xff0080ff)
        && isNear(frame.pixel(middle.x(), part.bottom() - inside), 0xff0080ff);
}

bool isKnown(const QList<QSize>& sizes, const QSize& size)
{
    constexpr int tolerance = 3; // of where the black begins
    return std::any_of(sizes.begin(), sizes.end(), [&](const QSize& known) {
        return std::abs(known.width() - size.width()) <= tolerance
            && std::abs(known.height() - size.height()) <= tolerance;
    });
}

QByteArray clickLine(const QRect& window, const QPointF& inWindow)
{
    const QPointF onScreen = inWindow + window.topLeft();
    QByteArray line = "click";
    for (const double number :
        {onScreen.x(), onScreen.y(), inWindow.x() / window.width(), inWindow.y() / window.height()})
        line += '|' + QByteArray::number(number, 'f', 6);
    return line + '|' + QByteArray::number(QDateTime::currentMSecsSinceEpoch()) + '\n';
}

}

class WaylandDesktopTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void browser();
    void xwayland_data();
    void xwayland();
};

/// Resized all the time, covered, and closed while it is recorded.
void WaylandDesktopTest::browser()
{
    WaylandDesktop desktop{WaylandDesktop::Options()};
    QVERIFY2(desktop.isRunning(), qPrintable(desktop.errorString()));
    desktop.apply(); // the way to PipeWire
    RecordingScene scene(QByteArray(), 0);
    QFile file(scene.directory.filePath(QStringLiteral("page.html")));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(page) > 0);
    file.close();
    QProcess browser;
    browser.setProcessEnvironment(desktop.environment());
    browser.setProcessChannelMode(QProcess::MergedChannels);
    browser.start(QStringLiteral("chromium"),
        {QStringLiteral("--ozone-platform=wayland"), QStringLiteral("--no-sandbox"), QStringLiteral("--disable-gpu"),
            QStringLiteral("--disable-quic"), QStringLiteral("--no-first-run"),
            QStringLiteral("--disable-background-networking"), QStringLiteral("--disable-component-update"),
            QStringLiteral("--disable-sync"),
            QStringLiteral("--user-data-dir=") + scene.directory.filePath(QStringLiteral("profile")),
            QStringLiteral("--window-size=640,400"), QStringLiteral("--app=file://") + file.fileName()});
    QVERIFY2(browser.waitForStarted(), qPrintable(browser.errorString()));
    const WindowCast cast(desktop, QString());
    QVERIFY2(cast.node() != 0, qPrintable(cast.errorString()));

    scene.command.window = QString::number(cast.node());
    scene.command.canvasWidth = QString::number(canvas.width());
    scene.command.canvasHeight = QString::number(canvas.height());
    scene.recorder.setVariable(QStringLiteral("ORVANTIS_WINDOW_SOURCE"), QStringLiteral("pipewire"));
    scene.recorder.setVariable(
        QStringLiteral("XDG_RUNTIME_DIR"), desktop.environment().value(QStringLiteral("XDG_RUNTIME_DIR")));
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(2500), scene.story());
    const WaylandWindow cover(desktop, QStringLiteral("cover"), QSize(1280, 720), {QStringLiteral("still")});
    QVERIFY(cover.isShown());
    QVERIFY2(scene.waitUntilRecorded(4000), scene.story());
    browser.terminate();
    QVERIFY2(scene.waitForLine(QStringLiteral("Window's PipeWire stream has ended; node: ")), scene.story());
    QVERIFY2(scene.stopAndExit(), scene.story());
    QVERIFY(QTest::qWaitFor([&] { return browser.state() == QProcess::NotRunning; }, hangLimitMs));

    // A browser shows the page of the old size in its window of the new one for some frames.
    QList<QSize> sizes; // with the whole page in them
    QList<QSize> others;
    int wholePages = 0;
    MediaFile media(scene.command.output);
    media.forEachFrame([&](const MediaFrame& frame) {
        const QSize size = shownPart(frame.image).size();
        const bool isWhole = isWholePage(frame.image);
        wholePages += isWhole;
        if (isWhole && !isKnown(sizes, size))
            sizes.append(size);
        else if (!isWhole && wholePages > 0) // the page is there
            others.append(size);
        return true;
    });
    QVERIFY2(wholePages > 20 && others.size() < wholePages / 2, QByteArray::number(wholePages));
    QVERIFY(sizes.size() >= 2 && sizes.size() <= 3);
    for (const QSize& size : std::as_const(others))
        QVERIFY2(isKnown(sizes, size), qPrintable(QStringLiteral("%1x%2").arg(size.width()).arg(size.height())));
}

void WaylandDesktopTest::xwayland_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<double>("scale");
    QTest::newRow("mutter") << int(Kind::Mutter) << 1.0;
    QTest::newRow("kwin 1.5") << int(Kind::KWin) << 1.5;
    QTest::newRow("weston 2") << int(Kind::Weston) << 2.0;
    if (!qEnvironmentVariableIsSet("ORVANTIS_EVERY_SCALE"))
        return;
    QTest::newRow("kwin") << int(Kind::KWin) << 1.0;
    QTest::newRow("kwin 2") << int(Kind::KWin) << 2.0;
    QTest::newRow("weston") << int(Kind::Weston) << 1.0;
}

void WaylandDesktopTest::xwayland()
{
    QFETCH(const int, kind);
    QFETCH(const double, scale);
    WaylandDesktop::Options options;
    options.kind = Kind(kind);
    options.scale = scale;
    options.xwayland = true;
    WaylandDesktop desktop(options);
    QVERIFY2(desktop.isRunning(), qPrintable(desktop.errorString()));
    desktop.apply(); // the display's cookie
    Desktop screen(desktop.xDisplay());
    QVERIFY(screen.isConnected());
    TruthWindowProcess window(desktop.xDisplay(), QRect(20, 20, 640, 360), 30);
    QVERIFY2(window.id() != 0, qPrintable(window.errorString()));

    RecordingScene scene(desktop.xDisplay(), window.id());
    scene.command.canvasWidth = QStringLiteral("640");
    scene.command.canvasHeight = QStringLiteral("360");
    QVERIFY2(scene.startRecording(), scene.story());
    const QPointF pointer(500, 300);
    const QPointF clicked(150, 300);
    const QRect place = screen.geometry(window.id()); // where the window manager has put it
    QCOMPARE(place.size(), QSize(640, 360));
    const bool hasPointer = desktop.kind() != Kind::Weston; // without a screen it has no input devices
    if (hasPointer)
        screen.movePointer(place.topLeft() + pointer.toPoint());
    QVERIFY2(scene.waitUntilRecorded(300), scene.story());
    QVERIFY(scene.launcher.send(clickLine(place, clicked)));
    QVERIFY2(scene.waitUntilRecorded(1200), scene.story());
    QVERIFY2(scene.stopAndExit(), scene.story());

    TruthQuery query{QSize(640, 360), std::nullopt, std::nullopt, {clicked}};
    if (hasPointer)
        query.pointer = pointer;
    const TruthReport report = measureTruth(scene.command.output, query);
    QVERIFY2(report.error.isEmpty(), qPrintable(report.error));
    QVERIFY(report.framesInFile > 3);
    QCOMPARE(report.framesDecoded, report.framesInFile);
    QVERIFY(!hasPointer || (report.pointer->framesSeen > 3 && report.pointer->worstErrorPx < 1.5));
    QVERIFY2(report.markers.size() == 1 && report.markers.first().medianErrorPx < 1.5,
        QByteArray::number(report.markers.value(0).medianErrorPx));
}

ORVANTIS_TEST(WaylandDesktopTest)
#include "waylanddesktop_test.moc"
