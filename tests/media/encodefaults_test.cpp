// Every way in which encoding and draining fail: the log line, the result, and that the recording goes on.
#include "ffmpegfaults.h"
#include "idlerecorder.h"
#include "mediafile.h"
#include "queuelimit.h"
#include "testregistry.h"

#include <QTest>
#include <QThread>

#include <atomic>
#include <chrono>
#include <semaphore>
#include <thread>

using namespace ffmpegfaults;

namespace {

struct Fault {
    Call call = Call::Last;
    int status = 0;
};

}

Q_DECLARE_METATYPE(Fault)

namespace {

/// An encoder that is busy with a frame until it may go on.
class BusyEncoder {
public:
    BusyEncoder()
    {
        surroundings().atSendFrame = [this] {
            isBusy_ = true;
            static_cast<void>(mayGoOn_.try_acquire_for(std::chrono::seconds(5))); // a test that fails ends, too
            isBusy_ = false;
        };
    }
    ~BusyEncoder() { release(); }

    bool isBusy() const { return isBusy_; }
    void release() { mayGoOn_.release(1000); } ///< for good

private:
    std::atomic<bool> isBusy_{false};
    std::counting_semaphore<> mayGoOn_{0};
};

QList<RecorderProbe::QueuedFrame> queueOf(const QList<qint64>& timesMs, const QSize& size)
{
    QList<RecorderProbe::QueuedFrame> queue;
    for (const qint64 timeMs : timesMs) {
        RecorderProbe::CapturedFrame frame;
        frame.image = testimages::walking(size, int(queue.size())).convertToFormat(QImage::Format_ARGB32);
        frame.windowBounds = QRect(QPoint(), size);
        queue.append({frame, timeMs});
    }
    return queue;
}

}

class EncodeFaultsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }
    void cleanup() { reset(); }

    void frameFails_data();
    void frameFails();
    void writesThatFailFromNowOn();
    void failedWriteIsFlushedToo();
    void oneFlushAPacket();
    void packetThatWasLeftIsWrittenWithTheNext();

    void busyEncoderHoldsUpNoCapture();
    void busyEncoderIsWaitedForWhenTooMuchIsLate();
    void closingWaitsForTheEncoder();

    void drainingFails_data();
    void drainingFails();
    void encoderThatIsAlreadyDrainedIsNoFailure();
    void drainingWritesWhatTheEncoderHeldBack();

    void packetsBelongToTheVideoStream();
    void missingDurationIsOneFrameInterval_data();
    void missingDurationIsOneFrameInterval();
};

void EncodeFaultsTest::frameFails_data()
{
    QTest::addColumn<Fault>("fault");
    QTest::addColumn<QStringList>("criticals");
    QTest::addColumn<int>("packets"); // in the file, of four frames of which the third fails
    QTest::newRow("frame not writable") << Fault{Call::MakeWritable,
        AVERROR(ENOMEM)} << QStringList{QStringLiteral("FFmpeg frame is not writable: \"Cannot allocate memory\"")}
                                        << 3;
    QTest::newRow("frame not converted")
        << Fault{Call::Convert, AVERROR(ENOMEM)}
        << QStringList{QStringLiteral("Unable to convert FFmpeg video frame: \"Cannot allocate memory\"")} << 3;
    QTest::newRow("frame not shared with the encoder's thread")
        << Fault{Call::CloneFrame, AVERROR(ENOMEM)}
        << QStringList{QStringLiteral("Unable to send FFmpeg video frame: \"Cannot allocate memory\"")} << 3;
    QTest::newRow("frame not sent") << Fault{Call::SendFrame,
        AVERROR(EINVAL)} << QStringList{QStringLiteral("Unable to send FFmpeg video frame: \"Invalid argument\"")}
                                    << 3;
    QTest::newRow("frame not sent, encoder full")
        << Fault{Call::SendFrame, AVERROR(EAGAIN)}
        << QStringList{QStringLiteral("Unable to send FFmpeg video frame: \"Resource temporarily unavailable\"")}
        << 3;
    QTest::newRow("no packet") << Fault{Call::AllocPacket} << QStringList() << 4;
    QTest::newRow("packet not received")
        << Fault{Call::ReceivePacket, AVERROR_BUG}
        << QStringList{QStringLiteral("Unable to receive FFmpeg packet: \"Internal bug, should not have happened\"")}
        << 4;
    QTest::newRow("packet not written") << Fault{Call::WritePacket,
        AVERROR(ENOSPC)} << QStringList{QStringLiteral("Unable to write FFmpeg packet: \"No space left on device\"")}
                                        << 3;
}

