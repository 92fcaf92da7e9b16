// Audio and frames of one recording belong together, and the audio is whole. A recording is as many seconds long as
// the environment variable ORVANTIS_RECORDING_SECONDS says, 8 without it.
#include "audioscene.h"
#include "privatexserver.h"
#include "testregistry.h"
#include "toneprocess.h"
#include "truthreport.h"
#include "truthreporttext.h"
#include "truthwindowprocess.h"

#include <QFile>
#include <QTest>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace {

const QRect windowPlace(40, 30, 640, 360);
constexpr double toneHz = 441.7; // see audioanalysis::toneFaults()
constexpr double toneDb = -12.04; // of a toneplayer
constexpr double settledMs = 500.0; // after the start and before the end of a recording
constexpr double audioFrameMs = 1024.0 / 48.0;
constexpr double frameMs = 41.0;

int recordingSeconds()
{
    bool set = false;
    const int seconds = qEnvironmentVariableIntValue("ORVANTIS_RECORDING_SECONDS", &set);
    return set ? seconds : 8;
}

/// A window, what plays, and its two recordings, with an audio server of their own.
struct Stage {
    PrivateAudioServer audio;
    std::unique_ptr<TruthWindowProcess> window;
    std::unique_ptr<ToneProcess> player;
    std::unique_ptr<AudioScene> ofApplication;
    std::unique_ptr<AudioScene> ofDisplay;

    AudioScene& scene(bool application) { return application ? *ofApplication : *ofDisplay; }
    /// Of the application with that process, and of the display.
    void makeScenes(const QByteArray& display, qint64 pid)
    {
        ofApplication = std::make_unique<AudioScene>(display, window->id(), audio, audioOf(pid));
        ofDisplay = std::make_unique<AudioScene>(display, window->id(), audio, QString());
    }
};

}

/// Four recordings are made beside each other: of a window that flashes and beeps, and of a steady tone, each of the
/// application and of the display. The test functions look at them.
class AvSyncTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void noBeepsWithoutAServer();
    void beepsAndFlashes_data();
    void beepsAndFlashes();
    void steadyTone_data();
    void steadyTone();

private:
    PrivateXServer server_;
    Stage beeps_;
    Stage tone_;
};

void AvSyncTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    for (Stage* stage : {&beeps_, &tone_})
        QVERIFY2(stage->audio.isRunning(), qPrintable(stage->audio.errorString()));
    beeps_.audio.apply();
    beeps_.window = std::make_unique<TruthWindowProcess>(
        server_.display(), windowPlace, 120, QStringList{QStringLiteral("--beep")});
    QVERIFY2(beeps_.window->id() != 0, qPrintable(beeps_.window->errorString()));
    tone_.audio.apply();
    tone_.window = std::make_unique<TruthWindowProcess>(server_.display(), windowPlace, 0);
    QVERIFY2(tone_.window->id() != 0, qPrintable(tone_.window->errorString()));
    tone_.player = std::make_unique<ToneProcess>(ToneProcess::tone(QStringLiteral("steady"), toneHz));
    QVERIFY2(tone_.player->isPlaying(), qPrintable(tone_.player->errorString()));

    beeps_.makeScenes(server_.display(), beeps_.window->pid());
    tone_.makeScenes(server_.display(), tone_.player->pid());
    const std::vector<AudioScene*> scenes{
        beeps_.ofApplication.get(), beeps_.ofDisplay.get(), tone_.ofApplication.get(), tone_.ofDisplay.get()};
    QByteArray story;
    QVERIFY2(startTogether(scenes, story) && endTogether(scenes, recordingSeconds() * 1000, story), story);
    QVERIFY(tone_.player->isPlaying());
}

/// What measures says so when it cannot.
void AvSyncTest::noBeepsWithoutAServer()
{
    const PrivateTempDir directory; // no server listens there
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(directory.path()));
    const TruthWindowProcess window(server_.display(), windowPlace, 30, {QStringLiteral("--beep")});
    beeps_.audio.apply();
    QCOMPARE(window.id(), 0u);
    QVERIFY(!window.errorString().isEmpty());
}

