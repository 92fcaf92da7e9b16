// Whose audio a file has, when several applications play, rest, exit and come back; when there is nothing to hear;
// and when the audio server dies. Whose audio it is to be is decided in capture/ and proven there.
#include "audioscene.h"
#include "desktop.h"
#include "privatexserver.h"
#include "recordedfile.h"
#include "testregistry.h"
#include "toneprocess.h"
#include "truthwindowprocess.h"

#include <QProcess>
#include <QTest>

#include <chrono>
#include <cmath>
#include <memory>
#include <optional>

namespace {

constexpr double wantedHz = 441.7;
constexpr double otherHz = 1250.0;
constexpr double newcomerHz = 2100.3;
constexpr double playerDb = -12.04; // of a toneplayer
constexpr double unheardDb = -60.0;
constexpr double silentDb = -90.0; // an encoder that is asked for silence gives silence
constexpr double settledMs = 500.0;

const auto withoutAudio = QStringLiteral("Warning: Continuing video recording without audio.");

bool isFull(double levelDb)
{
    return std::abs(levelDb - playerDb) < 0.5;
}

double monotonicMs()
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// The lines of a log that speak of audio, with their levels.
QStringList audioLines(const QList<LogLine>& log)
{
    QStringList lines;
    for (const LogLine& line : log) {
        if (line.text.contains(QLatin1String("audio")) || line.text.contains(QLatin1String("ScreenCaptureKit")))
            lines << QString::fromLatin1(line.level) + QStringLiteral(": ") + line.text;
    }
    return lines;
}

/// A file of frames without an audio stream.
bool isVideoOnly(const QString& path)
{
    const MediaFile file(path);
    return playBack(path).isWhole() && file.videoStream() && !file.audioStream();
}

std::unique_ptr<ToneProcess> play(const char* name, double frequency)
{
    auto player = std::make_unique<ToneProcess>(ToneProcess::tone(QString::fromLatin1(name), frequency));
    if (!player->isPlaying())
        qWarning("%s", qPrintable(player->errorString()));
    return player;
}

/// What happened when, by the monotonic clock in milliseconds.
struct Course {
    double newcomerStarts = 0;
    double newcomerIsGone = 0;
    double pauses = 0;
    double resumes = 0;
    double exits = 0;
    double comesBack = 0;
};

}

class AudioPlayersTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    // One course of events, in the recording of one application and in that of the display.
    void applicationAloneAndWhole();
    void newcomerIsHeard();
    void pauseExitAndReturn();
    void displayHasEverybody();
    void framesGoOn();

    void sourcesWithoutAudio();
    void browser();

private:
    void recordTheCourse();
    std::unique_ptr<AudioScene> scene(const QString& source) const;
    /// The first change after an event: the tone is gone, or there, no earlier than that (a window of 0.1 s may see
    /// it coming), and before the next event. In milliseconds of the file; below 0 when that is not so.
    double gone(double eventMs, double nextMs) const;
    double back(double eventMs, double nextMs) const;

    PrivateAudioServer audio_;
    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;

    std::unique_ptr<ToneProcess> other_; // plays from the first recording to the last
    Course course_; // from here on in milliseconds of the application's file
    std::vector<playergaps::Gap> gaps_; // of the wanted player, by the monotonic clock
    double originMs_ = 0;
    double displayLeadMs_ = 0; // how much more the display's recording shows at the same moment
    std::optional<Heard> application_;
    std::optional<Heard> display_;
    Playback frames_;
};

std::unique_ptr<AudioScene> AudioPlayersTest::scene(const QString& source) const
{
    return std::make_unique<AudioScene>(server_.display(), window_->id(), audio_, source);
}

void AudioPlayersTest::initTestCase()
{
    QVERIFY2(audio_.isRunning(), qPrintable(audio_.errorString()));
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    audio_.apply();
    window_ = std::make_unique<TruthWindowProcess>(server_.display(), QRect(40, 30, 640, 360), 30);
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
    recordTheCourse();
}