/// It costs one frame at most. What the encoder had made already comes with the next one.
void EncodeFaultsTest::frameFails()
{
    QFETCH(const Fault, fault);
    QFETCH(const QStringList, criticals);
    QFETCH(const int, packets);
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode({0, 41}));
    failOnce(fault.call, fault.status);
    QVERIFY(!recorder.encode({82}, 2));
    QCOMPARE(recorder.criticals(), criticals);
    QVERIFY(recorder.warnings().isEmpty());
    QVERIFY(recorder.encode({123}, 3));
    QVERIFY(recorder.finish());
    QCOMPARE(recorder.criticals(), criticals);
    QVERIFY(recorder.warnings().isEmpty());
    QVERIFY(recorder.isClosed());

    MediaFile file(recorder->outputPath());
    const QList<MediaPacket> written = file.packets();
    QCOMPARE(written.size(), packets);
    QCOMPARE(written.constFirst().ptsMs, 0.0);
    QCOMPARE(written.constLast().ptsMs, 123.0);
    // It cannot build upon one that the encoder has begun.
    QCOMPARE(written.constLast().key, fault.call == Call::SendFrame || fault.call == Call::CloneFrame);
}

/// Every later frame is tried and its failure logged; what was written before stays.
void EncodeFaultsTest::writesThatFailFromNowOn()
{
    const auto line = QStringLiteral("Unable to write FFmpeg packet: \"No space left on device\"");
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode(IdleRecorder::steadyTimes(30)));
    failFrom(Call::WritePacket, AVERROR(ENOSPC));
    for (int i = 30; i < 40; ++i)
        QVERIFY(!recorder.encode(IdleRecorder::steadyTimes(1, i), i));
    QCOMPARE(calls(Call::WritePacket), 40);
    QCOMPARE(recorder.criticals(), QStringList(10, line));
    QVERIFY(recorder.finish());
    MediaFile file(recorder->outputPath());
    QCOMPARE(file.frames().size(), 30);
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
}

void EncodeFaultsTest::failedWriteIsFlushedToo()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    failOnce(Call::WritePacket, AVERROR(EIO));
    const int before = calls(Call::FlushFile);
    QVERIFY(!recorder.encode({0}));
    QCOMPARE(calls(Call::FlushFile), before + 1);
}

void EncodeFaultsTest::oneFlushAPacket()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    const int before = calls(Call::FlushFile);
    for (int i = 0; i < 5; ++i) {
        QVERIFY(recorder.encode({i * 41}, i));
        QCOMPARE(calls(Call::FlushFile), before + i + 1);
        QCOMPARE(calls(Call::AllocPacket), i + 1);
    }
}

void EncodeFaultsTest::packetThatWasLeftIsWrittenWithTheNext()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    failOnce(Call::AllocPacket, 0);
    QVERIFY(!recorder.encode({0}));
    QCOMPARE(recorder.criticals(), QStringList());
    QCOMPARE(calls(Call::WritePacket), 0);
    QVERIFY(recorder.encode({41}, 1));
    QCOMPARE(calls(Call::WritePacket), 2);
}

