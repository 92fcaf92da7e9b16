// The audio capture's rules on a platform whose every answer the test sets.
#include "recorderaudiocapture.h"
#include "testregistry.h"

#include "fakeaudio.h"
#include "fakeplatform.h"
#include "logcapture.h"
#include "recorderaudiocapture_p.h"

#include <QTest>

#include <algorithm>
#include <atomic>
#include <new>
#include <thread>

using fakeplatform::audio;
using platform::AudioApplication;

namespace {

constexpr qint64 fiveSeconds = 5000000000;
constexpr qint64 twoSeconds = 2000000000;

const QString player = QStringLiteral("/Applications/Player.app/Contents/MacOS/Player");

QString configuredLine(const QString& device, bool appOnly)
{
    return QStringLiteral("macOS ScreenCaptureKit audio capture configured requested device \"%1\" app-only %2")
        .arg(device, appOnly ? QStringLiteral("true") : QStringLiteral("false"));
}

const QString startedLine
    = QStringLiteral("macOS ScreenCaptureKit audio capture started sample rate 48000 channels 2");

/// A capture of the display, configured.
std::unique_ptr<RecorderAudioCapture> displayCapture()
{
    audio().lookup = fakeplatform::contentOf({});
    return std::make_unique<RecorderAudioCapture>(QString());
}

}

class RecorderAudioCaptureTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fakeplatform::reset(); }

    void formatIsFixed();
    void invalidPidFailsBeforeAnyPlatformCall_data();
    void invalidPidFailsBeforeAnyPlatformCall();
    void displayAudio_data();
    void displayAudio();
    void streamConfiguration();
    void lookupTimesOut();
    void lateLookupIsHarmless();
    void lookupFails();
    void lookupFailsWithoutText();
    void lookupGivesNothing();
    void noDisplay();
    void pidOfNobody();
    void twelveCandidatesAtMost();
    void pidBeyond32BitsMatchesNobody();
    void applicationAudio();
    void applicationWithoutBundle();
    void applicationWithoutNames();
    void outputSetupFails_data();
    void outputSetupFails();

    void startAndStop();
    void startTwice();
    void startOfAnInvalidCapture();
    void startTimesOut();
    void lateStartIsHarmless();
    void startFails();
    void startAfterAFailure();
    void stopWithoutStart();
    void stopFails();
    void stopTimesOut();
    void startAfterStop();
    void chunksSurviveStop();
    void destructionStops();
    void destructionWithoutMemoryForTheStop();
    void destructionWhileAStartIsPending();

    void streamEndsByItself();
    void streamEndsWithoutError();
    void meteringOnlyWhileStarted();
    void meteringInTurns();
    void audioThatIsNotTakenInTimeIsToldOnce();
    void audioThatFoundNoMemoryIsToldOnce();
    void clockThatStoodStillIsFoundAgain();
    void nullPrivateObject();
    void everythingIsReleased();
};

// ---- configuration ---------------------------------------------------------------------------------------------

void RecorderAudioCaptureTest::formatIsFixed()
{
    const RecorderAudioCapture capture{QStringLiteral("app-pid:0")};
    QCOMPARE(capture.sampleRate(), 48000);
    QCOMPARE(capture.channelCount(), 2);
    QCOMPARE(capture.sampleFormat(), 1);
}

void RecorderAudioCaptureTest::invalidPidFailsBeforeAnyPlatformCall_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("quoted");
    QTest::newRow("zero") << "app-pid:0"
                          << "app-pid:0";
    QTest::newRow("text") << "app-pid:x"
                          << "app-pid:x";
    QTest::newRow("negative, blanks around") << "  app-pid:-5\n"
                                             << "app-pid:-5";
    QTest::newRow("overflow") << "app-pid:18446744073709551617"
                              << "app-pid:18446744073709551617";
    QTest::newRow("nothing") << "app-pid: "
                             << "app-pid:";
}

