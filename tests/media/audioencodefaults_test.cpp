// Every way in which audio fails once it is open: the log line, the result, and that recording goes on.
#include "ffmpegfaults.h"
#include "mediafile.h"
#include "recorderwithaudio.h"
#include "testregistry.h"

#include <QTest>

using namespace ffmpegfaults;

namespace {

struct Fault {
    Call call = Call::Last;
    int status = 0;
    int nth = 1;
};

}

Q_DECLARE_METATYPE(Fault)

class AudioEncodeFaultsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }
    void cleanup() { reset(); }

    void turnFails_data();
    void turnFails();
    void turnThatFailsLosesTheRestOfItsBatch();
    void resamplerThatGivesNothingIsNoFailure();
    void writesThatFailFromNowOn();

    void drainingFails_data();
    void drainingFails();
    void drainingGoesOnToTheFlushAfterAFailure();
    void encoderThatIsAlreadyDrainedIsNoFailure();

    void packetsBelongToTheAudioStream();
    void missingDuration_data();
    void missingDuration();
    void missingDurationOfAFlushedPacket();
    void missingDurationIsNeverNothing();
    void everyPacketIsFlushed();
    void containerWithoutFileIsNotFlushed();
};

void AudioEncodeFaultsTest::turnFails_data()
{
    QTest::addColumn<Fault>("fault");
    QTest::addColumn<QStringList>("warnings");
    QTest::addColumn<int>("lost"); // samples that were taken for the file and are not in it
    const auto row = [](const char* name, const Fault& fault, const char* warning, int lost) {
        QTest::newRow(name) << fault << (warning ? QStringList{QString::fromLatin1(warning)} : QStringList()) << lost;
    };
    // The turn converts a chunk, pads up to it, queues it and encodes frames.
    row("no converted samples", {Call::AllocSamples, AVERROR(ENOMEM)},
        "Unable to allocate converted audio samples: \"Cannot allocate memory\"", 0);
    row("not resampled", {Call::Resample, AVERROR(EINVAL)}, "Unable to resample captured audio: \"Invalid argument\"",
        0);
    row("no silence", {Call::AllocSamples, AVERROR(ENOMEM), 2},
        "Unable to allocate silence audio samples: \"Cannot allocate memory\"", 0);
    row("silence not set", {Call::SetSilence, AVERROR(EINVAL)},
        "Unable to pad audio FIFO with silence: \"Invalid argument\"", 0);
    row("queue not grown for silence", {Call::GrowFifo, AVERROR(ENOMEM)},
        "Unable to pad audio FIFO with silence: \"Cannot allocate memory\"", 0);
    row("silence not queued", {Call::WriteFifo, AVERROR(EINVAL)},
        "Unable to pad audio FIFO with silence: \"Invalid argument\"", 0);
    row("silence queued in part", {Call::WriteFifo, 100},
        "Unable to pad audio FIFO with silence: \"Generic error in an external library\"", 0);
    row("queue not grown", {Call::GrowFifo, AVERROR(ENOMEM), 2},
        "Unable to grow FFmpeg audio FIFO: \"Cannot allocate memory\"", 0);
    row("not queued", {Call::WriteFifo, AVERROR(EINVAL), 2}, "Unable to write all converted audio samples to FIFO.",
        0);
    row("queued in part", {Call::WriteFifo, 479, 2}, "Unable to write all converted audio samples to FIFO.", 0);
    row("no frame", {Call::AllocFrame}, nullptr, 0);
    row("no channel layout", {Call::CopyLayout, AVERROR(ENOMEM)},
        "Unable to copy audio channel layout: \"Cannot allocate memory\"", 0);
    row("no frame buffer", {Call::GetFrameBuffer, AVERROR(ENOMEM)},
        "Unable to allocate FFmpeg audio frame buffer: \"Cannot allocate memory\"", 0);
    row("not read", {Call::ReadFifo, AVERROR(EINVAL)}, "Unable to read all requested audio samples from FIFO.", 0);
    row("read in part", {Call::ReadFifo, 1023}, "Unable to read all requested audio samples from FIFO.", 0);
    row("not sent", {Call::SendFrame, AVERROR(EINVAL)}, "Unable to send FFmpeg audio frame: \"Invalid argument\"",
        1024);
    row("no packet", {Call::AllocPacket}, nullptr, 0);
    row("not received", {Call::ReceivePacket, AVERROR_BUG},
        "Unable to receive FFmpeg audio packet: \"Internal bug, should not have happened\"", 0);
    row("not written", {Call::WritePacket, AVERROR(ENOSPC)},
        "Unable to write FFmpeg audio packet: \"No space left on device\"", 1024);
}

