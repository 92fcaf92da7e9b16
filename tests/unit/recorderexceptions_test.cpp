// What throws on the worker costs what it interrupted, never the file or the answer to the launcher.
#include "fakeaudio.h"
#include "mediafile.h"
#include "numberedwindow.h"
#include "privatetempdir.h"
#include "recordedframes.h"
#include "recorderbench.h"
#include "testregistry.h"

#include <QDateTime>

#include <atomic>
#include <new>

namespace {

const QString interruptedStart = QStringLiteral("Recorder worker was interrupted by an exception: ");

/// Not derived from std::exception.
struct Oddity { };

}

class RecorderExceptionsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void captureThatThrowsCostsItsFrame_data();
    void captureThatThrowsCostsItsFrame();
    void captureThatAlwaysThrows();
    void readinessThatThrowsIsAnnouncedAgain();
    void audioThatThrowsCostsNoFrame();
    void audioThatThrowsWhenItStarts();
    void audioThatThrowsWhenItStops();
    void audioThatCannotBeConfigured();

private:
    void make(const RecorderArguments& arguments = {});
    void waitForImages(int count);
    /// The answer has come, and the file was ended in order.
    void stopAndVerify();
    RecorderProbe probe() { return RecorderProbe(*recorder_); }

    PrivateTempDir directory_;
    std::optional<RecorderBench> bench_;
    std::optional<NumberedWindow> window_;
    std::unique_ptr<GstRecorder> recorder_;
    QList<RecordedFrame> frames_;
};

void RecorderExceptionsTest::init()
{
    bench_.emplace();
    window_.emplace();
    frames_.clear();
}

void RecorderExceptionsTest::cleanup()
{
    recorder_.reset();
    window_.reset();
    bench_.reset();
}

void RecorderExceptionsTest::make(const RecorderArguments& arguments)
{
    RecorderArguments filled = arguments;
    filled.output = directory_.filePath(QStringLiteral("out.mp4"));
    recorder_ = makeRecorder(filled);
}

void RecorderExceptionsTest::waitForImages(int count)
{
    QTRY_VERIFY_WITH_TIMEOUT(probe().recordingStartedAtMs().load() > 0, patienceMs);
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() > count, patienceMs);
}

void RecorderExceptionsTest::stopAndVerify()
{
    recorder_->stop();
    QVERIFY(probe().finalized().load());
    QCOMPARE(probe().formatContext(), nullptr);
    QTRY_VERIFY_WITH_TIMEOUT(bench_->launcher.received().contains(durationReply(probe().durationMs())), patienceMs);
    QCOMPARE(bench_->log.count(stoppedLine(probe().durationMs())), 1);
    QCOMPARE(bench_->log.countStartingWith(QStringLiteral("FFmpeg recorder finalized output ")), 1);
    frames_ = readFrames(probe().outputPath());
    QCOMPARE(probe().encodedFrameCount(), qint64(frames_.size()));
}

void RecorderExceptionsTest::captureThatThrowsCostsItsFrame_data()
{
    QTest::addColumn<bool>("standard");
    QTest::addColumn<QString>("what");
    QTest::newRow("no memory") << true << QStringLiteral("std::bad_alloc");
    QTest::newRow("of no known kind") << false << QStringLiteral("unknown");
}

void RecorderExceptionsTest::captureThatThrowsCostsItsFrame()
{
    QFETCH(bool, standard);
    QFETCH(QString, what);
    constexpr int thrown = 22; // the recording starts with image 16 or so
    window_->beforeImage = [standard](int number) {
        if (number == thrown && standard)
            throw std::bad_alloc();
        if (number == thrown)
            throw Oddity();
        return true;
    };
    make();
    waitForImages(thrown + 6);
    QCOMPARE(bench_->log.messages(QtCriticalMsg), QStringList{interruptedStart + what});
    stopAndVerify();
    const int first = frames_.first().number;
    QVERIFY(first < thrown);
    QList<int> expected = sequence(first, window_->asked() - first);
    expected.removeAll(thrown);
    QCOMPARE(text(numbersOf(frames_)), text(expected));
}

