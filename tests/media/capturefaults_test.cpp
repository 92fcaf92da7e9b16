// What no platform brings about on demand, replaced at link time: an answer of the project's own rules, and a system
// that has no thread left.
#include "allocationfaults.h"
#include "fakeaudio.h"
#include "ffmpegfaults.h"
#include "idlerecorder.h"
#include "mediafile.h"
#include "testregistry.h"

#include "audioselection.h"
#include "fakeplatform.h"
#include "gstrecorder.h"
#include "launcherserver.h"
#include "logcapture.h"
#include "macwindowcapture.h"
#include "privatetempdir.h"
#include "recorderaudiocapture.h"

#include <QFileInfo>
#include <QTest>

#include <memory>
#include <system_error>
#include <thread>

namespace {

bool leavesNobody = false;
bool leavesNoThread = false;
int refusedThreads = 0;

}

// audioselection::partition() under its names for the linker (CAPTURE_CALLS in CMakeLists.txt).
#define ORVANTIS_PARTITION                                                                                           \
    "_ZN14audioselection9partitionERKNS_6TargetERKSt6vectorIN8platform16AudioApplicationESaIS5_"                     \
    "EERKSt8functionIF7QStringxEE"
using ExecutableOf = std::function<QString(qint64)>;
using Applications = std::vector<platform::AudioApplication>;
audioselection::Partition realPartition(
    const audioselection::Target&, const Applications&, const ExecutableOf&) __asm__("__real_" ORVANTIS_PARTITION);
audioselection::Partition partitionInstead(
    const audioselection::Target&, const Applications&, const ExecutableOf&) __asm__("__wrap_" ORVANTIS_PARTITION);

audioselection::Partition partitionInstead(
    const audioselection::Target& target, const Applications& applications, const ExecutableOf& executableOf)
{
    return leavesNobody ? audioselection::Partition() : realPartition(target, applications, executableOf);
}

// What the constructor of std::thread calls, likewise.
#define ORVANTIS_START_THREAD "_ZNSt6thread15_M_start_threadESt10unique_ptrINS_6_StateESt14default_deleteIS1_EEPFvvE"
using ThreadState = std::unique_ptr<std::thread::_State>;
void realStartThread(std::thread*, ThreadState, void (*)()) __asm__("__real_" ORVANTIS_START_THREAD);
void startThreadInstead(std::thread*, ThreadState, void (*)()) __asm__("__wrap_" ORVANTIS_START_THREAD);

void startThreadInstead(std::thread* thread, ThreadState state, void (*depend)())
{
    if (leavesNoThread && ++refusedThreads)
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    realStartThread(thread, std::move(state), depend);
}

class CaptureFaultsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void nobodyIsLeftToBeRecorded();
    void noThreadForTheWindow();
    void noThreadForTheRecording();
    void noThreadForTheEncoder();
    void noThreadForTheConverter();
    void imageAfterOneThatWasLostTellsOfBoth();

private:
    static void recordWithoutThreads(bool isHurried);
};

void CaptureFaultsTest::init()
{
    fakeplatform::reset();
    ffmpegfaults::reset();
}

void CaptureFaultsTest::cleanup()
{
    leavesNobody = leavesNoThread = false;
    refusedThreads = 0;
    ffmpegfaults::reset();
}

/// The application itself always belongs to itself, so its rule has to fail.
void CaptureFaultsTest::nobodyIsLeftToBeRecorded()
{
    fakeplatform::audio().lookup = fakeplatform::contentOf({{4242, QStringLiteral("org.player"), QString()}});
    leavesNobody = true;
    const LogCapture log;
    RecorderAudioCapture capture(QStringLiteral("app-pid:4242"));
    QVERIFY(!capture.isValid());
    QVERIFY(!capture.start());
    QVERIFY(capture.readAvailable().isEmpty());
    QCOMPARE(log.messages(),
        QStringList{QStringLiteral("macOS ScreenCaptureKit app-only audio filter resolved no included applications "
                                   "pid 4242 requested device \"app-pid:4242\"")});
    QCOMPARE(fakeplatform::audio().liveStreams, 0);

    leavesNobody = false;
    QVERIFY(RecorderAudioCapture(QStringLiteral("app-pid:4242")).isValid());
}

/// The caller's own serves.
void CaptureFaultsTest::noThreadForTheWindow()
{
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(40, 30, qRgb(1, 2, 3)); };
    leavesNoThread = true;
    const LogCapture log;
    MacWindowCapture capture(QStringLiteral("42"));
    leavesNoThread = false;
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList{
            QStringLiteral("No thread for the capture of the window; one that stalls will hold up the recording.")});
    QVERIFY(capture.isValid());
    QRect bounds;
    QCOMPARE(capture.capture(&bounds).size(), QSize(40, 30));
}