/// One log line, and one turn that returns false. The next turn fills the hole: the audio ends where the clock is, in
/// the queue and in the file.
void AudioEncodeFaultsTest::turnFails()
{
    QFETCH(const Fault, fault);
    QFETCH(const QStringList, warnings);
    QFETCH(const int, lost);
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.encode({0}));
    failOnce(fault.call, fault.status, fault.nth);
    QVERIFY(!recorder.turn(500, testaudio::noise(0, 480)));
    QCOMPARE(recorder.warnings(), warnings);
    QVERIFY(recorder.criticals().isEmpty());

    QVERIFY(recorder.turn(600, testaudio::noise(480, 480)));
    QCOMPARE(recorder.present(), 600 * 48);
    QVERIFY(recorder.encode({500}, 1));
    QVERIFY(recorder.finishAudio());
    QCOMPARE(recorder.warnings(), warnings);
    QVERIFY(recorder.criticals().isEmpty());
    QVERIFY(recorder.isClosed());

    MediaFile file(recorder->outputPath());
    QCOMPARE(file.frames().size(), 2);
    qint64 samples = 0;
    for (const MediaPacket& packet : file.packets())
        samples += packet.stream == 1 ? 1024 : 0;
    constexpr int whole = (600 * 48 + 1023) / 1024 * 1024 + 1024; // with the priming
    QCOMPARE(samples, whole - lost);
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
}

void AudioEncodeFaultsTest::turnThatFailsLosesTheRestOfItsBatch()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    for (int i = 0; i < 3; ++i)
        QVERIFY(fakeplatform::deliverStereo(testaudio::noise(0, 480)));
    failOnce(Call::Resample, AVERROR(EINVAL), 2);
    QVERIFY(!recorder.turn(30));
    QCOMPARE(recorder.present(), 480);
    QVERIFY(recorder.turn(30));
    QCOMPARE(recorder.present(), 480);
}

/// It keeps the audio for later: neither aligned nor counted.
void AudioEncodeFaultsTest::resamplerThatGivesNothingIsNoFailure()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(fakeplatform::deliverStereo(testaudio::noise(0, 480)));
    failOnce(Call::Resample, 0);
    QVERIFY(recorder.turn(40, testaudio::noise(480, 960))); // 1440 frames: from 10 ms on
    QCOMPARE(recorder.present(), 40 * 48);
    QVERIFY(recorder.wasQuiet());
}

void AudioEncodeFaultsTest::writesThatFailFromNowOn()
{
    const auto line = QStringLiteral("Unable to write FFmpeg audio packet: \"No space left on device\"");
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    failFrom(Call::WritePacket, AVERROR(ENOSPC));
    for (int i = 1; i <= 10; ++i)
        QVERIFY(!recorder.turn(i * 100, testaudio::noise(0, 4800)));
    QCOMPARE(recorder.warnings(), QStringList(10, line));
    heal(Call::WritePacket);
    QVERIFY(recorder.encode({0}));
    QVERIFY(recorder.turn(1100, testaudio::noise(0, 4800)));
    QCOMPARE(recorder.present(), 1100 * 48);
    QVERIFY(recorder.finishAudio());
    MediaFile file(recorder->outputPath());
    QCOMPARE(file.frames().size(), 1);
    QVERIFY(file.audio());
}