void RecorderAudioCaptureTest::invalidPidFailsBeforeAnyPlatformCall()
{
    QFETCH(const QString, device);
    QFETCH(const QString, quoted);
    const LogCapture log;
    const RecorderAudioCapture capture{device};
    QVERIFY(!capture.isValid());
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList("macOS app-only audio capture received an invalid app-pid device: \"" + quoted + "\""));
    QCOMPARE(log.messages().size(), 1);
    QCOMPARE(audio().lookups.size(), 0U);
    QCOMPARE(audio().waits.size(), 0U);
    QCOMPARE(audio().streams.size(), 0U);
}

void RecorderAudioCaptureTest::displayAudio_data()
{
    QTest::addColumn<QString>("device");
    QTest::addColumn<QString>("quoted");
    QTest::newRow("empty") << ""
                           << "";
    QTest::newRow("any word") << " display\t"
                              << "display";
    QTest::newRow("wrong case") << "APP-PID:42"
                                << "APP-PID:42";
}

void RecorderAudioCaptureTest::displayAudio()
{
    QFETCH(const QString, device);
    QFETCH(const QString, quoted);
    audio().lookup = fakeplatform::contentOf({{42, "a", "b"}}, 3);
    const LogCapture log;
    const RecorderAudioCapture capture{device};
    QVERIFY(capture.isValid());
    QCOMPARE(log.messages(), QStringList(configuredLine(quoted, false)));
    QCOMPARE(audio().lookups.size(), 1U);
    QVERIFY(audio().lookups[0].excludeDesktopWindows);
    QVERIFY(!audio().lookups[0].onScreenWindowsOnly);
    QCOMPARE(audio().waits, std::vector<qint64>{fiveSeconds});
    QCOMPARE(audio().streams.size(), 1U);
    QCOMPARE(audio().streams[0].filter.display, 0U);
    QVERIFY(!audio().streams[0].filter.excludedApplications);
    QCOMPARE(audio().executablesAsked.size(), 0U);
    QCOMPARE(audio().outputsAdded, 1);
    QCOMPARE(audio().starts, 0);
}

void RecorderAudioCaptureTest::streamConfiguration()
{
    const auto capture = displayCapture();
    const auto& configuration = audio().streams.at(0).configuration;
    QCOMPARE(configuration.width, 2);
    QCOMPARE(configuration.height, 2);
    QCOMPARE(configuration.minimumFrameIntervalNumerator, 1);
    QCOMPARE(configuration.minimumFrameIntervalDenominator, 1);
    QCOMPARE(configuration.queueDepth, 1);
    QVERIFY(!configuration.showsCursor);
    QVERIFY(configuration.capturesAudio);
    QCOMPARE(configuration.sampleRate, 48000);
    QCOMPARE(configuration.channelCount, 2);
    QVERIFY(!configuration.excludesCurrentProcessAudio);
    QCOMPARE(audio().queueLabels.size(), 1U);
    QVERIFY(audio().queueLabels[0].endsWith(".screencapturekit.audio"));
    QVERIFY(audio().queueLabels[0].size() > qsizetype(qstrlen(".screencapturekit.audio")));
}

void RecorderAudioCaptureTest::lookupTimesOut()
{
    audio().lookup = [](const platform::AudioContentCompletion&) {};
    const LogCapture log;
    const RecorderAudioCapture capture{QString()};
    QVERIFY(!capture.isValid());
    QCOMPARE(log.messages(QtWarningMsg), QStringList("macOS ScreenCaptureKit shareable content lookup timed out."));
    QCOMPARE(audio().waits, std::vector<qint64>{fiveSeconds});
    QCOMPARE(audio().streams.size(), 0U);
}

void RecorderAudioCaptureTest::lateLookupIsHarmless()
{
    platform::AudioContentCompletion late;
    audio().lookup = [&late](platform::AudioContentCompletion completion) { late = std::move(completion); };
    {
        const RecorderAudioCapture capture{QString()};
        QVERIFY(!capture.isValid());
    }
    QVERIFY(late);
    const LogCapture log;
    late(std::make_shared<platform::AudioContent>(), std::nullopt);
    QCOMPARE(log.messages(), QStringList());
    QCOMPARE(audio().streams.size(), 0U);
}

