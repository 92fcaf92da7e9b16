// The whole recorder on the simulated Mac: a window that changes and a tone, recorded into a file that is read back.
#include "launcherserver.h"
#include "macbench.h"
#include "mediafile.h"
#include "privatetempdir.h"
#include "recorderprobe.h"
#include "soundanalysis.h"

#include <array>
#include <atomic>
#include <cmath>
#include <thread>

using macsim::answers;

namespace {

constexpr int rate = 48000;
constexpr double toneHz = 1000.0;

constexpr std::size_t width = 160; // of the window, pixels
constexpr std::size_t height = 96;

const std::array<std::uint32_t, 3> colours{0xffc02020, 0xff20c020, 0xff2020c0};

/// The window shows each colour in turn; which one it is, the test says.
class ColourWindow {
public:
    ColourWindow()
    {
        answers().bounds = {0, 0, double(width), double(height)};
        answers().pointer.reset();
        answers().picture = [this](std::uint32_t, int) -> std::optional<macsim::Picture> {
            ++asked_;
            if (gone_)
                return std::nullopt;
            return macsim::solidPicture(width, height, colours[std::size_t(colour_)]);
        };
    }

    void showColour(int index) { colour_ = index; }
    void disappear() { gone_ = true; }
    int asked() const { return asked_; }

private:
    std::atomic<int> asked_{0};
    std::atomic<int> colour_{0};
    std::atomic<bool> gone_{false};
};

/// A tone of half the full scale, delivered in blocks of 10 ms as time goes by, whenever a stream runs.
class ToneSource {
public:
    ToneSource()
        : thread_([this] {
              auto due = std::chrono::steady_clock::now();
              while (!ended_) {
                  if (macsim::deliver(nextBlock()))
                      ++delivered_;
                  due += std::chrono::milliseconds(blockMs);
                  std::this_thread::sleep_until(due);
              }
          })
    {
    }
    ~ToneSource()
    {
        ended_ = true;
        thread_.join();
    }
    ToneSource(const ToneSource&) = delete;
    ToneSource& operator=(const ToneSource&) = delete;

    int delivered() const { return delivered_; }

private:
    static constexpr int blockMs = 10;

    macsim::Sound nextBlock()
    {
        std::vector<std::int16_t> samples;
        for (int i = 0; i < rate * blockMs / 1000; ++i, ++position_) {
            const double phase = 2.0 * M_PI * toneHz * double(position_) / rate;
            samples.insert(samples.end(), 2, std::int16_t(std::lrint(16384.0 * std::sin(phase))));
        }
        return macsim::stereoSound(samples);
    }

    qint64 position_ = 0; // of the thread
    std::atomic<bool> ended_{false};
    std::atomic<int> delivered_{0};
    std::thread thread_;
};

/// Which of the colours it is, give or take what the encoder does; -1 for none.
int colourIndex(QRgb pixel)
{
    constexpr int tolerance = 24;
    for (std::size_t i = 0; i < colours.size(); ++i) {
        if (std::abs(qRed(pixel) - qRed(colours[i])) < tolerance
            && std::abs(qGreen(pixel) - qGreen(colours[i])) < tolerance
            && std::abs(qBlue(pixel) - qBlue(colours[i])) < tolerance)
            return int(i);
    }
    return -1;
}

}

class MacRecordingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void windowAndToneAreRecorded();
    void soundThatNeverStartsLeavesThePictures();
    void refusedPermissionEndsTheRecording();
    void windowThatGoesAway();
    void destructionWithoutStop();

private:
    void make();
    /// Waits until the recording has begun and this many images more were asked for.
    void recordImages(int count);
    RecorderProbe probe() { return RecorderProbe(*recorder_); }

    PrivateTempDir directory_;
    std::optional<MacBench> bench_;
    std::optional<LauncherServer> launcher_;
    std::optional<ColourWindow> window_;
    std::unique_ptr<GstRecorder> recorder_;
};