/// One frame is encoded, one is ready for it, and the rest waits. Nothing is lost.
void EncodeFaultsTest::busyEncoderHoldsUpNoCapture()
{
    constexpr int count = 20;
    const QList<qint64> timesMs = IdleRecorder::steadyTimes(count);
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QList<RecorderProbe::QueuedFrame> queue = queueOf(timesMs, recorder.canvas());
    BusyEncoder encoder;
    for (int i = 0; i < 3; ++i) {
        recorder->drainDue(queue, timesMs.last() + pacing::holdMs);
        QTRY_VERIFY(encoder.isBusy());
        QCOMPARE(queue.size(), count - 2);
    }
    encoder.release();
    while (!queue.isEmpty())
        recorder->drainDue(queue, timesMs.last() + pacing::holdMs);
    recorder->sendPrepared();
    QCOMPARE(recorder->encodedFrameCount(), count);
    QVERIFY(recorder.finish());
    QVERIFY(recorder.wasQuiet());

    MediaFile file(recorder->outputPath());
    QList<qint64> written;
    for (const MediaPacket& packet : file.packets())
        written.append(qint64(packet.ptsMs));
    QCOMPARE(written, timesMs);
}

/// More than two seconds of frames: without a bound they would fill the memory.
void EncodeFaultsTest::busyEncoderIsWaitedForWhenTooMuchIsLate()
{
    const QList<qint64> timesMs = IdleRecorder::steadyTimes(queuelimit::mostFramesLate + 3);
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QList<RecorderProbe::QueuedFrame> queue = queueOf(timesMs, recorder.canvas());
    BusyEncoder encoder;
    recorder->drainDue(queue, timesMs.last() + pacing::holdMs);
    const qsizetype waiting = queue.size();
    std::atomic<bool> hasReturned{false};
    bool hadReturned = true;
    std::thread releaser([&] {
        QThread::msleep(100); // long enough for a drain that does not wait
        hadReturned = hasReturned;
        encoder.release();
    });
    recorder->drainDue(queue, timesMs.last() + pacing::holdMs);
    hasReturned = true;
    releaser.join();
    QVERIFY(!hadReturned);
    QVERIFY(queue.size() < waiting);
}

/// It still reads the frame, and what closing frees.
void EncodeFaultsTest::closingWaitsForTheEncoder()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QList<RecorderProbe::QueuedFrame> queue = queueOf({0}, recorder.canvas());
    BusyEncoder encoder;
    recorder->drainDue(queue, pacing::holdMs);
    QTRY_VERIFY(encoder.isBusy());
    std::atomic<bool> hasReturned{false};
    bool hadReturned = true;
    std::thread releaser([&] {
        QThread::msleep(100); // long enough for a call that does not wait
        hadReturned = hasReturned;
        encoder.release();
    });
    recorder->closeOutput();
    hasReturned = true;
    releaser.join();
    QVERIFY(!hadReturned);
    QVERIFY(recorder.isClosed());
    QVERIFY(recorder.wasQuiet());
}

void EncodeFaultsTest::drainingFails_data()
{
    QTest::addColumn<Fault>("fault");
    QTest::addColumn<QStringList>("criticals");
    QTest::newRow("not flushed") << Fault{Call::SendFrame,
        AVERROR(EINVAL)} << QStringList{QStringLiteral("Unable to flush FFmpeg encoder: \"Invalid argument\"")};
    QTest::newRow("no packet") << Fault{Call::AllocPacket} << QStringList();
    QTest::newRow("packet not received")
        << Fault{Call::ReceivePacket, AVERROR(EIO)}
        << QStringList{QStringLiteral("Unable to receive flushed FFmpeg packet: \"Input/output error\"")};
    QTest::newRow("packet not written") << Fault{Call::WritePacket, AVERROR(ENOSPC)}
                                        << QStringList{QStringLiteral(
                                               "Unable to write flushed FFmpeg packet: \"No space left on device\"")};
}