void RecorderAudioCaptureTest::lookupFails()
{
    const LogCapture log;
    const RecorderAudioCapture capture{QString()};
    QVERIFY(!capture.isValid());
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList(
            "macOS ScreenCaptureKit shareable content lookup failed: \"" + fakeplatform::noAudioError + "\""));
    QCOMPARE(audio().streams.size(), 0U);
}

void RecorderAudioCaptureTest::lookupGivesNothing()
{
    audio().lookup = [](const platform::AudioContentCompletion& completion) { completion(nullptr, std::nullopt); };
    const LogCapture log;
    const RecorderAudioCapture capture{QString()};
    QVERIFY(!capture.isValid());
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList("macOS ScreenCaptureKit shareable content lookup gave neither content nor an error."));
}

void RecorderAudioCaptureTest::lookupFailsWithoutText()
{
    audio().lookup = [](const platform::AudioContentCompletion& completion) { completion(nullptr, QString()); };
    const LogCapture log;
    const RecorderAudioCapture capture{QString()};
    QVERIFY(!capture.isValid());
    QCOMPARE(log.messages(QtWarningMsg), QStringList("macOS ScreenCaptureKit shareable content lookup failed: \"\""));
}

void RecorderAudioCaptureTest::noDisplay()
{
    audio().lookup = fakeplatform::contentOf({{42, "", "x"}}, 0);
    const LogCapture log;
    const RecorderAudioCapture capture{QStringLiteral("app-pid:42")};
    QVERIFY(!capture.isValid());
    QCOMPARE(log.messages(), QStringList("macOS ScreenCaptureKit found no capturable display for audio."));
}

void RecorderAudioCaptureTest::pidOfNobody()
{
    audio().lookup = fakeplatform::contentOf({{7, "org.seven", "Seven"}, {8, QString(), QString()}});
    const LogCapture log;
    const RecorderAudioCapture capture{QStringLiteral(" app-pid: 42 ")};
    QVERIFY(!capture.isValid());
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList("macOS ScreenCaptureKit could not find requested app for app-only audio pid 42 "
                    "requested device \"app-pid: 42\" candidates 2"));
    QCOMPARE(log.messages(QtDebugMsg),
        QStringList({"macOS ScreenCaptureKit audio app candidate pid 7 name \"Seven\" bundle \"org.seven\"",
            "macOS ScreenCaptureKit audio app candidate pid 8 name \"\" bundle \"\""}));
    QCOMPARE(audio().streams.size(), 0U);
}

void RecorderAudioCaptureTest::twelveCandidatesAtMost()
{
    std::vector<AudioApplication> applications;
    for (int pid = 100; pid < 140; ++pid)
        applications.push_back({pid, "", ""});
    audio().lookup = fakeplatform::contentOf(applications);
    const LogCapture log;
    const RecorderAudioCapture capture{QStringLiteral("app-pid:1")};
    QCOMPARE(log.countStartingWith("macOS ScreenCaptureKit audio app candidate pid "), 12);
    QVERIFY(log.contains("macOS ScreenCaptureKit audio app candidate pid 100 name \"\" bundle \"\""));
    QVERIFY(log.contains("macOS ScreenCaptureKit audio app candidate pid 111 name \"\" bundle \"\""));
    QVERIFY(log.contains("macOS ScreenCaptureKit could not find requested app for app-only audio pid 1 requested "
                         "device \"app-pid:1\" candidates 40"));
}

void RecorderAudioCaptureTest::pidBeyond32BitsMatchesNobody()
{
    audio().lookup = fakeplatform::contentOf({{1, "", "one"}});
    const RecorderAudioCapture capture{QStringLiteral("app-pid:4294967297")}; // 1 in its low 32 bits
    QVERIFY(!capture.isValid());
}