void AudioEncodeFaultsTest::drainingFails_data()
{
    QTest::addColumn<Fault>("fault");
    QTest::addColumn<QStringList>("warnings");
    const auto row = [](const char* name, const Fault& fault, const char* warning) {
        QTest::newRow(name) << fault << (warning ? QStringList{QString::fromLatin1(warning)} : QStringList());
    };
    // 480 samples wait: silence is added, a frame is sent, then comes the end.
    row("no silence", {Call::AllocSamples, AVERROR(ENOMEM)},
        "Unable to allocate silence audio samples: \"Cannot allocate memory\"");
    row("last frame not sent", {Call::SendFrame, AVERROR(EINVAL)},
        "Unable to send FFmpeg audio frame: \"Invalid argument\"");
    row("not flushed", {Call::SendFrame, AVERROR(EINVAL), 2},
        "Unable to flush FFmpeg audio encoder: \"Invalid argument\"");
    row("no packet", {Call::AllocPacket, 0, 2}, nullptr);
    row("not received", {Call::ReceivePacket, AVERROR(EIO), 2},
        "Unable to receive flushed audio packet: \"Input/output error\"");
    row("not written", {Call::WritePacket, AVERROR(ENOSPC), 1},
        "Unable to write flushed audio packet: \"No space left on device\"");
}

void AudioEncodeFaultsTest::drainingFails()
{
    QFETCH(const Fault, fault);
    QFETCH(const QStringList, warnings);
    RecorderWithAudio recorder;
    const qsizetype descriptors = openDescriptors();
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.encode({0}));
    QVERIFY(recorder.turn(10, testaudio::noise(0, 480)));
    recorder->stopAudioCapture();
    failOnce(fault.call, fault.status, fault.nth);
    QVERIFY(!recorder->drainAudioEncoder());
    QCOMPARE(recorder.warnings(), warnings);
    heal(fault.call);
    QVERIFY(recorder.finish());
    QCOMPARE(recorder.warnings(), warnings);
    QVERIFY(recorder.criticals().isEmpty());
    QVERIFY(recorder.isClosed());
    QCOMPARE(openDescriptors(), descriptors);
    MediaFile file(recorder->outputPath());
    QCOMPARE(file.frames().size(), 1);
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
}

/// What the encoder holds is written, though the rest of the queue could not be given to it.
void AudioEncodeFaultsTest::drainingGoesOnToTheFlushAfterAFailure()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.turn(100, testaudio::noise(0, 4800)));
    const int before = calls(Call::WritePacket);
    failOnce(Call::AllocSamples, AVERROR(ENOMEM));
    QVERIFY(!recorder->drainAudioEncoder());
    QVERIFY(calls(Call::WritePacket) > before);
    QVERIFY(recorder.queued() > 0);
    QCOMPARE(recorder->audioSamplesWritten() + recorder.queued(), 4800);
    QVERIFY(recorder->audioCodecContext());
}

void AudioEncodeFaultsTest::encoderThatIsAlreadyDrainedIsNoFailure()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    failOnce(Call::SendFrame, AVERROR_EOF);
    failOnce(Call::ReceivePacket, AVERROR_EOF);
    QVERIFY(recorder->drainAudioEncoder());
    QVERIFY(recorder.wasQuiet());
}

void AudioEncodeFaultsTest::packetsBelongToTheAudioStream()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    surroundings().afterReceivePacket = [](AVPacket& packet) { packet.stream_index = 99; };
    QList<int> streams;
    surroundings().atWritePacket = [&](const AVPacket& packet) { streams.append(packet.stream_index); };
    QVERIFY(recorder.turn(100, testaudio::noise(0, 4800)));
    QVERIFY(recorder->drainAudioEncoder());
    QCOMPARE(streams, QList<int>(6, recorder->audioStream()->index));
}

void AudioEncodeFaultsTest::missingDuration_data()
{
    QTest::addColumn<bool>("matroska");
    QTest::addColumn<QByteArray>("encoder");
    QTest::addColumn<qint64>("stated"); // by the encoder
    QTest::addColumn<qint64>("written"); // in the stream's time base
    QTest::newRow("none in MP4") << false << QByteArray("aac") << qint64(0) << qint64(1024);
    QTest::newRow("below zero in MP4") << false << QByteArray("aac") << qint64(-7) << qint64(1024);
    QTest::newRow("one in MP4") << false << QByteArray("aac") << qint64(1) << qint64(1);
    QTest::newRow("frames of 1152 in MP4") << false << QByteArray("libmp3lame") << qint64(0) << qint64(1152);
    QTest::newRow("none in Matroska, which counts milliseconds")
        << true << QByteArray("aac") << qint64(0) << qint64(21);
    QTest::newRow("less than half a millisecond, which is none there")
        << true << QByteArray("aac") << qint64(20) << qint64(21);
}