void AudioPlayersTest::recordTheCourse()
{
    auto wanted = play("wanted", wantedHz);
    other_ = play("other", otherHz);
    const auto ofApplication = scene(audioOf(wanted->pid()));
    const auto ofDisplay = scene(QString());
    const std::vector<AudioScene*> both{ofApplication.get(), ofDisplay.get()};
    QByteArray story;
    QVERIFY2(startTogether(both, story), story);
    const auto goOnFor = [&](int ms) {
        const double untilMs = monotonicMs() + ms;
        return ofApplication->waitUntilRecorded(ms) && ofDisplay->waitUntilRecorded(ms)
            && ofApplication->originMs() > 0
            && ofApplication->waitUntilRecorded(int(untilMs - ofApplication->originMs()));
    };
    QVERIFY2(goOnFor(1500), ofApplication->story());
    course_.newcomerStarts = monotonicMs();
    auto newcomer = play("newcomer", newcomerHz);
    QVERIFY2(goOnFor(700), ofApplication->story());
    QVERIFY(newcomer->stop());
    course_.newcomerIsGone = monotonicMs();
    QVERIFY2(goOnFor(200), ofApplication->story());
    course_.pauses = monotonicMs();
    wanted->pause();
    QVERIFY2(goOnFor(900), ofApplication->story());
    course_.resumes = monotonicMs();
    wanted->resume();
    QVERIFY2(goOnFor(800), ofApplication->story());
    gaps_ = wanted->gaps();
    course_.exits = monotonicMs();
    QVERIFY(wanted->stop());
    QVERIFY2(goOnFor(900), ofApplication->story());
    course_.comesBack = monotonicMs();
    wanted = play("wanted", wantedHz); // another process of it
    QVERIFY2(goOnFor(800), ofApplication->story());

    originMs_ = ofApplication->originMs();
    displayLeadMs_ = originMs_ - ofDisplay->originMs();
    QVERIFY2(endTogether(both, 0, story), story);
    for (double* ms : {&course_.newcomerStarts, &course_.newcomerIsGone, &course_.pauses, &course_.resumes,
             &course_.exits, &course_.comesBack})
        *ms -= originMs_;
    application_.emplace(ofApplication->command.output);
    display_.emplace(ofDisplay->command.output);
    frames_ = playBack(ofApplication->command.output);
}

double AudioPlayersTest::gone(double eventMs, double nextMs) const
{
    const double ms = application_->goneMs(wantedHz, eventMs - 300.0);
    return ms > eventMs - 150.0 && ms < nextMs ? ms : -1.0;
}

double AudioPlayersTest::back(double eventMs, double nextMs) const
{
    const double ms = application_->firstMs(wantedHz, eventMs - 300.0);
    return ms > eventMs - 150.0 && ms < nextMs ? ms : -1.0;
}

void AudioPlayersTest::applicationAloneAndWhole()
{
    const double endMs = course_.newcomerStarts - 100.0;
    QVERIFY(isFull(application_->usualLevelDb(wantedHz, settledMs, endMs)));
    const auto faults
        = playergaps::unexplained(application_->toneFaults(wantedHz, settledMs, endMs), gaps_, originMs_ + settledMs);
    QVERIFY2(faults.empty(), qPrintable(audioanalysis::describe(faults)));
    QVERIFY(application_->levelDb(otherHz, 0.0, application_->durationMs()) < unheardDb);
}

/// A program that belongs to none of those that were running is heard beside the wanted one, from its start on.
void AudioPlayersTest::newcomerIsHeard()
{
    const double lateMs = application_->firstMs(newcomerHz);
    QVERIFY2(lateMs > course_.newcomerStarts - 100.0 && lateMs < course_.newcomerIsGone, QByteArray::number(lateMs));
    QVERIFY(application_->levelDb(newcomerHz, settledMs, course_.newcomerStarts - 100.0) < unheardDb);
    const double endMs = application_->goneMs(newcomerHz, lateMs + 150.0);
    QVERIFY2(endMs > lateMs + 400.0, QByteArray::number(endMs));
    QVERIFY(isFull(application_->usualLevelDb(newcomerHz, lateMs + 150.0, endMs - 50.0)));
    QVERIFY(isFull(application_->usualLevelDb(wantedHz, lateMs + 150.0, endMs - 50.0)));
}