void RecorderAudioCaptureTest::applicationAudio()
{
    audio().lookup = fakeplatform::contentOf({{7, "org.seven", "Seven"}, {42, "org.player", "Player"},
        {43, "", "Helper"}, {44, "org.player", "Second"}, {45, "", "Player"}});
    audio().executables = {{42, player}, {43, QStringLiteral("/Applications/Player.app/Contents/Helpers/X")},
        {45, QStringLiteral("/Applications/Player.application/X")}};
    const LogCapture log;
    const RecorderAudioCapture capture{QStringLiteral("app-pid:42")};
    QVERIFY(capture.isValid());
    QCOMPARE(log.messages(QtWarningMsg), QStringList());
    QCOMPARE(log.messages(),
        QStringList({"macOS ScreenCaptureKit audio limited by excluding other applications pid 42 name \"Player\" "
                     "bundle \"org.player\" executable \"/Applications/Player.app/Contents/MacOS/Player\" app bundle "
                     "root \"/Applications/Player.app\" allowed applications 3 excluded applications 2",
            configuredLine("app-pid:42", true)}));
    QCOMPARE(audio().streams.size(), 1U);
    QCOMPARE(*audio().streams[0].filter.excludedApplications, (std::vector<std::size_t>{0, 4}));
    QCOMPARE(audio().executablesAsked, (std::vector<qint64>{42, 7, 42, 43, 44, 45}));
}

void RecorderAudioCaptureTest::applicationWithoutBundle()
{
    audio().lookup = fakeplatform::contentOf({{42, "", "player"}, {43, "", "player"}, {44, "", "other"}});
    audio().executables = {{42, QStringLiteral("/usr/bin/player")}};
    const LogCapture log;
    const RecorderAudioCapture capture{QStringLiteral("app-pid:42")};
    QVERIFY(capture.isValid());
    QVERIFY(
        log.contains("macOS ScreenCaptureKit audio limited by excluding other applications pid 42 name \"player\" "
                     "bundle \"\" executable \"/usr/bin/player\" app bundle root \"\" allowed applications 2 "
                     "excluded applications 1"));
    QCOMPARE(*audio().streams[0].filter.excludedApplications, std::vector<std::size_t>{2});
}

void RecorderAudioCaptureTest::applicationWithoutNames()
{
    audio().lookup = fakeplatform::contentOf({{42, QString(), QString()}, {43, QString(), QString()}});
    const LogCapture log;
    const RecorderAudioCapture capture{QStringLiteral("app-pid:42")};
    QVERIFY(
        log.contains("macOS ScreenCaptureKit audio limited by excluding other applications pid 42 name \"\" bundle "
                     "\"\" executable \"\" app bundle root \"\" allowed applications 1 excluded applications 1"));
    QCOMPARE(*audio().streams[0].filter.excludedApplications, std::vector<std::size_t>{1});
}

void RecorderAudioCaptureTest::outputSetupFails_data()
{
    QTest::addColumn<bool>("hasError");
    QTest::addColumn<QString>("text");
    QTest::newRow("with an error") << true << "device busy";
    QTest::newRow("without an error") << false << "unknown error";
}

void RecorderAudioCaptureTest::outputSetupFails()
{
    QFETCH(const bool, hasError);
    QFETCH(const QString, text);
    audio().lookup = fakeplatform::contentOf({});
    audio().addOutputFailure.emplace(hasError ? std::optional(text) : std::nullopt);
    const LogCapture log;
    RecorderAudioCapture capture{QString()};
    QVERIFY(!capture.isValid());
    QCOMPARE(log.messages(), QStringList("macOS ScreenCaptureKit audio output setup failed: \"" + text + "\""));
    QCOMPARE(audio().liveStreams + audio().liveOutputs + audio().liveQueues, 0);
    QVERIFY(!capture.start());
    QCOMPARE(audio().starts, 0);
}

// ---- start and stop --------------------------------------------------------------------------------------------

