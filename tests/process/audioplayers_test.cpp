// Whose audio a recording has, when several applications play: they come, go, exit, and one is a browser.
#include "audioscene.h"
#include "desktop.h"
#include "privatexserver.h"
#include "recordedfile.h"
#include "testregistry.h"
#include "toneprocess.h"
#include "truthwindowprocess.h"

#include <QProcess>
#include <QTest>

#include <cmath>
#include <memory>

namespace {

constexpr double wantedHz = 441.7;
constexpr double otherHz = 1250.0;
constexpr double playerDb = -12.04; // of a toneplayer
constexpr double unheardDb = -60.0;
constexpr double settledMs = 500.0;

bool isFull(double levelDb)
{
    return std::abs(levelDb - playerDb) < 0.5;
}

}

class AudioPlayersTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void oneOfTwo();
    void bothOnTheDisplay();
    void playerThatStartsLater();
    void playerThatComesBack();
    void wantedPlayerExits();
    void browser();

private:
    static std::unique_ptr<ToneProcess> play(const char* name, double frequency);
    std::unique_ptr<AudioScene> scene(const QString& source) const;

    PrivateAudioServer audio_;
    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;
};

void AudioPlayersTest::initTestCase()
{
    QVERIFY2(audio_.isRunning(), qPrintable(audio_.errorString()));
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    audio_.apply();
    window_ = std::make_unique<TruthWindowProcess>(server_.display(), QRect(40, 30, 640, 360), 30);
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
}

std::unique_ptr<ToneProcess> AudioPlayersTest::play(const char* name, double frequency)
{
    auto player = std::make_unique<ToneProcess>(ToneProcess::tone(QString::fromLatin1(name), frequency));
    if (!player->isPlaying())
        qWarning("%s", qPrintable(player->errorString()));
    return player;
}

std::unique_ptr<AudioScene> AudioPlayersTest::scene(const QString& source) const
{
    return std::make_unique<AudioScene>(server_.display(), window_->id(), audio_, source);
}

void AudioPlayersTest::oneOfTwo()
{
    const auto wanted = play("wanted", wantedHz);
    const auto other = play("other", otherHz);
    const auto scene = this->scene(audioOf(wanted->pid()));
    QVERIFY2(scene->record(5000), scene->story());
    QVERIFY(other->isPlaying());
    const Heard heard(scene->command.output);
    const double endMs = heard.durationMs() - settledMs;
    QVERIFY(isFull(heard.levelDb(wantedHz, settledMs, endMs)));
    QVERIFY(heard.levelDb(otherHz, settledMs, endMs) < unheardDb);
    const auto faults = heard.toneFaults(wantedHz, settledMs, endMs);
    QVERIFY2(faults.empty(), qPrintable(audioanalysis::describe(faults)));
}

void AudioPlayersTest::bothOnTheDisplay()
{
    const auto first = play("first", wantedHz);
    const auto second = play("second", otherHz);
    const auto scene = this->scene(QString());
    QVERIFY2(scene->record(4000), scene->story());
    const Heard heard(scene->command.output);
    const double endMs = heard.durationMs() - settledMs;
    QVERIFY(isFull(heard.levelDb(wantedHz, settledMs, endMs)));
    QVERIFY(isFull(heard.levelDb(otherHz, settledMs, endMs)));
}

/// A program that belongs to none of those that were running is heard beside the wanted one, from its start on.
void AudioPlayersTest::playerThatStartsLater()
{
    const auto wanted = play("wanted", wantedHz);
    const auto excluded = play("excluded", 2100.0);
    const auto scene = this->scene(audioOf(wanted->pid()));
    QVERIFY2(scene->startRecording() && scene->waitUntilRecorded(2500), scene->story());
    const auto late = play("late", otherHz);
    QVERIFY(late->isPlaying());
    QVERIFY2(scene->waitUntilRecorded(6000) && scene->stopAndExit(), scene->story());
    const Heard heard(scene->command.output);
    const double endMs = heard.durationMs() - settledMs;
    const double lateMs = heard.firstMs(otherHz);
    QVERIFY2(lateMs > 2000.0 && lateMs < endMs - 1000.0, QByteArray::number(lateMs));
    QVERIFY(heard.levelDb(otherHz, settledMs, lateMs - 100.0) < unheardDb);
    QVERIFY(isFull(heard.levelDb(otherHz, lateMs + 300.0, endMs)));
    QVERIFY(isFull(heard.levelDb(wantedHz, settledMs, endMs)));
    QVERIFY(heard.levelDb(2100.0, settledMs, endMs) < unheardDb);
}

