// Delivered buffers of every kind to chunks, against a slow and obvious reference.
#include "audiosampleintake.h"
#include "testregistry.h"

#include "fakeaudio.h"
#include "fakeplatform.h"
#include "logcapture.h"
#include "memorylimit.h"
#include "referenceaudio.h"

#include <QTest>

#include <cmath>
#include <cstring>
#include <limits>
#include <new>
#include <random>
#include <thread>

using namespace platform;

namespace {

constexpr quint32 interleavedFloat = pcmIsFloat;
constexpr quint32 planarFloat = pcmIsFloat | pcmIsNonInterleaved;

template <typename T>
std::vector<char> bytesOf(std::initializer_list<T> values)
{
    std::vector<char> bytes(values.size() * sizeof(T));
    std::memcpy(bytes.data(), std::data(values), bytes.size());
    return bytes;
}

AudioBuffer bufferOf(const std::vector<char>& bytes)
{
    return {bytes.data(), bytes.size()};
}

std::vector<qint16> samplesOf(const RecorderAudioCapture::Chunk& chunk)
{
    std::vector<qint16> samples(std::size_t(chunk.pcm.size()) / 2);
    std::memcpy(samples.data(), chunk.pcm.constData(), std::size_t(chunk.pcm.size()));
    return samples;
}

std::vector<qint16> converted(
    const AudioStreamDescription& description, qint64 frames, const std::vector<AudioBuffer>& buffers)
{
    const auto chunk = audiointake::toChunk(description, frames, buffers);
    if (!chunk || chunk->frames != frames || chunk->pcm.size() != frames * 4)
        return {};
    return samplesOf(*chunk);
}

using Samples = std::vector<qint16>;

}

class AudioSampleIntakeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fakeplatform::reset(); }

    void floatSamples_data();
    void floatSamples();
    void unsignedSamples();
    void signedSamples();
    void monoGoesToBothSides();
    void monoPlanarGoesToBothSides();
    void channelsBeyondTheSecondAreDropped();
    void planarChannels();
    void oneBufferForTwoChannels();
    void otherKindsAreSilence_data();
    void otherKindsAreSilence();
    void bigEndianFlagIsIgnored();
    void samplesOutsideTheBufferAreSilence();
    void randomDescriptions();
    void noMemoryForTheChunk();

    void chunksKeepTheirOrder();
    void readingTwiceGivesNothing();
    void nullAndInvalidBuffersAreIgnored();
    void unsupportedFormatIsWarnedOfOnce();
    void frameCounts_data();
    void frameCounts();
    void failingBufferListAddsNoChunk();
    void memoryForTheBufferListIsMissing();
    void memoryForTheLargestBufferIsMissing();
    void bufferListIsReleased();
    void unsupportedBuffersAreNotFetched();
    void deliveriesAndReadsMeet();
};

void AudioSampleIntakeTest::floatSamples_data()
{
    QTest::addColumn<float>("value");
    QTest::addColumn<int>("sample");

    QTest::newRow("zero") << 0.0F << 0;
    QTest::newRow("one") << 1.0F << 32767;
    QTest::newRow("minus one") << -1.0F << -32767;
    QTest::newRow("above") << 1.5F << 32767;
    QTest::newRow("below is not the lowest number") << -1.5F << -32767;
    QTest::newRow("a tie goes to the even number") << 0.5F << 16384;
    QTest::newRow("a negative tie too") << -0.5F << -16384;
    QTest::newRow("not a number") << std::numeric_limits<float>::quiet_NaN() << 32767;
    QTest::newRow("infinite") << std::numeric_limits<float>::infinity() << 32767;
    QTest::newRow("minus infinite") << -std::numeric_limits<float>::infinity() << -32767;
    QTest::newRow("smallest") << std::numeric_limits<float>::denorm_min() << 0;
}

void AudioSampleIntakeTest::floatSamples()
{
    QFETCH(const float, value);
    QFETCH(const int, sample);
    const auto bytes = bytesOf({value, 0.25F});
    const AudioStreamDescription description{linearPcm, interleavedFloat, 8, 2, 32};
    QCOMPARE(converted(description, 1, {bufferOf(bytes)}), (Samples{qint16(sample), 8192}));
}

