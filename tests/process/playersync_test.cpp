// Films in real players: whatever latency the sink tells them, the recording has the audio in step with the frames as
// the player shows them to its user. With ORVANTIS_EVERY_LATENCY in the environment, for all players and latencies.
#include "audioscene.h"
#include "desktop.h"
#include "latencysink.h"
#include "privatexserver.h"
#include "testregistry.h"

#include <QFile>
#include <QProcess>
#include <QTest>

#include <cmath>
#include <map>
#include <memory>
#include <numeric>
#include <utility>
#include <vector>

namespace {

const QString title = QStringLiteral("orvantis film");
const QString filmName = QStringLiteral("film.webm");
const QString pageName = QStringLiteral("film.html");
const QSize filmSize(320, 240);
constexpr double flashMs = 100.0;
constexpr audioanalysis::Beep beep{1000.0, 60.0, 0.0};
constexpr double furthestMs = 1000.0; // of a beep from its flash
/// Seconds; the distances are uneven, so that each beep belongs to one flash only.
constexpr double flashSeconds[]
    = {1.0, 1.83, 2.91, 3.62, 4.77, 5.48, 6.69, 7.52, 8.41, 9.66, 10.47, 11.38, 12.55, 13.31, 14.49, 15.18, 16.33};
constexpr int filmSeconds = 17;
constexpr int recordingMs = 10'000;
constexpr std::size_t fewestBeeps = 6; // for a mean

/// White flashes and beeps of 1 kHz that begin together. The audio is cut in pieces of a millisecond, so that a beep
/// begins and ends where its sine is 0.
bool makeFilm(const QString& path)
{
    QStringList flashes;
    QStringList beeps;
    for (const double second : flashSeconds) {
        const QString between = QStringLiteral("between(t,%1,%2)");
        flashes << between.arg(second - 0.001).arg(second + (flashMs - 1) / 1000);
        beeps << between.arg(second - 0.0005).arg(second + (beep.lengthMs - 0.5) / 1000);
    }
    const QString video = QStringLiteral("color=black:s=%1x%2:r=60:d=%3,drawbox=t=fill:c=white:enable='%4'")
                              .arg(filmSize.width())
                              .arg(filmSize.height())
                              .arg(filmSeconds)
                              .arg(flashes.join(QLatin1Char('+')));
    const QString audio
        = QStringLiteral("sine=f=%1:r=48000:samples_per_frame=48:d=%2,volume=4,volume=0:enable='not(%3)'")
              .arg(beep.frequency)
              .arg(filmSeconds)
              .arg(beeps.join(QLatin1Char('+')));
    const QString lavfi = QStringLiteral("lavfi");
    QProcess ffmpeg;
    ffmpeg.start(QStringLiteral("ffmpeg"),
        {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-f"), lavfi, QStringLiteral("-i"), video,
            QStringLiteral("-f"), lavfi, QStringLiteral("-i"), audio, QStringLiteral("-c:v"),
            QStringLiteral("libvpx"), QStringLiteral("-deadline"), QStringLiteral("realtime"),
            QStringLiteral("-cpu-used"), QStringLiteral("8"), QStringLiteral("-b:v"), QStringLiteral("1M"),
            QStringLiteral("-c:a"), QStringLiteral("libopus"), path});
    return ffmpeg.waitForFinished(120'000) && ffmpeg.exitStatus() == QProcess::NormalExit && ffmpeg.exitCode() == 0;
}

/// When the frames become bright, in milliseconds of the file: in the mean half way between a dark and a bright
/// frame.
std::vector<double> flashOnsetsMs(const QString& path)
{
    std::vector<double> onsets;
    bool bright = true; // the film may begin anywhere
    double darkMs = 0;
    MediaFile media(path);
    media.forEachFrame([&](const MediaFrame& frame) {
        const QRgb pixel = frame.image.pixel(frame.image.width() / 2, frame.image.height() / 2);
        const bool now = qGreen(pixel) > 128;
        if (now && !bright)
            onsets.push_back((darkMs + frame.ptsMs) / 2);
        bright = now;
        darkMs = frame.ptsMs;
        return true;
    });
    return onsets;
}

/// The distances of each flash to the beep that is that much later, or nearly.
std::vector<double> matches(const std::vector<double>& flashes, const std::vector<double>& beeps, double offsetMs)
{
    constexpr double nearMs = 40.0; // frames are as far apart
    std::vector<double> found;
    for (const double flash : flashes) {
        for (const double beepMs : beeps) {
            if (std::abs(beepMs - flash - offsetMs) <= nearMs)
                found.push_back(beepMs - flash);
        }
    }
    return found;
}

/// How much later the beeps are than their flashes, in the mean: by the offset that matches most of them.
/// Not-a-number when those are too few.
double meanOffsetMs(const QString& path, QByteArray& story)
{
    const std::vector<double> flashes = flashOnsetsMs(path);
    const Heard heard(path);
    const std::vector<double> beeps = audioanalysis::beepOnsetsMs(heard.part(0, heard.durationMs()), 48000, beep);
    std::vector<double> best;
    for (const double flash : flashes) {
        for (const double beepMs : beeps) {
            std::vector<double> found = matches(flashes, beeps, beepMs - flash);
            if (std::abs(beepMs - flash) < furthestMs && found.size() > best.size())
                best = std::move(found);
        }
    }
    for (const double offset : best)
        story += QByteArray::number(qRound(offset)) + ' ';
    story += "ms for " + QByteArray::number(flashes.size()) + " flashes and " + QByteArray::number(beeps.size())
        + " beeps";
    return best.size() >= fewestBeeps ? std::accumulate(best.begin(), best.end(), 0.0) / double(best.size())
                                      : std::nan("");
}

}

class PlayerSyncTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void film_data();
    void film();

private:
    void startPlayer(QProcess& player, const QString& name) const;
    /// How much later than the flashes the beeps are in a recording; not-a-number, with the story, without one.
    double record(const QString& player, bool ofTheApplication, int latencyMs, QByteArray& story);