void RecorderAudioCaptureTest::startAndStop()
{
    const auto capture = displayCapture();
    audio().waits.clear();
    const LogCapture log;
    QVERIFY(capture->start());
    QCOMPARE(log.messages(), QStringList(startedLine));
    QCOMPARE(audio().waits, std::vector<qint64>{fiveSeconds});
    capture->stop();
    QCOMPARE(audio().waits, (std::vector<qint64>{fiveSeconds, twoSeconds}));
    QCOMPARE(audio().starts, 1);
    QCOMPARE(audio().stops, 1);
    QCOMPARE(log.messages().size(), 1);
    QVERIFY(capture->isValid());
}

void RecorderAudioCaptureTest::startTwice()
{
    const auto capture = displayCapture();
    QVERIFY(capture->start());
    const LogCapture log;
    QVERIFY(capture->start());
    QCOMPARE(audio().starts, 1);
    QCOMPARE(log.messages(), QStringList());
}

void RecorderAudioCaptureTest::startOfAnInvalidCapture()
{
    RecorderAudioCapture capture{QString()};
    QVERIFY(!capture.start());
    QCOMPARE(audio().starts, 0);
}

void RecorderAudioCaptureTest::startTimesOut()
{
    const auto capture = displayCapture();
    audio().start = [](const platform::AudioCompletion&) {};
    const LogCapture log;
    QVERIFY(!capture->start());
    QCOMPARE(log.messages(QtWarningMsg), QStringList("macOS ScreenCaptureKit audio capture start timed out."));
    capture->stop();
    QCOMPARE(audio().stops, 0);
}

void RecorderAudioCaptureTest::lateStartIsHarmless()
{
    platform::AudioCompletion late;
    auto capture = displayCapture();
    audio().start = [&late](platform::AudioCompletion completion) { late = std::move(completion); };
    QVERIFY(!capture->start());
    capture.reset();
    const LogCapture log;
    late(QStringLiteral("too late"));
    QCOMPARE(log.messages(), QStringList());
}

void RecorderAudioCaptureTest::startFails()
{
    const auto capture = displayCapture();
    audio().start = [](const platform::AudioCompletion& completion) { completion(QStringLiteral("not now")); };
    const LogCapture log;
    QVERIFY(!capture->start());
    QCOMPARE(log.messages(), QStringList("macOS ScreenCaptureKit audio capture failed to start: \"not now\""));
}

void RecorderAudioCaptureTest::startAfterAFailure()
{
    const auto capture = displayCapture();
    audio().start = [](const platform::AudioCompletion& completion) { completion(QString()); };
    QVERIFY(!capture->start());
    audio().start = nullptr;
    QVERIFY(capture->start());
}

void RecorderAudioCaptureTest::stopWithoutStart()
{
    const auto capture = displayCapture();
    capture->stop();
    QCOMPARE(audio().stops, 0);
}

void RecorderAudioCaptureTest::stopFails()
{
    const auto capture = displayCapture();
    QVERIFY(capture->start());
    audio().stop = [](const platform::AudioCompletion& completion) { completion(QStringLiteral("gone")); };
    const LogCapture log;
    capture->stop();
    QCOMPARE(log.messages(QtWarningMsg), QStringList("macOS ScreenCaptureKit audio capture stop error: \"gone\""));
    capture->stop();
    QCOMPARE(audio().stops, 1);
}

void RecorderAudioCaptureTest::stopTimesOut()
{
    platform::AudioCompletion late;
    const auto capture = displayCapture();
    QVERIFY(capture->start());
    audio().stop = [&late](platform::AudioCompletion completion) { late = std::move(completion); };
    const LogCapture log;
    capture->stop();
    QCOMPARE(log.messages(), QStringList());
    late(QStringLiteral("late"));
    QCOMPARE(log.messages(), QStringList("macOS ScreenCaptureKit audio capture stop error: \"late\""));
    capture->stop();
    QCOMPARE(audio().stops, 1);
}