/// The pool would keep the worker's task for ever: a stop would not be answered.
void CaptureFaultsTest::noThreadForTheRecording()
{
    const PrivateTempDir directory;
    const LauncherServer launcher;
    QVERIFY(launcher.isListening());
    leavesNoThread = true;
    const LogCapture log;
    GstRecorder recorder(QStringLiteral("qt-window-capture"), directory.filePath(QStringLiteral("clip.mp4")),
        QStringLiteral("42"), 0, 0, 32, 16, 1.0, QString(), nullptr);
    leavesNoThread = false;
    QCOMPARE(log.messages(QtCriticalMsg),
        QStringList{QStringLiteral("No thread for the recording; nothing is recorded.")});
    recorder.stop();
    QCOMPARE(log.messages(QtDebugMsg).last(), QStringLiteral("FFmpeg recorder stopped, duration 0"));
    QVERIFY(recorder.finishRecording(QDeadlineTimer(0)));
    QVERIFY(!QFileInfo::exists(directory.filePath(QStringLiteral("clip.mp4"))));
}

void CaptureFaultsTest::noThreadForTheEncoder()
{
    recordWithoutThreads(false);
}

void CaptureFaultsTest::noThreadForTheConverter()
{
    recordWithoutThreads(true);
}

/// The worker's own serves for both, and the file is as it would be with them.
void CaptureFaultsTest::recordWithoutThreads(bool isHurried)
{
    const QSize canvas(48, 128); // two bands
    const QList<qint64> times = IdleRecorder::steadyTimes(3);
    QList<QList<MediaFrame>> recorded;
    for (const bool isWithout : {false, true}) {
        IdleRecorder recorder(QStringLiteral("clip.mp4"), canvas);
        ffmpegfaults::surroundings().processors = 2;
        recorder->isBehind() = isHurried;
        QVERIFY(recorder->openOutput());
        leavesNoThread = isWithout;
        QVERIFY(recorder.encode(times));
        leavesNoThread = false;
        QVERIFY(recorder.finish());
        QVERIFY(recorder.wasQuiet());
        recorded.append(MediaFile(recorder->outputPath()).frames());
        QCOMPARE(recorded.last().size(), times.size());
    }
    QCOMPARE(refusedThreads, times.size() * (isHurried ? 2 : 1)); // of the encoder for each, of the converter as well
    for (qsizetype i = 0; i < times.size(); ++i)
        QCOMPARE(recorded[1][i].image, recorded[0][i].image);
}

/// Whichever allocation is refused: what the next image does not tell of is as in the last one that was given.
void CaptureFaultsTest::imageAfterOneThatWasLostTellsOfBoth()
{
    QImage window(64, 400, QImage::Format_ARGB32_Premultiplied);
    window.fill(qRgba(10, 20, 30, 100));
    RowSet changed;
    fakeplatform::state().image = [&](int) { return window; };
    fakeplatform::state().changedRows = [&](int) { return changed; };
    const MacWindowCapture capture(QStringLiteral("42"));
    int lost = 0;
    for (int refused = 0; lost == refused; ++refused) {
        const auto change = [&](int top) {
            window = window.copy();
            changed = RowSet();
            for (int i = 0; i < 3 + refused; ++i) { // more than before, so that every list of them has to grow
                const int row = (top + 5 * i) % window.height();
                memset(window.scanLine(row), 50 + refused % 40, size_t(window.bytesPerLine()));
                changed.add(row, row + 1);
            }
        };
        change(0);
        const CapturedWindow before = capture.captureWindow();
        change(1);
        try {
            const allocationfaults::RefusedOnce refusal(refused);
            static_cast<void>(capture.captureWindow());
        } catch (const std::bad_alloc&) {
            ++lost;
        }
        const CapturedWindow after = capture.captureWindow();
        QCOMPARE(after.image, window.convertToFormat(QImage::Format_ARGB32));
        for (int y = 0; y < window.height() && after.version == before.version + 1; ++y) {
            const bool isSame = memcmp(before.image.constScanLine(y), after.image.constScanLine(y),
                                    size_t(after.image.bytesPerLine()))
                == 0;
            QVERIFY2(isSame || after.changedRows.contains(y),
                qPrintable(QStringLiteral("allocation %1 row %2").arg(refused).arg(y)));
        }
    }
    QVERIFY(lost > 2);
}

ORVANTIS_TEST(CaptureFaultsTest)
#include "capturefaults_test.moc"
