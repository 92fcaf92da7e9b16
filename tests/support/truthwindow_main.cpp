// truthwindow: an X11 window that says in its own frame when it was painted, with colours and a plain field
// to measure on; it can flash and beep in the same instants. Prints its window id, then "ready" once all of it is on
// the screen, and then "gap AT LENGTH" for every piece of its audio that it left out itself because it was late, in
// milliseconds of the monotonic clock. Ends with 0 on SIGTERM or SIGINT, or when the window is destroyed or closed;
// with 1 and a line on stderr when something fails; with 2 for a wrong command line.
#include "beepplayer.h"
#include "truthbeeps.h"
#include "truthscene.h"
#include "xcbwindow.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QRegularExpression>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <optional>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace {

struct Options {
    QRect geometry; // pixels of the screen
    int fps = 0; // 0: one painting
    QRgb field = truthscene::fieldColour;
    bool beeps = false;
    std::optional<truthscene::Presented> presented; // nothing: only its top band is painted anew
};

std::optional<Options> readOptions(const QCommandLineParser& parser)
{
    Options options;
    const QRegularExpressionMatch geometry
        = QRegularExpression(QStringLiteral("^(\\d+)x(\\d+)\\+(-?\\d+)\\+(-?\\d+)$"))
              .match(parser.value(QStringLiteral("geometry")));
    options.geometry = QRect(geometry.captured(3).toInt(), geometry.captured(4).toInt(), geometry.captured(1).toInt(),
        geometry.captured(2).toInt());
    bool fpsRight = false;
    bool fieldRight = false;
    options.fps = parser.value(QStringLiteral("fps")).toInt(&fpsRight);
    options.field = 0xff000000u | parser.value(QStringLiteral("background")).toUInt(&fieldRight, 16);
    options.beeps = parser.isSet(QStringLiteral("beep"));
    options.presented = truthscene::presented(parser.value(QStringLiteral("present")));
    if (!geometry.hasMatch() || !truthscene::fits(options.geometry.size()) || !fpsRight || options.fps < 0
        || options.fps > 1000 || !fieldRight
        || parser.isSet(QStringLiteral("present")) != options.presented.has_value()
        || !parser.positionalArguments().isEmpty())
        return std::nullopt;
    return options;
}

/// SIGTERM and SIGINT as a readable descriptor instead of an interruption.
class EndSignals {
public:
    EndSignals()
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGINT);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        descriptor_ = signalfd(-1, &signals, SFD_CLOEXEC);
    }
    ~EndSignals() { close(descriptor_); }
    EndSignals(const EndSignals&) = delete;
    EndSignals& operator=(const EndSignals&) = delete;

    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

/// The window's contents, painted anew when the window's size changes.
class Painting {
public:
    Painting(XcbWindow& window, const Options& options)
        : window_(window), field_(options.field), flashes_(options.beeps), presented_(options.presented)
    {
    }

    /// A presented window has all its images from here on: presenting them costs this process next to nothing.
    void paintAll()
    {
        const QSize size = window_.image().size();
        const QImage still = truthscene::paintStill(size, field_);
        for (int i = 0; i < window_.buffers(); ++i) {
            QImage& image = window_.image(i);
            for (int y = 0; y < size.height(); ++y)
                std::copy_n(still.constScanLine(y), still.bytesPerLine(), image.scanLine(y));
            if (presented_)
                truthscene::paintPhase(image, truthscene::changingArea(size, *presented_), i);
        }
        if (!presented_)
            paintStamp();
        window_.show(window_.image().rect());
    }

    void paintNext()
    {
        ++counter_;
        if (presented_) {
            window_.show(window_.image().rect(), int(counter_ % quint32(window_.buffers())));
            return;
        }
        paintStamp();
        window_.show(truthscene::layout(window_.image().size()).animated);
    }

private:
    void paintStamp()
    {
        const TruthStamp stamp{counter_ & 0xffffff, quint32(QDateTime::currentMSecsSinceEpoch())};
        truthscene::paintAnimated(window_.image(), stamp, flashes_ && truthbeeps::flashes(stamp.clockMs));
    }

    XcbWindow& window_;
    const QRgb field_;
    const bool flashes_;
    const std::optional<truthscene::Presented> presented_;
    quint32 counter_ = 0;
};