void EncodeFaultsTest::drainingFails()
{
    QFETCH(const Fault, fault);
    QFETCH(const QStringList, criticals);
    IdleRecorder recorder;
    const qsizetype descriptors = openDescriptors();
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode({0}));
    failOnce(Call::ReceivePacket, AVERROR(EAGAIN)); // leaves the second frame's packet for the end
    QVERIFY(recorder.encode({41}, 1));
    heal(Call::ReceivePacket);
    failOnce(fault.call, fault.status);
    QVERIFY(!recorder->drainEncoder());
    QCOMPARE(recorder.criticals(), criticals);
    QVERIFY(recorder.warnings().isEmpty());

    recorder.log().clear();
    recorder->closeOutput();
    QCOMPARE(recorder.log().messages(), QStringList());
    QVERIFY(recorder.isClosed());
    QCOMPARE(openDescriptors(), descriptors);
    QCOMPARE(MediaFile(recorder->outputPath()).packets().size(), 1);
}

void EncodeFaultsTest::encoderThatIsAlreadyDrainedIsNoFailure()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode({0}));
    failOnce(Call::SendFrame, AVERROR_EOF);
    failOnce(Call::ReceivePacket, AVERROR_EOF);
    QVERIFY(recorder->drainEncoder());
    QVERIFY(recorder.wasQuiet());
}

void EncodeFaultsTest::drainingWritesWhatTheEncoderHeldBack()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode({0}));
    failOnce(Call::ReceivePacket, AVERROR(EAGAIN));
    QVERIFY(recorder.encode({41}, 1));
    QCOMPARE(calls(Call::WritePacket), 1);
    const int flushes = calls(Call::FlushFile);
    QList<qint64> durations;
    surroundings().atWritePacket = [&](const AVPacket& packet) { durations.append(packet.duration); };
    QVERIFY(recorder->drainEncoder());
    QCOMPARE(calls(Call::WritePacket), 2);
    QCOMPARE(calls(Call::FlushFile), flushes + 1);
    QCOMPARE(durations, QList<qint64>{41 * 16});
    recorder->closeOutput();
    QVERIFY(recorder.wasQuiet());
    MediaFile file(recorder->outputPath());
    QCOMPARE(file.packets().size(), 2);
    QCOMPARE(file.packets().constLast().ptsMs, 41.0);
}

void EncodeFaultsTest::packetsBelongToTheVideoStream()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    surroundings().afterReceivePacket = [](AVPacket& packet) { packet.stream_index = 99; };
    QList<int> streams;
    surroundings().atWritePacket = [&](const AVPacket& packet) { streams.append(packet.stream_index); };
    QVERIFY(recorder.encode({0, 41}));
    const int index = recorder->videoStream()->index;
    QCOMPARE(streams, (QList<int>{index, index}));
}

void EncodeFaultsTest::missingDurationIsOneFrameInterval_data()
{
    QTest::addColumn<qint64>("encoderMs"); // as the encoder states it
    QTest::addColumn<qint64>("writtenTicks"); // sixteenths of a millisecond
    QTest::newRow("none") << qint64(0) << qint64(41 * 16);
    QTest::newRow("below zero") << qint64(-5) << qint64(41 * 16);
    QTest::newRow("1 ms is one") << qint64(1) << qint64(16);
    QTest::newRow("42 ms") << qint64(42) << qint64(42 * 16);
}

void EncodeFaultsTest::missingDurationIsOneFrameInterval()
{
    QFETCH(const qint64, encoderMs);
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QCOMPARE(recorder->videoStream()->time_base.den, 16000);
    surroundings().afterReceivePacket = [&](AVPacket& packet) { packet.duration = encoderMs; };
    qint64 written = -1;
    surroundings().atWritePacket = [&](const AVPacket& packet) { written = packet.duration; };
    QVERIFY(recorder.encode({0}));
    QTEST(written, "writtenTicks");
}

ORVANTIS_TEST(EncodeFaultsTest)
#include "encodefaults_test.moc"