void AvSyncTest::beepsAndFlashes_data()
{
    QTest::addColumn<bool>("ofTheApplication");
    QTest::newRow("application") << true;
    QTest::newRow("display") << false;
}

void AvSyncTest::beepsAndFlashes()
{
    QFETCH(const bool, ofTheApplication);
    AudioScene& scene = beeps_.scene(ofTheApplication);
    TruthQuery query{windowPlace.size(), std::nullopt, std::nullopt, {}};
    query.beeps = true;
    const TruthReport report = measureTruth(scene.command.output, query);
    const QByteArray table = truthReportTable(report).toUtf8();
    QVERIFY2(report.error.isEmpty() && report.audio, table);
    qInfo().noquote() << table;
    const TruthAudio& audio = *report.audio;
    QVERIFY2(audio.flashes >= recordingSeconds() * 9 / 10 - 1, table);

    // What the window left out of its own beeps does not count.
    const std::vector<playergaps::Gap>& gaps = beeps_.window->gaps();
    const double originMs = scene.originMs();
    const auto isSpoilt = [&](const TruthBeep& beep) {
        constexpr double nearMs = 100.0;
        return std::any_of(gaps.begin(), gaps.end(), [&](const playergaps::Gap& gap) {
            const double atMs = gap.atMs - originMs;
            return atMs < beep.fileMs + nearMs && atMs + gap.lengthMs > beep.fileMs - nearMs;
        });
    };
    double sumMs = 0.0;
    int judged = 0;
    for (const TruthBeep& beep : audio.beeps) {
        if (isSpoilt(beep))
            continue;
        QVERIFY2(std::abs(beep.offsetMs) <= 20.0, table);
        sumMs += beep.offsetMs;
        ++judged;
    }
    const int leftOut = int(gaps.size());
    if (leftOut > 0)
        qInfo("The window itself left something out %d times; %d beeps are judged", leftOut, judged);
    QVERIFY2(judged > 0 && std::abs(sumMs / judged) <= 10.0, table);
    QVERIFY2(audio.missedBeeps <= leftOut && audio.strayBeeps <= leftOut, table);
    // Some milliseconds of the painting's and the capture's delay come and go: only a long recording tells a drift.
    constexpr int enoughSeconds = 180;
    QVERIFY2(recordingSeconds() < enoughSeconds || std::abs(audio.driftMsPerMinute) < 1.0, table);
    QVERIFY2(std::abs(*report.videoDurationMs - *report.audioDurationMs) < audioFrameMs + frameMs, table);
}

void AvSyncTest::steadyTone_data()
{
    beepsAndFlashes_data();
}

/// Nothing is missing in the audio, nothing is there twice, and nothing clicks, unless the player itself left it out.
void AvSyncTest::steadyTone()
{
    QFETCH(const bool, ofTheApplication);
    AudioScene& scene = tone_.scene(ofTheApplication);
    const Heard heard(scene.command.output);
    QVERIFY(heard.durationMs() >= recordingSeconds() * 1000.0 - frameMs);
    constexpr double roundingMs = 1.0;
    QVERIFY2(heard.worstJoinMs() <= roundingMs, QByteArray::number(heard.worstJoinMs()));
    const double endMs = heard.durationMs() - settledMs;
    const double firstMs = heard.firstMs(toneHz);
    QVERIFY2(firstMs >= 0.0 && firstMs < settledMs, QByteArray::number(firstMs));
    QVERIFY(std::abs(heard.usualLevelDb(toneHz, settledMs, endMs) - toneDb) < 0.5);
    const auto faults = playergaps::unexplained(
        heard.toneFaults(toneHz, settledMs, endMs), tone_.player->gaps(), scene.originMs() + settledMs);
    QVERIFY2(faults.empty(), qPrintable(audioanalysis::describe(faults)));
}

ORVANTIS_TEST(AvSyncTest)
#include "avsync_test.moc"