    PrivateAudioServer audio_;
    PrivateXServer server_;
    std::unique_ptr<Desktop> desktop_;
    PrivateTempDir directory_;
    std::unique_ptr<LatencySink> sink_;
    std::map<std::pair<QString, bool>, double> withoutLatencyMs_; // by player and mode; 0 where it was not measured
};

void PlayerSyncTest::initTestCase()
{
    QVERIFY2(audio_.isRunning(), qPrintable(audio_.errorString()));
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    audio_.apply();
    desktop_ = std::make_unique<Desktop>(server_.display());
    desktop_->movePointer(QPoint(1900, 1190)); // not onto the film
    QVERIFY(makeFilm(directory_.filePath(filmName)));
    QFile page(directory_.filePath(pageName));
    QVERIFY(page.open(QIODevice::WriteOnly));
    page.write("<title>" + title.toUtf8() + "</title><body style='margin:0'><video src=" + filmName.toUtf8()
        + " autoplay></video>");
    page.close();
    sink_ = std::make_unique<LatencySink>(audio_, 0);
    QVERIFY2(sink_->errorString().isEmpty(), qPrintable(sink_->errorString()));
}

void PlayerSyncTest::startPlayer(QProcess& player, const QString& name) const
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DISPLAY"), QString::fromLatin1(server_.display()));
    environment.insert(QStringLiteral("SDL_VIDEODRIVER"), QStringLiteral("x11"));
    environment.insert(QStringLiteral("SDL_RENDER_DRIVER"), QStringLiteral("software"));
    player.setProcessEnvironment(environment);
    player.setProcessChannelMode(QProcess::MergedChannels);
    const QString film = directory_.filePath(filmName);
    if (name == QLatin1String("mpv")) {
        player.start(name,
            {QStringLiteral("--no-config"), QStringLiteral("--ao=pipewire"), QStringLiteral("--vo=x11"),
                QStringLiteral("--no-osc"), QStringLiteral("--title=") + title, film});
    } else if (name == QLatin1String("ffplay")) {
        player.start(name, {QStringLiteral("-nostats"), QStringLiteral("-window_title"), title, film});
    } else {
        player.start(name,
            {QStringLiteral("--no-sandbox"), QStringLiteral("--disable-gpu"), QStringLiteral("--no-first-run"),
                QStringLiteral("--disable-background-networking"), QStringLiteral("--disable-component-update"),
                QStringLiteral("--disable-sync"), QStringLiteral("--autoplay-policy=no-user-gesture-required"),
                QStringLiteral("--user-data-dir=") + directory_.filePath(QStringLiteral("profile")),
                QStringLiteral("--window-position=50,40"), QStringLiteral("--window-size=400,400"),
                QStringLiteral("--app=file://") + directory_.filePath(pageName)});
    }
}