void RecorderExceptionsTest::captureThatAlwaysThrows()
{
    window_->beforeImage = [](int) -> bool { throw std::bad_alloc(); };
    make();
    QTRY_VERIFY_WITH_TIMEOUT(window_->asked() >= 4, patienceMs);
    const QList<qint64> asked = window_->askedAtMs();
    QVERIFY2(asked[3] - asked[0] >= 3 * 49, "it is asked again at the pace of an absent image");
    stopAndVerify();
    QCOMPARE(frames_.size(), 1);
    QVERIFY(isBlack(frames_.first().image));
    QCOMPARE(probe().durationMs(), 41u);
    QCOMPARE(bench_->log.countStartingWith(interruptedStart), 1); // said once
}

/// No memory for the event that brings it to the main thread.
void RecorderExceptionsTest::readinessThatThrowsIsAnnouncedAgain()
{
    std::atomic<bool> isShown{false};
    window_->beforeImage = [&](int) { return isShown.load(); };
    make();
    std::atomic<int> announced{0};
    std::atomic<qint64> announcedAtMs{0};
    QVERIFY(recorder_->disconnect(SIGNAL(frameCome())));
    const auto announce = [&] {
        if (announced++ == 0)
            throw std::bad_alloc();
        announcedAtMs = QDateTime::currentMSecsSinceEpoch();
        QMetaObject::invokeMethod(recorder_.get(), "onFrameCome", Qt::QueuedConnection);
    };
    connect(recorder_.get(), &GstRecorder::frameCome, recorder_.get(), announce, Qt::DirectConnection);
    isShown = true;
    QTRY_VERIFY_WITH_TIMEOUT(probe().recordingStartedAtMs().load() > 0, patienceMs);
    QTRY_COMPARE_WITH_TIMEOUT(bench_->launcher.received(), QByteArray("1"), patienceMs);
    QCOMPARE(announced.load(), 2);
    QVERIFY(probe().recordingStartedAtMs().load() - announcedAtMs.load() >= 490); // the delay of the first frame
    stopAndVerify();
}

void RecorderExceptionsTest::audioThatThrowsCostsNoFrame()
{
    fakeplatform::audio().lookup = fakeplatform::contentOf({});
    fakeplatform::audio().deliverUntil = [](qint64) { throw std::bad_alloc(); };
    make();
    waitForImages(26);
    stopAndVerify();
    const int first = frames_.first().number;
    QCOMPARE(text(numbersOf(frames_)), text(sequence(first, window_->asked() - first)));
    QCOMPARE(bench_->log.countStartingWith(interruptedStart), 1);
    QCOMPARE(fakeplatform::audio().liveStreams, 0);
}

void RecorderExceptionsTest::audioThatThrowsWhenItStarts()
{
    fakeplatform::audio().lookup = fakeplatform::contentOf({});
    fakeplatform::audio().start = [](const platform::AudioCompletion&) { throw std::bad_alloc(); };
    make();
    waitForImages(26);
    stopAndVerify();
    const int first = frames_.first().number;
    QCOMPARE(text(numbersOf(frames_)), text(sequence(first, window_->asked() - first)));
    QCOMPARE(bench_->log.messages(QtCriticalMsg), QStringList{interruptedStart + QStringLiteral("std::bad_alloc")});
}

/// It is tried again once, by the end of the capture.
void RecorderExceptionsTest::audioThatThrowsWhenItStops()
{
    fakeplatform::audio().lookup = fakeplatform::contentOf({});
    fakeplatform::audio().stop = [](const platform::AudioCompletion&) { throw std::bad_alloc(); };
    make();
    waitForImages(26);
    QVERIFY(probe().audioCapture());
    stopAndVerify();
    QVERIFY(!probe().audioStarted());
    QVERIFY(!probe().audioCapture());
    QCOMPARE(fakeplatform::audio().stops, 2);
    QCOMPARE(fakeplatform::audio().liveStreams, 0);
    const int first = frames_.first().number;
    QCOMPARE(text(numbersOf(frames_)), text(sequence(first, window_->asked() - first)));
    QCOMPARE(bench_->log.messages(QtCriticalMsg), QStringList{interruptedStart + QStringLiteral("std::bad_alloc")});
}

void RecorderExceptionsTest::audioThatCannotBeConfigured()
{
    fakeplatform::audio().lookup = [](const platform::AudioContentCompletion&) { throw std::bad_alloc(); };
    make();
    waitForImages(26);
    stopAndVerify();
    QVERIFY(frames_.size() > 5);
    QCOMPARE(bench_->log.messages(QtCriticalMsg), QStringList{interruptedStart + QStringLiteral("std::bad_alloc")});
}

ORVANTIS_TEST(RecorderExceptionsTest)
#include "recorderexceptions_test.moc"