void AudioSampleIntakeTest::unsignedSamples()
{
    const auto bytes = bytesOf<quint16>({0x0000, 0xffff, 0x8000, 0x7fff});
    QCOMPARE(converted({linearPcm, 0, 4, 2, 16}, 2, {bufferOf(bytes)}), (Samples{-32768, 32767, 0, -1}));
}

void AudioSampleIntakeTest::signedSamples()
{
    const auto narrow = bytesOf<qint16>({-32768, 32767, 1, -1});
    QCOMPARE(
        converted({linearPcm, pcmIsSignedInteger, 4, 2, 16}, 2, {bufferOf(narrow)}), (Samples{-32768, 32767, 1, -1}));
    const auto wide = bytesOf<qint32>({0x12345678, -0x12345678});
    QCOMPARE(converted({linearPcm, pcmIsSignedInteger, 8, 2, 32}, 1, {bufferOf(wide)}), (Samples{0x1234, -0x1235}));
}

void AudioSampleIntakeTest::monoGoesToBothSides()
{
    const auto bytes = bytesOf({0.25F, -0.25F});
    QCOMPARE(converted({linearPcm, interleavedFloat, 4, 1, 32}, 2, {bufferOf(bytes)}),
        (Samples{8192, 8192, -8192, -8192}));
}

void AudioSampleIntakeTest::monoPlanarGoesToBothSides()
{
    const auto bytes = bytesOf({0.25F, -0.25F});
    QCOMPARE(
        converted({linearPcm, planarFloat, 4, 1, 32}, 2, {bufferOf(bytes)}), (Samples{8192, 8192, -8192, -8192}));
}

void AudioSampleIntakeTest::channelsBeyondTheSecondAreDropped()
{
    const auto bytes = bytesOf<qint16>({1, 2, 3, 4, 5, 6, 11, 12, 13, 14, 15, 16});
    QCOMPARE(converted({linearPcm, pcmIsSignedInteger, 12, 6, 16}, 2, {bufferOf(bytes)}), (Samples{1, 2, 11, 12}));
}

void AudioSampleIntakeTest::planarChannels()
{
    const auto left = bytesOf({0.25F, 0.5F});
    const auto right = bytesOf({-0.25F, 1.0F});
    QCOMPARE(converted({linearPcm, planarFloat, 4, 2, 32}, 2, {bufferOf(left), bufferOf(right)}),
        (Samples{8192, -8192, 16384, 32767}));
}

void AudioSampleIntakeTest::oneBufferForTwoChannels()
{
    const auto left = bytesOf({0.25F, 0.5F});
    QCOMPARE(converted({linearPcm, planarFloat, 4, 2, 32}, 2, {bufferOf(left)}), (Samples{8192, 0, 16384, 0}));
}

void AudioSampleIntakeTest::otherKindsAreSilence_data()
{
    QTest::addColumn<quint32>("flags");
    QTest::addColumn<quint32>("bits");
    QTest::addColumn<quint32>("channels");
    QTest::addColumn<quint32>("bytesPerFrame");

    QTest::newRow("64-bit float") << quint32(pcmIsFloat) << 64U << 2U << 16U;
    QTest::newRow("16-bit float is read as unsigned, 8-bit is nothing") << quint32(pcmIsFloat) << 8U << 2U << 2U;
    QTest::newRow("8-bit integer") << quint32(pcmIsSignedInteger) << 8U << 2U << 2U;
    QTest::newRow("24-bit integer") << quint32(pcmIsSignedInteger) << 24U << 2U << 6U;
    QTest::newRow("8-bit unsigned") << 0U << 8U << 2U << 2U;
    QTest::newRow("32-bit unsigned") << 0U << 32U << 2U << 8U;
    QTest::newRow("no bits") << quint32(pcmIsFloat) << 0U << 2U << 8U;
    QTest::newRow("no channels") << quint32(pcmIsFloat) << 32U << 0U << 8U;
    QTest::newRow("no bytes in a frame") << quint32(pcmIsFloat) << 32U << 2U << 0U;
    QTest::newRow("as many bits as fit") << quint32(pcmIsSignedInteger) << 0xffffffffU << 2U << 8U;
    QTest::newRow("as many channels as fit, wide frames")
        << quint32(pcmIsSignedInteger) << 24U << 0xffffffffU << 0xffffffffU;
}

