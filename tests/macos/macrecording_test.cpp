// The whole recorder on the simulated Mac: a window that changes and a tone, recorded into a file that is read back.
#include "audioanalysis.h"
#include "launcherserver.h"
#include "macbench.h"
#include "mediafile.h"
#include "privatetempdir.h"
#include "recorderprobe.h"
#include "testregistry.h"
#include "truthoverlay.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>

using macsim::answers;

namespace {

constexpr int rate = 48000;
constexpr double toneHz = 441.7; // toneFaults() sees every break of it

constexpr std::size_t width = 320; // of the window's image and of the canvas, pixels
constexpr std::size_t height = 192;

constexpr std::uint32_t grey = 0xff808080;
const std::array<std::uint32_t, 3> colours{0xffc02020, 0xff20c020, 0xff2020c0};

/// A tone of half the full scale that the system delivers on a thread of its own, as it likes: in blocks of 1024
/// frames that carry the time of their first sample and come up to 12 ms after their last one.
class Tone {
public:
    Tone() : thread_([this] { run(); }) { }
    ~Tone()
    {
        ended_ = true;
        thread_.join();
    }
    Tone(const Tone&) = delete;
    Tone& operator=(const Tone&) = delete;

    int delivered() const { return delivered_; }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr qint64 blockFrames = 1024;
    static constexpr qint64 latestMs = 12;

    static Clock::duration lengthOf(qint64 frames) { return std::chrono::nanoseconds(frames * 1000000000 / rate); }

    void run()
    {
        const auto begin = Clock::now();
        for (qint64 block = 0; !ended_; ++block) {
            const auto from = begin + lengthOf(block * blockFrames);
            std::this_thread::sleep_until(
                from + lengthOf(blockFrames) + std::chrono::milliseconds(block * 5 % latestMs));
            if (macsim::deliver(audio(block * blockFrames, from)))
                ++delivered_;
        }
    }

    static macsim::Audio audio(qint64 firstFrame, Clock::time_point from)
    {
        std::vector<std::int16_t> samples;
        for (qint64 frame = firstFrame; frame < firstFrame + blockFrames; ++frame) {
            const double phase = 2.0 * M_PI * toneHz * double(frame) / rate;
            samples.insert(samples.end(), 2, std::int16_t(std::lrint(16384.0 * std::sin(phase))));
        }
        macsim::Audio made = macsim::stereoAudio(samples);
        made.timeNs = std::chrono::duration_cast<std::chrono::nanoseconds>(from.time_since_epoch()).count();
        made.timeFlags = 1;
        return made;
    }

    std::atomic<bool> ended_{false};
    std::atomic<int> delivered_{0}; ///< blocks that a stream took
    std::thread thread_;
};

/// The window shows one colour, which the test may change.
class WindowWithAudio {
public:
    WindowWithAudio()
    {
        answers().bounds = {0, 0, double(width), double(height)};
        answers().pointer.reset();
        answers().image = [this](std::uint32_t, int) -> std::optional<macsim::WindowImage> {
            ++asked_;
            if (gone_)
                return std::nullopt;
            return macsim::solidImage(width, height, colour_);
        };
    }

    void show(std::uint32_t colour) { colour_ = colour; }
    void disappear() { gone_ = true; }
    int asked() const { return asked_; }
    int delivered() const { return tone_.delivered(); }

private:
    std::atomic<int> asked_{0};
    std::atomic<std::uint32_t> colour_{grey};
    std::atomic<bool> gone_{false};
    Tone tone_;
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

double distance(QPointF one, QPointF other)
{
    return std::hypot(one.x() - other.x(), one.y() - other.y());
}

}

class MacRecordingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void windowAndToneAreRecorded();
    void applicationBesideTheOriginIsRecorded();
    void audioThatNeverStartsLeavesTheImages();
    void refusedPermissionEndsTheRecording();
    void windowThatGoesAway();
    void destructionWithoutStop();

private:
    void make(const QString& audioSource = QString());
    /// Waits until the recording has begun and this many images more were asked for.
    void recordImages(int count);
    void checkTone(MediaFile& file, double imagesEndMs);
    RecorderProbe probe() { return RecorderProbe(*recorder_); }

    PrivateTempDir directory_;
    std::optional<MacBench> bench_;
    std::optional<LauncherServer> launcher_;
    std::optional<WindowWithAudio> window_;
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

void MacRecordingTest::make(const QString& audioSource)
{
    recorder_ = std::make_unique<GstRecorder>(QStringLiteral("qt-window-capture"),
        directory_.filePath(QStringLiteral("out.mp4")), QStringLiteral("42"), 0, 0, double(width), double(height),
        1.0, audioSource, nullptr);
}

void MacRecordingTest::recordImages(int count)
{
    QTRY_VERIFY_WITH_TIMEOUT(probe().recordingStartedAtMs().load() > 0, patienceMs);
    const int asked = window_->asked();
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() >= asked + count, patienceMs);
}