void AudioEncodeFaultsTest::missingDuration()
{
    QFETCH(const bool, matroska);
    QFETCH(const QByteArray, encoder);
    QFETCH(const qint64, stated);
    QVERIFY(RecorderWithAudio::useEncoder(encoder.constData()));
    if (matroska)
        surroundings().hiddenEncoders = {"mpeg4"};
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QCOMPARE(recorder->audioStream()->time_base.den, matroska ? 1000 : 48000);
    surroundings().afterReceivePacket = [&](AVPacket& packet) { packet.duration = stated; };
    qint64 written = -1;
    surroundings().atWritePacket = [&](const AVPacket& packet) { written = packet.duration; };
    QVERIFY(recorder.turn(100, testaudio::noise(0, 4800)));
    QTEST(written, "written");
}

/// Always that of 1024 samples, whatever the frames hold.
void AudioEncodeFaultsTest::missingDurationOfAFlushedPacket()
{
    QVERIFY(RecorderWithAudio::useEncoder("libmp3lame"));
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.turn(96, testaudio::noise(0, 4 * 1152)));
    QCOMPARE(recorder.queued(), 0);
    surroundings().afterReceivePacket = [&](AVPacket& packet) { packet.duration = 0; };
    QList<qint64> durations;
    surroundings().atWritePacket = [&](const AVPacket& packet) { durations.append(packet.duration); };
    QVERIFY(recorder->drainAudioEncoder());
    QVERIFY(!durations.isEmpty());
    QCOMPARE(durations, QList<qint64>(durations.size(), 1024));
}

/// Ten samples at the end are less than half a millisecond, in which Matroska counts.
void AudioEncodeFaultsTest::missingDurationIsNeverNothing()
{
    surroundings().hiddenEncoders = {"mpeg4"};
    QVERIFY(RecorderWithAudio::useEncoder("pcm_s32le"));
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    recorder->recordingClock().invalidate();
    QVERIFY(recorder.turn(0, testaudio::noise(0, 1024 + 10)));
    QCOMPARE(recorder.queued(), 10);
    QList<qint64> durations;
    surroundings().atWritePacket = [&](const AVPacket& packet) { durations.append(packet.duration); };
    QVERIFY(recorder->drainAudioEncoder());
    QCOMPARE(durations, QList<qint64>{1});
}

void AudioEncodeFaultsTest::everyPacketIsFlushed()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    const int before = calls(Call::FlushFile);
    const auto flushes = [before] { return calls(Call::FlushFile) - before; };
    QVERIFY(recorder.turn(500, testaudio::noise(0, 24000)));
    QVERIFY(calls(Call::WritePacket) > 20);
    QCOMPARE(flushes(), calls(Call::WritePacket));
    failOnce(Call::WritePacket, AVERROR(EIO));
    QVERIFY(!recorder.turn(600, testaudio::noise(0, 4800)));
    QCOMPARE(flushes(), calls(Call::WritePacket)); // also after a failure
    QVERIFY(recorder->drainAudioEncoder());
    QCOMPARE(flushes(), calls(Call::WritePacket));
}

void AudioEncodeFaultsTest::containerWithoutFileIsNotFlushed()
{
    surroundings().muxer = "null";
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(!recorder->formatContext()->pb);
    QVERIFY(recorder.turn(500, testaudio::noise(0, 24000)));
    QVERIFY(calls(Call::WritePacket) > 20);
    QCOMPARE(calls(Call::FlushFile), 0);
    QVERIFY(recorder.finishAudio());
}

ORVANTIS_TEST(AudioEncodeFaultsTest)
#include "audioencodefaults_test.moc"