void RecorderAudioCaptureTest::startAfterStop()
{
    const auto capture = displayCapture();
    QVERIFY(capture->start());
    capture->stop();
    QVERIFY(capture->start());
    QCOMPARE(audio().starts, 2);
    QVERIFY(fakeplatform::deliverStereo({1, 1}));
    QCOMPARE(capture->readAvailable().size(), 1);
}

void RecorderAudioCaptureTest::chunksSurviveStop()
{
    const auto capture = displayCapture();
    QVERIFY(capture->start());
    QVERIFY(fakeplatform::deliverStereo({1, 2}));
    capture->stop();
    QCOMPARE(capture->readAvailable().size(), 1);
}

void RecorderAudioCaptureTest::destructionStops()
{
    auto capture = displayCapture();
    QVERIFY(capture->start());
    capture.reset();
    QCOMPARE(audio().stops, 1);
    QCOMPARE(audio().waits.back(), twoSeconds);
    QVERIFY(!fakeplatform::deliverStereo({1, 2}));
}

/// A recording that ends for want of memory still answers its launcher.
void RecorderAudioCaptureTest::destructionWithoutMemoryForTheStop()
{
    auto capture = displayCapture();
    QVERIFY(capture->start());
    audio().stop = [](const platform::AudioCompletion&) { throw std::bad_alloc(); };
    capture.reset();
    QCOMPARE(audio().stops, 1);
    QCOMPARE(audio().liveStreams + audio().liveOutputs + audio().liveQueues, 0);
    QVERIFY(!fakeplatform::deliverStereo({1, 2}));
}

void RecorderAudioCaptureTest::destructionWhileAStartIsPending()
{
    auto capture = displayCapture();
    std::thread system;
    std::atomic<bool> answered = false;
    audio().start = [&](platform::AudioCompletion completion) {
        system = std::thread([&answered, completion = std::move(completion)] {
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            completion(std::nullopt);
            answered = true;
        });
    };
    QVERIFY(!capture->start());
    QVERIFY(!answered);
    capture.reset();
    QCOMPARE(audio().stops, 0);
    system.join();
    QVERIFY(answered);
}

// ---- delivery --------------------------------------------------------------------------------------------------

void RecorderAudioCaptureTest::streamEndsByItself()
{
    const auto capture = displayCapture();
    QVERIFY(capture->start());
    const LogCapture log;
    QVERIFY(fakeplatform::stopStream(QStringLiteral("the user said so")));
    QCOMPARE(
        log.messages(QtWarningMsg), QStringList("macOS ScreenCaptureKit audio stream stopped: \"the user said so\""));
    QVERIFY(capture->isValid());
    QVERIFY(capture->start()); // still started
    QCOMPARE(audio().starts, 1);
    capture->stop();
    QCOMPARE(audio().stops, 1);
}

void RecorderAudioCaptureTest::streamEndsWithoutError()
{
    const auto capture = displayCapture();
    const LogCapture log;
    QVERIFY(fakeplatform::stopStream(std::nullopt));
    QCOMPARE(log.messages(), QStringList());
}

void RecorderAudioCaptureTest::meteringOnlyWhileStarted()
{
    std::vector<qint64> asked;
    audio().deliverUntil = [&asked](qint64 monotonicMs) {
        asked.push_back(monotonicMs);
        fakeplatform::deliverStereo({1, 2});
    };
    const auto capture = displayCapture();
    capture->deliverUntil(1);
    QVERIFY(capture->start());
    capture->deliverUntil(2);
    capture->deliverUntil(3);
    QCOMPARE(capture->readAvailable().size(), 2);
    capture->stop();
    capture->deliverUntil(4);
    QCOMPARE(asked, (std::vector<qint64>{2, 3}));
    RecorderAudioCapture invalid{QStringLiteral("app-pid:0")};
    invalid.deliverUntil(5);
    QCOMPARE(asked.size(), 2U);
}