double PlayerSyncTest::record(const QString& player, bool ofTheApplication, int latencyMs, QByteArray& story)
{
    if (!sink_->setLatency(latencyMs))
        return std::nan("");
    QProcess process;
    startPlayer(process, player);
    quint32 window = 0;
    if (!QTest::qWaitFor([&] { return (window = desktop_->titled(title)) != 0; }, hangLimitMs)) {
        story = "no window: " + process.readAll();
        return std::nan("");
    }
    AudioScene scene(server_.display(), window, audio_, ofTheApplication ? audioOf(process.processId()) : QString());
    scene.command.canvasWidth = QString::number(filmSize.width());
    scene.command.canvasHeight = QString::number(filmSize.height());
    const bool recorded = scene.record(recordingMs);
    process.terminate();
    if (!process.waitForFinished(hangLimitMs))
        process.kill();
    process.waitForFinished(hangLimitMs);
    story = scene.story();
    return recorded ? meanOffsetMs(scene.command.output, story) : std::nan("");
}

void PlayerSyncTest::film_data()
{
    QTest::addColumn<QString>("player");
    QTest::addColumn<bool>("ofTheApplication");
    QTest::addColumn<int>("latencyMs");
    if (!qEnvironmentVariableIsSet("ORVANTIS_EVERY_LATENCY")) {
        // Here a fault of either kind shows: the time of the audio, and what the player is told.
        QTest::newRow("mpv application 200") << QStringLiteral("mpv") << true << 200;
        return;
    }
    for (const char* player : {"mpv", "ffplay", "chromium"}) {
        for (const bool ofTheApplication : {true, false}) {
            for (const int latencyMs : {0, 50, 200, 400})
                QTest::addRow("%s %s %d", player, ofTheApplication ? "application" : "display", latencyMs)
                    << QString::fromLatin1(player) << ofTheApplication << latencyMs;
        }
    }
}

/// A player that does not ask for the latency shows its video without regard to it: its user hears the audio that
/// much later, and so does who plays the recording.
void PlayerSyncTest::film()
{
    QFETCH(const QString, player);
    QFETCH(const bool, ofTheApplication);
    QFETCH(const int, latencyMs);
    QByteArray story;
    const double offsetMs = record(player, ofTheApplication, latencyMs, story);
    QVERIFY2(std::isfinite(offsetMs), story);
    qInfo().noquote() << player << (ofTheApplication ? "application" : "display") << latencyMs << "ms latency: beeps"
                      << qRound(offsetMs) << "ms after the flashes";
    const int shownWithoutMs = player == QLatin1String("ffplay") ? latencyMs : 0;
    double& withoutLatencyMs = withoutLatencyMs_[{player, ofTheApplication}];
    if (latencyMs == 0)
        withoutLatencyMs = offsetMs;
    const double changeMs = offsetMs - withoutLatencyMs - shownWithoutMs;
    QVERIFY2(std::abs(changeMs) <= 30, story);
    QVERIFY2(offsetMs - shownWithoutMs > -40 && offsetMs - shownWithoutMs < 60, story);
}

ORVANTIS_TEST(PlayerSyncTest)
#include "playersync_test.moc"