/// The application has quit and is started again: another process of it.
void AudioPlayersTest::playerThatComesBack()
{
    auto wanted = play("wanted", wantedHz);
    const auto other = play("other", otherHz);
    const auto scene = this->scene(audioOf(wanted->pid()));
    QVERIFY2(scene->startRecording() && scene->waitUntilRecorded(2000), scene->story());
    QVERIFY(wanted->stop());
    QVERIFY2(scene->waitUntilRecorded(4000), scene->story());
    wanted = play("wanted", wantedHz);
    QVERIFY2(scene->waitUntilRecorded(7000) && scene->stopAndExit(), scene->story());
    const Heard heard(scene->command.output);
    const double endMs = heard.durationMs() - settledMs;
    const double goneMs = heard.goneMs(wantedHz, settledMs);
    const double backMs = heard.firstMs(wantedHz, goneMs);
    const QByteArray times = QByteArray::number(goneMs) + ' ' + QByteArray::number(backMs);
    QVERIFY2(goneMs > 1500.0 && backMs > goneMs + 1000.0, times);
    QVERIFY(isFull(heard.levelDb(wantedHz, settledMs, goneMs - 300.0)));
    QVERIFY2(heard.rmsDb(goneMs + 300.0, backMs - 300.0) < -90.0, times);
    QVERIFY(isFull(heard.levelDb(wantedHz, backMs + 300.0, endMs)));
    QVERIFY(heard.levelDb(otherHz, settledMs, endMs) < unheardDb);
}

/// The frame goes on, with silence.
void AudioPlayersTest::wantedPlayerExits()
{
    const auto wanted = play("wanted", wantedHz);
    const auto other = play("other", otherHz);
    const auto scene = this->scene(audioOf(wanted->pid()));
    QVERIFY2(scene->startRecording() && scene->waitUntilRecorded(2000), scene->story());
    QVERIFY(wanted->stop());
    QVERIFY2(scene->waitUntilRecorded(6000) && scene->stopAndExit(), scene->story());
    const Playback frames = playBack(scene->command.output);
    QVERIFY2(frames.isWhole() && frames.ptsMs.last() > 5800.0, frames.description());
    const Heard heard(scene->command.output);
    const double goneMs = heard.goneMs(wantedHz, settledMs);
    QVERIFY2(goneMs > 1500.0 && goneMs < 4000.0, QByteArray::number(goneMs));
    QVERIFY(heard.rmsDb(goneMs + 300.0, heard.durationMs()) < -90.0);
    QVERIFY2(std::abs(heard.durationMs() - frames.ptsMs.last()) < 100.0, QByteArray::number(heard.durationMs()));
}

/// The process that owns a browser's window is not the one that plays its audio.
void AudioPlayersTest::browser()
{
    const auto other = play("other", wantedHz);
    const PrivateTempDir directory;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DISPLAY"), QString::fromLatin1(server_.display()));
    QProcess browser;
    browser.setProcessEnvironment(environment);
    browser.setProcessChannelMode(QProcess::MergedChannels);
    const QString page = QStringLiteral("data:text/html,<title>orvantis audio page</title><script>"
                                        "const c = new AudioContext(), o = c.createOscillator(), g = c.createGain();"
                                        "o.frequency.value = 1250; g.gain.value = 0.25;"
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

    AudioScene scene(server_.display(), window, audio_, audioOf(browser.processId()));
    QVERIFY2(scene.record(6000), scene.story());
    browser.terminate();
    QVERIFY(browser.waitForFinished(hangLimitMs));
    const Heard heard(scene.command.output);
    const double endMs = heard.durationMs() - settledMs;
    const double levelDb = heard.levelDb(otherHz, 2000.0, endMs);
    QVERIFY2(std::abs(levelDb - playerDb) < 1.0, QByteArray::number(levelDb));
    QVERIFY(heard.levelDb(wantedHz, settledMs, endMs) < unheardDb);
}

ORVANTIS_TEST(AudioPlayersTest)
#include "audioplayers_test.moc"