void AudioPlayersTest::pauseExitAndReturn()
{
    const double pausedMs = gone(course_.pauses, course_.resumes);
    const double resumedMs = back(course_.resumes, course_.exits);
    const double exitedMs = gone(course_.exits, course_.comesBack);
    const double returnedMs = back(course_.comesBack, application_->durationMs());
    const QByteArray times = QByteArray::number(pausedMs) + ' ' + QByteArray::number(resumedMs) + ' '
        + QByteArray::number(exitedMs) + ' ' + QByteArray::number(returnedMs);
    QVERIFY2(pausedMs >= 0 && resumedMs > pausedMs && exitedMs > resumedMs && returnedMs > exitedMs, times);
    QVERIFY2(application_->rmsDb(pausedMs + 200.0, resumedMs - 100.0) < silentDb, times);
    QVERIFY2(isFull(application_->usualLevelDb(wantedHz, resumedMs + 150.0, exitedMs - 100.0)), times);
    QVERIFY2(application_->rmsDb(exitedMs + 200.0, returnedMs - 100.0) < silentDb, times);
    QVERIFY2(
        isFull(application_->usualLevelDb(wantedHz, returnedMs + 150.0, application_->durationMs() - 100.0)), times);
}

void AudioPlayersTest::displayHasEverybody()
{
    const double leadMs = displayLeadMs_;
    QVERIFY(isFull(display_->usualLevelDb(wantedHz, settledMs + leadMs, course_.newcomerStarts + leadMs - 100.0)));
    QVERIFY(isFull(display_->usualLevelDb(otherHz, settledMs + leadMs, application_->durationMs() + leadMs - 200.0)));
    const double lateMs = display_->firstMs(newcomerHz);
    QVERIFY2(lateMs > course_.newcomerStarts + leadMs - 100.0, QByteArray::number(lateMs));
    const double endMs = display_->goneMs(newcomerHz, lateMs + 150.0);
    QVERIFY2(endMs > lateMs + 400.0, QByteArray::number(endMs));
    QVERIFY(isFull(display_->usualLevelDb(newcomerHz, lateMs + 150.0, endMs - 50.0)));
    const double pausedMs = gone(course_.pauses, course_.resumes) + leadMs;
    QVERIFY(display_->levelDb(wantedHz, pausedMs + 200.0, course_.resumes + leadMs) < unheardDb);
}

/// Whatever the players do.
void AudioPlayersTest::framesGoOn()
{
    QVERIFY2(frames_.isWhole() && frames_.ptsMs.last() > course_.comesBack, frames_.description());
    QVERIFY2(std::abs(application_->durationMs() - frames_.ptsMs.last()) < 100.0,
        QByteArray::number(application_->durationMs()) + ' ' + frames_.description());
}

