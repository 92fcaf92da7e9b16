// The turns of the audio in a recording: when it starts, when it is taken, when it ends, and what becomes of a
// recording whose audio fails.
#include "audioanalysis.h"
#include "fakeaudio.h"
#include "mediafile.h"
#include "numberedwindow.h"
#include "privatetempdir.h"
#include "recorderbench.h"
#include "testregistry.h"

#include <QSemaphore>

#include <atomic>
#include <cmath>
#include <mutex>

using fakeplatform::audio;

namespace {

constexpr int rate = 48000;
constexpr double toneHz = 441.7; // toneFaults() says why

const QString noAudioLine = QStringLiteral("Continuing video recording without audio.");
const QString notStartedLine = QStringLiteral("Audio capture did not start; recording video only.");
const QString firstPcmPrefix = QStringLiteral("Unix audio capture received PCM ");

/// Audio that the reader's clock meters out: a tone of half the full scale, from the start of the capture on.
class MeteredTone {
public:
    MeteredTone()
    {
        audio().lookup = fakeplatform::contentOf({});
        audio().deliverUntil = [this](qint64 monotonicMs) { deliver(monotonicMs); };
        audio().start = [this](const platform::AudioCompletion& completion) {
            startedAtMs_ = nowMs();
            completion(std::nullopt);
        };
    }

    int asked() const { return asked_; }
    bool startedBefore(qint64 monotonicMs) const { return startedAtMs_ > 0 && startedAtMs_ <= monotonicMs; }
    /// Whether the instants were all between the start of the capture and now, and never went back.
    bool instantsMadeSense() const { return madeSense_; }

    static qint64 nowMs()
    {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

private:
    void deliver(qint64 monotonicMs)
    {
        ++asked_;
        const qint64 fromMs = deliveredUntilMs_ > 0 ? deliveredUntilMs_ : monotonicMs - 1;
        madeSense_
            = madeSense_ && monotonicMs >= fromMs && monotonicMs <= nowMs() + 1 && monotonicMs >= startedAtMs_ - 1;
        std::vector<qint16> samples;
        for (qint64 i = 0; i < (monotonicMs - fromMs) * rate / 1000; ++i, ++position_) {
            const auto value = qint16(std::lrint(16384.0 * std::sin(2.0 * M_PI * toneHz * double(position_) / rate)));
            samples.push_back(value);
            samples.push_back(value);
        }
        deliveredUntilMs_ = monotonicMs;
        fakeplatform::deliverStereo(samples);
    }

    std::atomic<int> asked_{0};
    std::atomic<qint64> startedAtMs_{0};
    std::atomic<bool> madeSense_{true};
    qint64 deliveredUntilMs_ = 0; // worker only
    qint64 position_ = 0; // worker only
};

}

class RecordingAudioTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void audioBeginsWithTheRecordingClock();
    void meteredToneIsRecordedWithoutABreak();
    void audioIsTakenBetweenFrames();
    void audioIsTakenWhileTheWindowIsGone();
    void audioIsTakenWhileACaptureHangs();
    void audioThatCannotBeConfigured();
    void audioThatDoesNotStart();
    void audioThatNeverAnswersTheStart();
    void captureIsStoppedBeforeTheEnd();
    void audioAfterTheStopIsNotRecorded();
    void streamThatEndsByItself();
    void stopBeforeTheFirstFrame();
    void destructionWithoutStop();

private:
    void make(const QString& audioSource = QString());
    void recordImages(int count);
    RecorderProbe probe() { return RecorderProbe(*recorder_); }

    PrivateTempDir directory_;
    std::optional<RecorderBench> bench_;
    std::optional<NumberedWindow> window_;
    std::optional<MeteredTone> tone_;
    std::atomic<int> noted_{-1}; // by the worker
    std::atomic<bool> gone_{false};
    std::unique_ptr<GstRecorder> recorder_;
};

void RecordingAudioTest::init()
{
    bench_.emplace();
    window_.emplace();
    noted_ = -1;
    gone_ = false;
}

void RecordingAudioTest::cleanup()
{
    recorder_.reset(); // first: its worker uses the rest
    tone_.reset();
    window_.reset();
    bench_.reset();
}

void RecordingAudioTest::make(const QString& audioSource)
{
    RecorderArguments arguments;
    arguments.output = directory_.filePath(QStringLiteral("out.mp4"));
    arguments.audioSource = audioSource;
    recorder_ = makeRecorder(arguments);
}