void RecorderAudioCaptureTest::meteringInTurns()
{
    audio().delivery
        = [](qint64 monotonicMs) { return platform::AudioDelivery{std::min<qint64>(monotonicMs, 10000)}; };
    const auto capture = displayCapture();
    QCOMPARE(capture->deliverUntil(20000), qint64(20000));
    QVERIFY(capture->start());
    QCOMPARE(capture->deliverUntil(20000), qint64(10000));
    QCOMPARE(capture->deliverUntil(9000), qint64(9000));
}

void RecorderAudioCaptureTest::audioThatIsNotTakenInTimeIsToldOnce()
{
    bool missed = false;
    audio().delivery = [&missed](qint64 monotonicMs) { return platform::AudioDelivery{monotonicMs, missed}; };
    const auto capture = displayCapture();
    QVERIFY(capture->start());
    const LogCapture log;
    capture->deliverUntil(1);
    QCOMPARE(log.messages(), QStringList());
    missed = true;
    capture->deliverUntil(2);
    capture->deliverUntil(3);
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList(QStringLiteral("Audio was not taken in time; some of it is left out. Told once.")));
    QCOMPARE(log.messages().size(), 1);
}

void RecorderAudioCaptureTest::audioThatFoundNoMemoryIsToldOnce()
{
    audio().delivery = [](qint64 monotonicMs) { return platform::AudioDelivery{monotonicMs, false, true}; };
    const auto capture = displayCapture();
    QVERIFY(capture->start());
    const LogCapture log;
    capture->deliverUntil(1);
    capture->deliverUntil(2);
    QCOMPARE(log.messages(),
        QStringList(QStringLiteral("No memory for audio that was delivered; it is left out. Told once.")));
}

/// While the system slept; the errors of readings are none.
void RecorderAudioCaptureTest::clockThatStoodStillIsFoundAgain()
{
    const auto start = &RecorderAudioCapturePrivate::clockStart;
    QCOMPARE(start({}, 1000), 1000);
    QCOMPARE(start(1000, 1020), 1000);
    QCOMPARE(start(1000, 980), 1000);
    QCOMPARE(start(1000, 6000), 6000);

    std::vector<qint64> asked;
    audio().deliverUntil = [&asked](qint64 monotonicMs) { asked.push_back(monotonicMs); };
    const auto capture = displayCapture();
    QVERIFY(capture->start());
    QElapsedTimer clock;
    clock.start();
    QElapsedTimer thatStoodStill;
    thatStoodStill.start();
    while (clock.elapsed() < 50)
        thatStoodStill.start();
    capture->deliverUntil(clock, 100, false);
    capture->deliverUntil(thatStoodStill, 100, false);
    QCOMPARE(asked.size(), std::size_t(2));
    QVERIFY(asked[1] - asked[0] >= 40);
}

void RecorderAudioCaptureTest::nullPrivateObject()
{
    const LogCapture log;
    RecorderAudioCapture capture{std::unique_ptr<RecorderAudioCapturePrivate>()};
    QVERIFY(!capture.isValid());
    QVERIFY(!capture.start());
    capture.stop();
    QCOMPARE(capture.deliverUntil(1), qint64(1));
    QCOMPARE(capture.readAvailable().size(), 0);
    QCOMPARE(capture.sampleRate(), 48000);
    QCOMPARE(capture.channelCount(), 2);
    QCOMPARE(capture.sampleFormat(), 1);
    QCOMPARE(log.messages(), QStringList());
}

void RecorderAudioCaptureTest::everythingIsReleased()
{
    auto capture = displayCapture();
    QVERIFY(capture->start());
    QVERIFY(fakeplatform::deliverStereo({1, 2}));
    QCOMPARE(audio().liveStreams, 1);
    QCOMPARE(audio().liveOutputs, 1);
    QCOMPARE(audio().liveQueues, 1);
    capture.reset();
    QCOMPARE(audio().liveStreams + audio().liveOutputs + audio().liveQueues, 0);
}

ORVANTIS_TEST(RecorderAudioCaptureTest)
#include "recorderaudiocapture_test.moc"