/// Recordings beside each other: of an application that plays nothing, of a process that is nobody's application, of
/// nothing that could be a process, and of a display whose audio server is killed.
void AudioPlayersTest::sourcesWithoutAudio()
{
    PrivateAudioServer mortal;
    QVERIFY2(mortal.isRunning(), qPrintable(mortal.errorString()));
    const auto silent = scene(audioOf(window_->pid()));
    const auto nobodys = scene(audioOf(1));
    const auto wrong = scene(QStringLiteral("app-pid:abc"));
    AudioScene loss(server_.display(), window_->id(), mortal, QString());
    const std::vector<AudioScene*> all{silent.get(), nobodys.get(), wrong.get(), &loss};
    QByteArray story;
    QVERIFY2(startTogether(all, story), story);
    QVERIFY2(loss.waitUntilRecorded(1000), loss.story());
    mortal.killDaemon();
    QVERIFY2(endTogether(all, 2500, story), story);

    QCOMPARE(audioLines(silent->log()).filter(QStringLiteral("Warning: ")), QStringList());
    const Heard heard(silent->command.output);
    QVERIFY(heard.durationMs() > 2400.0);
    QVERIFY(heard.rmsDb(0.0, heard.durationMs()) < silentDb);

    const QStringList nobodysLines = audioLines(nobodys->log());
    QVERIFY2(nobodysLines.first().startsWith(
                 QStringLiteral("Warning: macOS ScreenCaptureKit could not find requested app for app-only "
                                "audio pid 1 requested device \"app-pid:1\" candidates ")),
        qPrintable(nobodysLines.first()));
    QVERIFY(nobodysLines.size() >= 4); // the window and the player stand between
    QCOMPARE(nobodysLines.last(), withoutAudio);
    QVERIFY(isVideoOnly(nobodys->command.output));

    const QStringList wrongLines{
        QStringLiteral("Warning: macOS app-only audio capture received an invalid app-pid device: \"app-pid:abc\""),
        withoutAudio};
    QCOMPARE(audioLines(wrong->log()), wrongLines);
    QVERIFY(isVideoOnly(wrong->command.output));

    // The end of the audio is not the end of the recording.
    const QStringList warnings = audioLines(loss.log()).filter(QStringLiteral("Warning: "));
    QCOMPARE(warnings.size(), 2); // at the loss, and when the capture is stopped
    QVERIFY2(warnings[0].startsWith(QStringLiteral("Warning: macOS ScreenCaptureKit audio stream stopped: \"")),
        qPrintable(warnings[0]));
    QVERIFY2(warnings[1].startsWith(QStringLiteral("Warning: macOS ScreenCaptureKit audio capture stop error: \"")),
        qPrintable(warnings[1]));
    const Playback frames = playBack(loss.command.output);
    QVERIFY2(frames.isWhole() && frames.ptsMs.last() > 2300.0, frames.description());
    const Heard rest(loss.command.output);
    QVERIFY2(std::abs(rest.durationMs() - frames.ptsMs.last()) < 100.0, QByteArray::number(rest.durationMs()));
}

/// The process that owns a browser's window is not the one that plays its audio.
void AudioPlayersTest::browser()
{
    const PrivateTempDir directory;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DISPLAY"), QString::fromLatin1(server_.display()));
    QProcess browser;
    browser.setProcessEnvironment(environment);
    browser.setProcessChannelMode(QProcess::MergedChannels);
    const QString page = QStringLiteral("data:text/html,<title>orvantis audio page</title><script>"
                                        "const c = new AudioContext(), o = c.createOscillator(), g = c.createGain();"
                                        "o.frequency.value = 880; g.gain.value = 0.25;"
                                        "o.connect(g).connect(c.destination); o.start()</script>");
    browser.start(QStringLiteral("chromium"),
        {QStringLiteral("--no-sandbox"), QStringLiteral("--disable-gpu"), QStringLiteral("--no-first-run"),
            QStringLiteral("--disable-background-networking"), QStringLiteral("--disable-component-update"),
            QStringLiteral("--disable-sync"), QStringLiteral("--autoplay-policy=no-user-gesture-required"),
            QStringLiteral("--user-data-dir=") + directory.filePath(QStringLiteral("profile")),
            QStringLiteral("--window-position=50,40"), QStringLiteral("--window-size=640,400"),
            QStringLiteral("--app=") + page});
    Desktop desktop(server_.display());
    quint32 window = 0;
    QVERIFY2(QTest::qWaitFor(
                 [&] { return (window = desktop.titled(QStringLiteral("orvantis audio page"))) != 0; }, hangLimitMs),
        browser.readAll());
    const auto plays
        = [&] { return audio_.output(QStringLiteral("pw-dump"), {}).value_or(QByteArray()).contains("Chromium"); };
    QVERIFY2(QTest::qWaitFor(plays, hangLimitMs), browser.readAll());

    QVERIFY(other_->isPlaying());
    AudioScene scene(server_.display(), window, audio_, audioOf(browser.processId()));
    QVERIFY2(scene.record(3000), scene.story());
    browser.terminate();
    QVERIFY(browser.waitForFinished(hangLimitMs));
    const Heard heard(scene.command.output);
    const double endMs = heard.durationMs() - settledMs;
    const double levelDb = heard.usualLevelDb(880.0, 1500.0, endMs);
    QVERIFY2(std::abs(levelDb - playerDb) < 1.0, QByteArray::number(levelDb));
    QVERIFY(heard.levelDb(otherHz, settledMs, endMs) < unheardDb);
}

ORVANTIS_TEST(AudioPlayersTest)
#include "audioplayers_test.moc"