/// Waits until the recording has begun and this many images more were asked for.
void RecordingAudioTest::recordImages(int count)
{
    QTRY_VERIFY_WITH_TIMEOUT(probe().recordingStartedAtMs().load() > 0, patienceMs);
    const int asked = window_->asked();
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() >= asked + count, patienceMs);
}

void RecordingAudioTest::audioBeginsWithTheRecordingClock()
{
    tone_.emplace();
    window_->beforeImage = [this](int number) {
        if (number == 4) // the one after the readiness notice
            noted_ = audio().starts;
        return true;
    };
    make(QStringLiteral("  anything "));
    recordImages(3);
    recorder_->stop();
    QCOMPARE(noted_.load(), 0);
    QCOMPARE(audio().starts, 1);
    QVERIFY(bench_->log.contains(QStringLiteral(
        "macOS ScreenCaptureKit audio capture configured requested device \"anything\" app-only false")));
    QVERIFY(bench_->log.contains(
        QStringLiteral("macOS ScreenCaptureKit audio capture started sample rate 48000 channels 2")));
    QCOMPARE(bench_->log.countStartingWith(firstPcmPrefix), 1);
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList());
    QVERIFY(tone_->instantsMadeSense());
}

void RecordingAudioTest::meteredToneIsRecordedWithoutABreak()
{
    tone_.emplace();
    make();
    recordImages(45);
    recorder_->stop();
    QVERIFY(tone_->instantsMadeSense());

    MediaFile file(probe().outputPath());
    const auto recorded = file.audio();
    QVERIFY2(recorded, qPrintable(file.errorString()));
    QCOMPARE(recorded->sampleRate, rate);
    QCOMPARE(recorded->channels.size(), 2);
    const double durationMs = probe().durationMs();
    QVERIFY2(std::abs(recorded->durationMs() - durationMs) < 2 * 1024 * 1000.0 / rate + 41,
        qPrintable(QString::number(recorded->durationMs())));
    QVERIFY(recorded->durationMs() > 1000.0);
    for (const auto& channel : recorded->channels) {
        const auto inside = audioanalysis::between(channel, rate, 100.0, recorded->durationMs() - 100.0);
        const auto faults = audioanalysis::toneFaults(inside, rate, toneHz);
        QVERIFY2(faults.empty(), qPrintable(audioanalysis::describe(faults)));
    }
}

void RecordingAudioTest::audioIsTakenBetweenFrames()
{
    tone_.emplace();
    make();
    recordImages(10);
    const int images = window_->asked();
    const int turns = tone_->asked();
    recordImages(20);
    // Each frame has a turn before and one after it, and the pauses of 41 ms have some of their own.
    QVERIFY2(tone_->asked() - turns >= 3 * (window_->asked() - images - 1),
        qPrintable(QString::number(tone_->asked() - turns)));
}

void RecordingAudioTest::audioIsTakenWhileTheWindowIsGone()
{
    tone_.emplace();
    window_->beforeImage = [this](int) { return !gone_; };
    make();
    recordImages(3);
    gone_ = true;
    const int turns = tone_->asked();
    recordImages(5);
    QVERIFY(tone_->asked() >= turns + 4);
    recorder_->stop();
    QVERIFY(tone_->instantsMadeSense());
}

void RecordingAudioTest::audioIsTakenWhileACaptureHangs()
{
    QSemaphore answers;
    tone_.emplace();
    window_->beforeImage = [&](int) {
        if (gone_)
            answers.acquire();
        return true;
    };
    make();
    recordImages(3);
    gone_ = true;
    const int turns = tone_->asked();
    QTRY_VERIFY_WITH_TIMEOUT(tone_->asked() >= turns + 4, patienceMs);
    gone_ = false;
    answers.release();
    recordImages(3); // it goes on
    recorder_->stop();
    QVERIFY(tone_->instantsMadeSense());
}

void RecordingAudioTest::audioThatCannotBeConfigured()
{
    make(QStringLiteral("app-pid:0"));
    recordImages(3);
    recorder_->stop();
    QCOMPARE(bench_->log.messages(QtWarningMsg),
        QStringList({QStringLiteral("macOS app-only audio capture received an invalid app-pid device: \"app-pid:0\""),
            noAudioLine}));
    QVERIFY(!MediaFile(probe().outputPath()).audio());
    QVERIFY(probe().encodedFrameCount() >= 3);
}