/// The tone is there, whole, from the first image to the last.
void MacRecordingTest::checkTone(MediaFile& file, double imagesEndMs)
{
    constexpr double edgeMs = 300.0; // it begins with the first blocks after the start of the stream
    QVERIFY(window_->delivered() > 0);
    const auto recorded = file.audio();
    QVERIFY2(recorded, qPrintable(file.errorString()));
    QCOMPARE(recorded->sampleRate, rate);
    QCOMPARE(recorded->channels.size(), 2);
    QVERIFY(recorded->durationMs() > 1000.0);
    const double endMs = recorded->startMs + recorded->durationMs();
    QVERIFY2(std::abs(endMs - imagesEndMs) < 100.0, qPrintable(QStringLiteral("%1 %2").arg(endMs).arg(imagesEndMs)));
    for (const auto& channel : recorded->channels) {
        const auto inside = audioanalysis::between(channel, rate, edgeMs, recorded->durationMs() - edgeMs);
        const double level = audioanalysis::levelDb(inside, rate, toneHz);
        QVERIFY2(level > -7.0 && level < -5.5, qPrintable(QString::number(level)));
        const auto faults = audioanalysis::toneFaults(inside, rate, toneHz);
        QVERIFY2(faults.empty(), qPrintable(audioanalysis::describe(faults)));
    }
}

void MacRecordingTest::windowAndToneAreRecorded()
{
    make();
    for (const std::uint32_t colour : colours) {
        window_->show(colour);
        recordImages(12);
    }
    recorder_->stop();
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList());

    MediaFile file(probe().outputPath());
    QList<int> seen;
    double endMs = 0.0;
    for (const MediaFrame& frame : file.frames()) {
        const int index = colourIndex(frame.image.pixel(frame.image.rect().center()));
        if (seen.isEmpty() || seen.last() != index)
            seen.append(index);
        endMs = frame.ptsMs;
    }
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QCOMPARE(seen, QList<int>({0, 1, 2}));
    checkTone(file, endMs);
}

/// A window left of the main display, two pixels a point, with the audio of its application alone.
void MacRecordingTest::applicationBesideTheOriginIsRecorded()
{
    constexpr double exact = 1.0; // pixels
    constexpr double lifetimeMs = 2000.0; // of a click
    constexpr double near = 50.0; // ms; the file's times may be off the recording's by the first image's
    answers().bounds = {-300, 40, width / 2.0, height / 2.0};
    answers().pointer = macsim::Point{-260, 60};
    for (const int processId : {7, 42, 8}) {
        const std::string name = "org.example.p" + std::to_string(processId);
        answers().applications.push_back({processId, name, name, macsim::Executable::Known, "/" + name});
    }
    make(QStringLiteral("app-pid:42"));
    QVERIFY(launcher_->waitForConnection(patienceMs));
    recordImages(10);
    QVERIFY(launcher_->send("click|-180|110|0.1|0.1|0\n")); // the place on the screen counts, not the fractions
    QTRY_COMPARE_WITH_TIMEOUT(
        bench_->log.countStartingWith(QStringLiteral("Recorder mouse click received")), 1, patienceMs);
    recordImages(20);
    recorder_->stop();
    QCOMPARE(bench_->log.messages(QtWarningMsg), QStringList());
    QCOMPARE(macsim::record().streams.at(0).excludedApplications, std::optional(std::vector<std::int32_t>{7, 8}));

    const double clickMs = double(probe().clicks().firstKey());
    MediaFile file(probe().outputPath());
    int unmarked = 0;
    int marked = 0;
    double endMs = 0.0;
    for (const MediaFrame& frame : file.frames()) {
        endMs = frame.ptsMs;
        const auto pointer = truthoverlay::findPointer(frame.image, frame.image.rect(), 1.0);
        QVERIFY2(pointer && distance(*pointer, {80, 40}) < exact, qPrintable(QString::number(frame.ptsMs)));
        const auto markers = truthoverlay::findMarkers(frame.image, frame.image.rect());
        if (frame.ptsMs < clickMs - near) {
            QCOMPARE(markers.size(), 0);
            ++unmarked;
        } else if (frame.ptsMs > clickMs + near && frame.ptsMs < clickMs + lifetimeMs - near) {
            QCOMPARE(markers.size(), 1);
            QVERIFY(distance(markers[0].centre, {240, 140}) < exact);
            ++marked;
        }
    }
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QVERIFY(unmarked >= 5);
    QVERIFY(marked >= 10);
    checkTone(file, endMs);
}

void MacRecordingTest::audioThatNeverStartsLeavesTheImages()
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
    make();
    recordImages(5);
    const QString path = probe().outputPath();
    recorder_.reset();
    QCOMPARE(macsim::runningStreams(), 0);
    QVERIFY(MediaFile(path).audio());
}

ORVANTIS_TEST(MacRecordingTest)
#include "macrecording_test.moc"