void AudioSampleIntakeTest::otherKindsAreSilence()
{
    QFETCH(const quint32, flags);
    QFETCH(const quint32, bits);
    QFETCH(const quint32, channels);
    QFETCH(const quint32, bytesPerFrame);
    const std::vector<char> bytes(64, '\x55');
    QCOMPARE(converted({linearPcm, flags, bytesPerFrame, channels, bits}, 3, {bufferOf(bytes)}), Samples(6, 0));
}

void AudioSampleIntakeTest::bigEndianFlagIsIgnored()
{
    constexpr quint32 bigEndian = 2;
    const auto bytes = bytesOf<qint16>({0x0102, 0x0304});
    QCOMPARE(converted({linearPcm, pcmIsSignedInteger | bigEndian, 4, 2, 16}, 1, {bufferOf(bytes)}),
        (Samples{0x0102, 0x0304}));
}

void AudioSampleIntakeTest::samplesOutsideTheBufferAreSilence()
{
    const auto bytes = bytesOf<qint16>({1, 2, 3});
    QCOMPARE(converted({linearPcm, pcmIsSignedInteger, 4, 2, 16}, 3, {bufferOf(bytes)}), (Samples{1, 2, 3, 0, 0, 0}));
    QCOMPARE(converted({linearPcm, pcmIsSignedInteger, 4, 2, 16}, 2, {AudioBuffer{nullptr, 100}}), Samples(4, 0));
    QCOMPARE(converted({linearPcm, pcmIsSignedInteger, 4, 2, 16}, 2, {}), Samples(4, 0));
    QCOMPARE(
        converted({linearPcm, pcmIsSignedInteger, 0xffffffff, 2, 16}, 2, {bufferOf(bytes)}), (Samples{1, 2, 0, 0}));
}

void AudioSampleIntakeTest::randomDescriptions()
{
    std::mt19937 random(20);
    const auto pick
        = [&random](std::initializer_list<quint32> values) { return std::data(values)[random() % values.size()]; };
    int heard = 0;
    for (int round = 0; round < 20000; ++round) {
        const AudioStreamDescription description{linearPcm, pick({0, 1, 4, 5, 32, 33, 36, 37, 2, 6, 12, 0xffffffff}),
            pick({0, 1, 2, 3, 4, 6, 8, 12, 24, 0x7fffffff, 0xffffffff}), pick({0, 1, 2, 3, 6, 8, 0xffffffff}),
            pick({0, 1, 8, 15, 16, 17, 24, 32, 64, 0xffffffff})};
        const qint64 frames = 1 + qint64(random() % 40);
        std::vector<std::vector<char>> memory(random() % 4);
        std::vector<AudioBuffer> buffers;
        for (auto& bytes : memory) {
            bytes.resize(random() % 200);
            for (char& byte : bytes)
                byte = char(random());
            buffers.push_back(random() % 8 == 0 ? AudioBuffer{nullptr, bytes.size()} : bufferOf(bytes));
        }
        const Samples result = converted(description, frames, buffers);
        QCOMPARE(qint64(result.size()), frames * 2);
        for (qint64 i = 0; i < frames * 2; ++i) {
            const qint16 expected = referenceSample(description, i / 2, i % 2, buffers);
            QCOMPARE(result[std::size_t(i)], expected);
            heard += expected != 0;
        }
    }
    QVERIFY2(heard > 10000, "the random descriptions are almost all silence");
}

void AudioSampleIntakeTest::noMemoryForTheChunk()
{
    const MemoryLimit limit(rlim_t(4) << 30); // the chunk takes 8 GiB
    const auto chunk = audiointake::toChunk({linearPcm, interleavedFloat, 8, 2, 32}, audiointake::mostFrames, {});
    QVERIFY(!chunk);
}

// ---- the queue -------------------------------------------------------------------------------------------------