void RecordingAudioTest::audioThatDoesNotStart()
{
    audio().lookup = fakeplatform::contentOf({});
    audio().start = [](const platform::AudioCompletion& completion) { completion(QStringLiteral("no")); };
    make();
    recordImages(3);
    QCOMPARE(audio().liveStreams, 0); // given back at once, not at the end
    // The file grows with its frames, though its audio never comes.
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() >= 125, patienceMs);
    QVERIFY(MediaFile(probe().outputPath()).packets().size() >= 20);
    recorder_->stop();
    QCOMPARE(bench_->log.messages(QtWarningMsg),
        QStringList(
            {QStringLiteral("macOS ScreenCaptureKit audio capture failed to start: \"no\""), notStartedLine}));
    QCOMPARE(audio().starts, 1);
    QCOMPARE(audio().stops, 0);
    QVERIFY(probe().encodedFrameCount() >= 3);
}

void RecordingAudioTest::audioThatNeverAnswersTheStart()
{
    audio().lookup = fakeplatform::contentOf({});
    audio().start = [](const platform::AudioCompletion&) {};
    make();
    recordImages(3);
    recorder_->stop();
    QVERIFY(bench_->log.contains(QStringLiteral("macOS ScreenCaptureKit audio capture start timed out.")));
    QCOMPARE(bench_->log.count(notStartedLine), 1);
    QVERIFY(probe().encodedFrameCount() >= 3);
}

void RecordingAudioTest::captureIsStoppedBeforeTheEnd()
{
    tone_.emplace();
    audio().stop = [this](const platform::AudioCompletion& completion) {
        noted_ = probe().audioCodecContext() ? tone_->asked() : -1;
        completion(std::nullopt);
    };
    make();
    recordImages(5);
    recorder_->stop();
    QCOMPARE(audio().stops, 1);
    QCOMPARE(noted_.load(), tone_->asked());
    QCOMPARE(audio().lastDeliveries, 1);
    QCOMPARE(audio().liveStreams, 0);
    QVERIFY(!probe().audioCapture());
    QVERIFY(!probe().audioStarted());
    QCOMPARE(probe().audioSamplesWritten(), qint64(0));
}

void RecordingAudioTest::audioAfterTheStopIsNotRecorded()
{
    // Pushed, not metered: nothing, then one loud block when the capture is stopped.
    audio().lookup = fakeplatform::contentOf({});
    audio().stop = [](const platform::AudioCompletion& completion) {
        fakeplatform::deliverStereo(std::vector<qint16>(2 * 4800, 20000));
        completion(std::nullopt);
    };
    make();
    recordImages(3);
    fakeplatform::deliverStereo(std::vector<qint16>(2 * 480, 0));
    recordImages(3);
    recorder_->stop();
    const auto recorded = MediaFile(probe().outputPath()).audio();
    QVERIFY(recorded);
    for (const float sample : recorded->channels[0])
        QVERIFY(std::abs(sample) < 0.01F);
}

void RecordingAudioTest::streamThatEndsByItself()
{
    tone_.emplace();
    make();
    recordImages(5);
    QVERIFY(fakeplatform::stopStream(QStringLiteral("gone")));
    recordImages(5);
    recorder_->stop();
    QCOMPARE(bench_->log.messages(QtWarningMsg),
        QStringList(QStringLiteral("macOS ScreenCaptureKit audio stream stopped: \"gone\"")));
    QCOMPARE(audio().stops, 1);
    QVERIFY(probe().encodedFrameCount() >= 10);
}

void RecordingAudioTest::stopBeforeTheFirstFrame()
{
    tone_.emplace();
    window_->beforeImage = [](int) { return false; };
    make();
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() >= 2, patienceMs);
    recorder_->stop();
    QCOMPARE(audio().starts, 0);
    QCOMPARE(audio().liveStreams, 0);
    QCOMPARE(probe().encodedFrameCount(), 1);
    QCOMPARE(MediaFile(probe().outputPath()).packets().size(), 1);
}

void RecordingAudioTest::destructionWithoutStop()
{
    tone_.emplace();
    make();
    recordImages(5);
    const QString path = probe().outputPath();
    recorder_.reset();
    QCOMPARE(audio().stops, 1);
    QCOMPARE(audio().liveStreams + audio().liveOutputs + audio().liveQueues, 0);
    QVERIFY(MediaFile(path).audio());
}

ORVANTIS_TEST(RecordingAudioTest)
#include "recordingaudio_test.moc"