void MacRecordingTest::init()
{
    bench_.emplace();
    launcher_.emplace();
    window_.emplace();
}

void MacRecordingTest::cleanup()
{
    recorder_.reset(); // first: its worker uses the rest
    MAC_IS_CLEAN();
    window_.reset();
    launcher_.reset();
    bench_.reset();
}

void MacRecordingTest::make()
{
    recorder_ = std::make_unique<GstRecorder>(QStringLiteral("qt-window-capture"),
        directory_.filePath(QStringLiteral("out.mp4")), QStringLiteral("42"), 0, 0, double(width), double(height),
        1.0, QString(), nullptr);
}

void MacRecordingTest::recordImages(int count)
{
    QTRY_VERIFY_WITH_TIMEOUT(probe().recordingStartedAtMs().load() > 0, patienceMs);
    const int asked = window_->asked();
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() >= asked + count, patienceMs);
}

void MacRecordingTest::windowAndToneAreRecorded()
{
    const ToneSource tone;
    make();
    for (int i = 0; i < int(colours.size()); ++i) {
        window_->showColour(i);
        recordImages(12);
    }
    recorder_->stop();
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList());
    QVERIFY(tone.delivered() > 0);

    MediaFile file(probe().outputPath());
    QList<int> seen;
    for (const MediaFrame& frame : file.frames()) {
        const int index = colourIndex(frame.image.pixel(frame.image.rect().center()));
        if (seen.isEmpty() || seen.last() != index)
            seen.append(index);
    }
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(seen, QList<int>({0, 1, 2}));

    const auto recorded = file.sound();
    QVERIFY2(recorded, qPrintable(file.errorString()));
    QCOMPARE(recorded->sampleRate, rate);
    QCOMPARE(recorded->channels.size(), 2);
    QVERIFY(recorded->durationMs() > 1000.0);
    for (const auto& channel : recorded->channels) {
        const auto inside = soundanalysis::between(channel, rate, 200.0, recorded->durationMs() - 200.0);
        const double level = soundanalysis::levelDb(inside, rate, toneHz);
        QVERIFY2(level > -12.0 && level < -4.0, qPrintable(QString::number(level)));
    }
}

void MacRecordingTest::soundThatNeverStartsLeavesThePictures()
{
    answers().start = macsim::When::Held;
    make();
    recordImages(5);
    recorder_->stop();
    QCOMPARE(bench_->log.messages(QtWarningMsg),
        QStringList({QStringLiteral("macOS ScreenCaptureKit audio capture start timed out."),
            QStringLiteral("Audio capture did not start; recording video only.")}));
    QVERIFY(MediaFile(probe().outputPath()).frames().size() >= 4);
    macsim::forgetHeld();
}

void MacRecordingTest::refusedPermissionEndsTheRecording()
{
    answers().preflight = {false};
    answers().request = false;
    make();
    probe().waitForWorker();
    QVERIFY(macsim::record().images.empty());
    QVERIFY(macsim::record().streams.empty());
    QCOMPARE(bench_->log.count(QStringLiteral(
                 "macOS screen recording permission was not granted; window capture will not produce frames.")),
        1);
}

void MacRecordingTest::windowThatGoesAway()
{
    make();
    recordImages(5);
    window_->disappear();
    recordImages(5);
    recorder_->stop();
    QCOMPARE(bench_->log.messages(QtWarningMsg).filter(QStringLiteral("returned no image for window 42")).size(), 1);
    QVERIFY(!MediaFile(probe().outputPath()).frames().isEmpty());
}

void MacRecordingTest::destructionWithoutStop()
{
    const ToneSource tone;
    make();
    recordImages(5);
    const QString path = probe().outputPath();
    recorder_.reset();
    QCOMPARE(macsim::runningStreams(), 0);
    QVERIFY(MediaFile(path).sound());
}

QTEST_GUILESS_MAIN(MacRecordingTest)
#include "macrecording_test.moc"