namespace {

/// A capture on the fake platform, started.
struct Intake {
    LogCapture log;
    std::unique_ptr<RecorderAudioCapture> capture;

    Intake()
    {
        fakeplatform::audio().lookup = fakeplatform::contentOf({});
        capture = std::make_unique<RecorderAudioCapture>(QString());
        capture->start();
        log.clear();
    }
};

AudioSampleBuffer oneFloatFrame(qint64 frames = 1)
{
    static const auto bytes = bytesOf({0.25F, 0.5F});
    AudioSampleBuffer buffer;
    buffer.description = AudioStreamDescription{linearPcm, interleavedFloat, 8, 2, 32};
    buffer.frames = frames;
    buffer.bufferList = [] { return AudioBufferList{{bufferOf(bytes)}, nullptr}; };
    return buffer;
}

const QString unsupportedWarning = QStringLiteral("macOS ScreenCaptureKit audio sample has unsupported format.");

}

void AudioSampleIntakeTest::chunksKeepTheirOrder()
{
    const Intake intake;
    for (qint16 i = 1; i <= 5; ++i)
        QVERIFY(fakeplatform::deliverStereo({i, qint16(-i)}));
    const auto chunks = intake.capture->readAvailable();
    QCOMPARE(chunks.size(), 5);
    for (qint16 i = 1; i <= 5; ++i) {
        QCOMPARE(chunks[i - 1].frames, 1);
        QCOMPARE(samplesOf(chunks[i - 1]), (Samples{i, qint16(-i)}));
    }
}

void AudioSampleIntakeTest::readingTwiceGivesNothing()
{
    const Intake intake;
    QVERIFY(fakeplatform::deliverStereo({1, 2}));
    QCOMPARE(intake.capture->readAvailable().size(), 1);
    QCOMPARE(intake.capture->readAvailable().size(), 0);
    QVERIFY(fakeplatform::deliverStereo({3, 4}));
    QCOMPARE(intake.capture->readAvailable().size(), 1);
}

void AudioSampleIntakeTest::nullAndInvalidBuffersAreIgnored()
{
    const Intake intake;
    QVERIFY(fakeplatform::deliver(nullptr));
    AudioSampleBuffer invalid = oneFloatFrame();
    invalid.valid = false;
    invalid.description.reset();
    QVERIFY(fakeplatform::deliver(&invalid));
    QCOMPARE(intake.capture->readAvailable().size(), 0);
    QCOMPARE(intake.log.messages(), QStringList());
}

void AudioSampleIntakeTest::unsupportedFormatIsWarnedOfOnce()
{
    const Intake intake;
    AudioSampleBuffer compressed = oneFloatFrame();
    compressed.description->formatId = 0x61616320; // 'aac '
    AudioSampleBuffer nameless = oneFloatFrame();
    nameless.description.reset();
    QVERIFY(fakeplatform::deliver(&compressed));
    QVERIFY(fakeplatform::deliver(&compressed));
    QVERIFY(fakeplatform::deliver(&nameless));
    QCOMPARE(intake.log.messages(QtWarningMsg), QStringList(unsupportedWarning));
    const AudioSampleBuffer good = oneFloatFrame();
    QVERIFY(fakeplatform::deliver(&good));
    QCOMPARE(intake.capture->readAvailable().size(), 1);

    const RecorderAudioCapture another{QString()};
    QVERIFY(fakeplatform::deliver(&nameless));
    QCOMPARE(intake.log.count(unsupportedWarning), 2);
}

void AudioSampleIntakeTest::frameCounts_data()
{
    QTest::addColumn<qint64>("frames");
    QTest::addColumn<int>("chunks");

    QTest::newRow("none") << qint64(0) << 0;
    QTest::newRow("negative") << qint64(-1) << 0;
    QTest::newRow("one") << qint64(1) << 1;
    QTest::newRow("one too many") << qint64(1) + std::numeric_limits<qint32>::max() << 0;
    QTest::newRow("far too many") << std::numeric_limits<qint64>::max() << 0;
}