/// Tells of the player's gaps; null without a player.
void report(BeepPlayer* player)
{
    const QByteArray gaps = player ? player->newGaps() : QByteArray();
    if (gaps.isEmpty())
        return;
    std::fputs(gaps.constData(), stdout);
    std::fflush(stdout);
}

/// Paints at the given rate and answers the window's events until the end. False when the connection is lost.
bool run(XcbWindow& window, Painting& painting, int fps, BeepPlayer* player)
{
    const EndSignals endSignals;
    QElapsedTimer timer;
    timer.start();
    qint64 paintings = 0;
    const auto nextPaintingMs = [&] { return (paintings + 1) * 1000 / fps; };
    for (;;) {
        // Until nothing is left: showing a frame reads from the connection too, and what it read makes no
        // descriptor readable.
        const XcbWindow::State state = window.handleEvents();
        if (state == XcbWindow::State::Gone)
            return true;
        if (state == XcbWindow::State::ConnectionLost)
            return false;
        if (state == XcbWindow::State::NeedsPainting) {
            painting.paintAll();
            continue;
        }
        report(player);
        const int waitMs = fps == 0 ? -1 : int(std::max<qint64>(nextPaintingMs() - timer.elapsed(), 0));
        pollfd sources[] = {{endSignals.descriptor(), POLLIN, 0}, {window.descriptor(), POLLIN, 0}};
        if (poll(sources, 2, waitMs) < 0 && errno != EINTR)
            return false;
        if (sources[0].revents)
            return true;
        if (fps > 0 && timer.elapsed() >= nextPaintingMs()) {
            painting.paintNext();
            // A late painting takes the place of those that were due before it.
            paintings = std::max(paintings + 1, timer.elapsed() * fps / 1000);
        }
    }
}

}

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Shows a window whose recording can be measured."));
    parser.addOptions({
        {QStringLiteral("geometry"), QStringLiteral("Size and place, pixels. At least 640 wide."),
            QStringLiteral("WxH+X+Y"), QStringLiteral("1280x720+0+0")},
        {QStringLiteral("fps"), QStringLiteral("Paintings a second; 0 paints once."), QStringLiteral("N"),
            QStringLiteral("120")},
        {QStringLiteral("background"),
            QStringLiteral("Colour of the field. Pointer and markers are measured on the default only."),
            QStringLiteral("RRGGBB"), QStringLiteral("808080")},
        {QStringLiteral("beep"), QStringLiteral("Flash and beep about once a second, to the audio server.")},
        {QStringLiteral("present"),
            QStringLiteral(
                "Each painting shows the whole window; how much of it changes: unchanged, quarter or all."),
            QStringLiteral("WHAT")},
        {QStringLiteral("name"), QStringLiteral("The name that the audio server is told."), QStringLiteral("NAME"),
            QStringLiteral("truthwindow")},
    });
    const bool understood = parser.parse(QCoreApplication::arguments());
    const std::optional<Options> options = understood ? readOptions(parser) : std::nullopt;
    if (!options) {
        std::fputs(qUtf8Printable(parser.helpText()), stderr);
        return 2;
    }

    const bool changesWhole = options->presented && *options->presented != truthscene::Presented::Unchanged;
    XcbWindow window(options->geometry, "truth window", changesWhole ? truthscene::phaseCount : 1);
    if (!window.errorString().isEmpty()) {
        std::fprintf(stderr, "truthwindow: %s\n", qUtf8Printable(window.errorString()));
        return 1;
    }
    std::optional<BeepPlayer> player;
    if (options->beeps)
        player.emplace(parser.value(QStringLiteral("name")));
    if (player && !player->errorString().isEmpty()) {
        std::fprintf(stderr, "truthwindow: %s\n", qUtf8Printable(player->errorString()));
        return 1;
    }
    Painting painting(window, *options);
    painting.paintAll();
    std::printf("0x%x\nready\n", window.id());
    std::fflush(stdout);
    if (!run(window, painting, options->fps, player ? &*player : nullptr)) {
        std::fputs("truthwindow: the connection to the X server is lost\n", stderr);
        return 1;
    }
    return 0;
}