void AudioSampleIntakeTest::frameCounts()
{
    QFETCH(const qint64, frames);
    const Intake intake;
    const AudioSampleBuffer buffer = oneFloatFrame(frames);
    QVERIFY(fakeplatform::deliver(&buffer));
    QTEST(int(intake.capture->readAvailable().size()), "chunks");
    QCOMPARE(intake.log.messages(), QStringList());
}

void AudioSampleIntakeTest::failingBufferListAddsNoChunk()
{
    const Intake intake;
    AudioSampleBuffer buffer = oneFloatFrame();
    buffer.bufferList = [] { return std::nullopt; };
    QVERIFY(fakeplatform::deliver(&buffer));
    QCOMPARE(intake.capture->readAvailable().size(), 0);
    QCOMPARE(intake.log.messages(), QStringList());
}

/// The caller is the platform, which knows no exceptions.
void AudioSampleIntakeTest::memoryForTheBufferListIsMissing()
{
    const Intake intake;
    AudioSampleBuffer buffer = oneFloatFrame();
    buffer.bufferList = []() -> std::optional<AudioBufferList> { throw std::bad_alloc(); };
    QVERIFY(fakeplatform::deliver(&buffer));
    QVERIFY(fakeplatform::deliver(&buffer));
    QCOMPARE(intake.capture->readAvailable().size(), 0);
    const AudioSampleBuffer next = oneFloatFrame();
    QVERIFY(fakeplatform::deliver(&next));
    QCOMPARE(intake.capture->readAvailable().size(), 1);
    QCOMPARE(intake.log.messages(),
        QStringList{QStringLiteral("No memory for audio that was delivered; it is left out. Told once.")});
}

/// As many frames as there can be are not too many: what is missing is only the memory, which is told of.
void AudioSampleIntakeTest::memoryForTheLargestBufferIsMissing()
{
    const Intake intake;
    AudioSampleBuffer buffer = oneFloatFrame(std::numeric_limits<qint32>::max());
    buffer.description = AudioStreamDescription{linearPcm, interleavedFloat, 4, 1, 32};
    {
        const MemoryLimit limit(rlim_t(4) << 30); // the chunk takes 8 GiB
        QVERIFY(fakeplatform::deliver(&buffer));
        QVERIFY(fakeplatform::deliver(&buffer));
    }
    QCOMPARE(intake.capture->readAvailable().size(), 0);
    QCOMPARE(intake.log.messages(),
        QStringList{QStringLiteral("No memory for audio that was delivered; it is left out. Told once.")});
}

void AudioSampleIntakeTest::bufferListIsReleased()
{
    const Intake intake;
    const auto owner = std::make_shared<int>(0);
    AudioSampleBuffer buffer = oneFloatFrame();
    buffer.bufferList = [&owner] { return AudioBufferList{{}, owner}; };
    QVERIFY(fakeplatform::deliver(&buffer));
    QCOMPARE(owner.use_count(), 1);
    QCOMPARE(intake.capture->readAvailable().size(), 1);
}

void AudioSampleIntakeTest::unsupportedBuffersAreNotFetched()
{
    const Intake intake;
    int fetched = 0;
    AudioSampleBuffer buffer = oneFloatFrame(0);
    buffer.bufferList = [&fetched] {
        ++fetched;
        return std::nullopt;
    };
    QVERIFY(fakeplatform::deliver(&buffer));
    buffer.frames = 1;
    buffer.description.reset();
    QVERIFY(fakeplatform::deliver(&buffer));
    QCOMPARE(fetched, 0);
}

void AudioSampleIntakeTest::deliveriesAndReadsMeet()
{
    const Intake intake;
    constexpr int deliveries = 20000;
    std::thread platformThread([] {
        for (int i = 0; i < deliveries; ++i)
            fakeplatform::deliverStereo({qint16(i), qint16(i)});
    });
    int received = 0;
    while (received < deliveries) {
        for (const auto& chunk : intake.capture->readAvailable()) {
            QCOMPARE(samplesOf(chunk), (Samples{qint16(received), qint16(received)}));
            ++received;
        }
    }
    platformThread.join();
    QCOMPARE(intake.capture->readAvailable().size(), 0);
}

ORVANTIS_TEST(AudioSampleIntakeTest)
#include "audiosampleintake_test.moc"
