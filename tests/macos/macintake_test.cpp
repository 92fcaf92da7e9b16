// Sample buffers of every kind, from CoreMedia up to the queued chunks.
#include "macbench.h"
#include "recorderaudiocapture.h"
#include "testregistry.h"

#include <QtEndian>

#include <cstring>
#include <limits>

using macsim::Audio;

namespace {

constexpr std::uint32_t isFloat = 1;
constexpr std::uint32_t isBigEndian = 2;
constexpr std::uint32_t isSigned = 4;
constexpr std::uint32_t isPlanar = 32;

const QString unsupportedLine = QStringLiteral("macOS ScreenCaptureKit audio sample has unsupported format.");

template <typename T>
std::vector<std::uint8_t> bytesOf(const std::vector<T>& samples)
{
    std::vector<std::uint8_t> bytes(samples.size() * sizeof(T));
    std::memcpy(bytes.data(), samples.data(), bytes.size());
    return bytes;
}

/// One buffer for all channels, or one each.
template <typename T>
Audio audio(
    std::uint32_t flags, std::uint32_t channels, std::int64_t frames, const std::vector<std::vector<T>>& buffers)
{
    Audio made;
    made.formatFlags = flags;
    made.channels = channels;
    made.bitsPerChannel = sizeof(T) * 8;
    made.bytesPerFrame = std::uint32_t(sizeof(T)) * (flags & isPlanar ? 1 : channels);
    made.frames = frames;
    for (const auto& buffer : buffers)
        made.buffers.push_back(bytesOf(buffer));
    return made;
}

using Samples = QList<qint16>;

/// One frame of two samples that are not zero, in another width than that of any C++ type.
Audio packedFrame(std::uint32_t flags, std::uint32_t bitsPerChannel)
{
    const std::size_t width = bitsPerChannel / 8;
    Audio made = audio<std::uint8_t>(flags, 2, 1, {std::vector<std::uint8_t>(2 * width, 0x5a)});
    made.bitsPerChannel = bitsPerChannel;
    made.bytesPerFrame = std::uint32_t(2 * width);
    return made;
}

}

Q_DECLARE_METATYPE(macsim::Audio)

class MacIntakeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void formats_data();
    void formats();
    void silence_data();
    void silence();
    void dropped_data();
    void dropped();
    void unsupportedFormatIsToldOnce();
    void blockBuffer_data();
    void blockBuffer();
    void listIsAskedForTwice();
    void manyBlocksKeepTheirOrder();

private:
    /// What the program made of it, left and right alternating; nothing when it queued no chunk.
    std::optional<Samples> taken(const Audio& audio);
    void deliverAt(Audio audio, qint64 frame);

    qint64 clockNs_ = 7200000000000; // any instant
    std::optional<MacBench> bench_;
    std::unique_ptr<RecorderAudioCapture> capture_;
};

void MacIntakeTest::init()
{
    bench_.emplace();
    macsim::setClocks(clockNs_, clockNs_);
    capture_ = std::make_unique<RecorderAudioCapture>(QString());
    QVERIFY(capture_->start());
    bench_->log.clear();
}

void MacIntakeTest::cleanup()
{
    capture_.reset();
    MAC_IS_CLEAN();
    bench_.reset();
}

void MacIntakeTest::deliverAt(Audio audio, qint64 frame)
{
    audio.timeNs = clockNs_ + frame * 1000000000 / 48000;
    audio.timeFlags = 1;
    if (!macsim::deliver(audio))
        qFatal("Nothing runs");
}

/// It is delivered between two values that nothing else has, of which the second one is where it would be without it.
std::optional<Samples> MacIntakeTest::taken(const Audio& audio)
{
    constexpr qint64 around = 480; // frames; a run of audio fades in and out
    constexpr qint16 before = 1001;
    constexpr qint16 behind = 2002;
    clockNs_ += 1000000000;
    macsim::setClocks(clockNs_, clockNs_);
    deliverAt(macsim::stereoAudio(std::vector<std::int16_t>(2 * around, before)), 0);
    deliverAt(audio, around);
    deliverAt(macsim::stereoAudio(std::vector<std::int16_t>(2 * around, behind)), around);
    capture_->deliverUntil(clockNs_ / 1000000 + 100, true);
    Samples samples;
    for (const auto& chunk : capture_->readAvailable()) {
        for (qsizetype i = 0; i < chunk.pcm.size(); i += 2)
            samples.append(qFromLittleEndian<qint16>(chunk.pcm.constData() + i));
    }
    const qsizetype end = samples.indexOf(behind);
    if (end < 1)
        qFatal("The audio around it is not heard");
    qsizetype begin = end;
    while (begin > 0 && samples[begin - 1] != before)
        --begin;
    return end == begin ? std::nullopt : std::optional(samples.mid(begin, end - begin));
}

void MacIntakeTest::formats_data()
{
    QTest::addColumn<Audio>("delivered");
    QTest::addColumn<Samples>("expected");
    using F = std::vector<float>;
    using S = std::vector<std::int16_t>;
    using U = std::vector<std::uint16_t>;
    using L = std::vector<std::int32_t>;
    QTest::newRow("float, interleaved, stereo")
        << audio<float>(isFloat, 2, 2, {F{0.5F, -1.5F, 1.5F, 0}}) << Samples{16384, -32767, 32767, 0};
    constexpr float nan = std::numeric_limits<float>::quiet_NaN();
    QTest::newRow("float that is no number") << audio<float>(isFloat, 2, 1, {F{nan, -nan}}) << Samples{32767, 32767};
    QTest::newRow("float, planar, stereo") << audio<float>(isFloat | isPlanar, 2, 2, {F{0.5F, 1}, F{-0.5F, -1}})
                                           << Samples{16384, -16384, 32767, -32767};
    QTest::newRow("float, mono") << audio<float>(isFloat, 1, 2, {F{0.5F, -1}})
                                 << Samples{16384, 16384, -32767, -32767};
    QTest::newRow("float, planar, six channels")
        << audio<float>(isFloat | isPlanar, 6, 1, {F{1}, F{-1}, F{0.1F}, F{0.2F}, F{0.3F}, F{0.4F}})
        << Samples{32767, -32767};
    QTest::newRow("float, interleaved, six channels")
        << audio<float>(isFloat, 6, 2, {F{1, -1, 0, 0, 0, 0, 0.5F, -0.5F, 0, 0, 0, 0}})
        << Samples{32767, -32767, 16384, -16384};
    QTest::newRow("signed 16, interleaved")
        << audio<std::int16_t>(isSigned, 2, 2, {S{1, -2, 3, -4}}) << Samples{1, -2, 3, -4};
    QTest::newRow("signed 16, planar") << audio<std::int16_t>(isSigned | isPlanar, 2, 2, {S{1, 2}, S{-3, -4}})
                                       << Samples{1, -3, 2, -4};
    QTest::newRow("signed 16, planar, one buffer")
        << audio<std::int16_t>(isSigned | isPlanar, 2, 2, {S{1, 2}}) << Samples{1, 0, 2, 0};
    QTest::newRow("signed 16 that is called big-endian")
        << audio<std::int16_t>(isSigned | isBigEndian, 2, 1, {S{1, 0x0203}}) << Samples{1, 0x0203};
    QTest::newRow("unsigned 16") << audio<std::uint16_t>(0, 2, 1, {U{0, 0xffff}}) << Samples{-32768, 32767};
    QTest::newRow("unsigned 16, planar")
        << audio<std::uint16_t>(isPlanar, 2, 2, {U{0, 0x8000}, U{0x8001, 0xffff}}) << Samples{-32768, 1, 0, 32767};
    QTest::newRow("signed 32, interleaved")
        << audio<std::int32_t>(isSigned, 2, 1, {L{0x12345678, -0x10000}}) << Samples{0x1234, -1};
    QTest::newRow("signed 32, planar") << audio<std::int32_t>(isSigned | isPlanar, 2, 1, {L{0x7fff0000}, L{0x10000}})
                                       << Samples{32767, 1};
    QTest::newRow("short buffer") << audio<std::int16_t>(isSigned, 2, 3, {S{1, 2}}) << Samples{1, 2, 0, 0, 0, 0};
    Audio null = audio<std::int16_t>(isSigned | isPlanar, 2, 1, {S{5}, S{6}});
    null.nullBuffers = {false, true};
    QTest::newRow("null data") << null << Samples{5, 0};
    Audio fewer = audio<std::int16_t>(isSigned | isPlanar, 2, 1, {S{5}, S{6}});
    fewer.claimedBuffers = 1;
    QTest::newRow("fewer buffers than there is room for") << fewer << Samples{5, 0};
    Audio more = audio<std::int16_t>(isSigned | isPlanar, 2, 1, {S{5}, S{6}});
    more.claimedBuffers = 3;
    QTest::newRow("more buffers than there is room for") << more << Samples{5, 6};
}

void MacIntakeTest::formats()
{
    QFETCH(const Audio, delivered);
    QFETCH(const Samples, expected);
    const auto samples = taken(delivered);
    QVERIFY(samples);
    QCOMPARE(*samples, expected);
    QCOMPARE(bench_->log.messages(), QStringList());
}

void MacIntakeTest::silence_data()
{
    QTest::addColumn<Audio>("delivered");
    QTest::newRow("64-bit float") << audio<double>(isFloat, 2, 1, {std::vector<double>{1, 1}});
    QTest::newRow("signed 8") << packedFrame(isSigned, 8);
    QTest::newRow("unsigned 8") << packedFrame(0, 8);
    QTest::newRow("signed 24") << packedFrame(isSigned, 24);
    QTest::newRow("unsigned 32") << packedFrame(0, 32);
    QTest::newRow("no buffer") << audio<float>(isFloat, 2, 1, {});
    const auto row = [](const char* name, std::uint32_t Audio::*field) {
        Audio changed = macsim::stereoAudio({257, 257});
        changed.*field = 0;
        QTest::newRow(name) << changed;
    };
    row("no bits", &Audio::bitsPerChannel);
    row("no channels", &Audio::channels);
    row("no bytes in a frame", &Audio::bytesPerFrame);
}

void MacIntakeTest::silence()
{
    QFETCH(const Audio, delivered);
    QCOMPARE(taken(delivered), std::optional(Samples{0, 0}));
    QCOMPARE(bench_->log.messages(), QStringList());
}

void MacIntakeTest::dropped_data()
{
    QTest::addColumn<Audio>("delivered");
    const Audio good = macsim::stereoAudio({1, 2});
    const auto row = [&good](const char* name, const auto& change) {
        Audio changed = good;
        change(changed);
        QTest::newRow(name) << changed;
    };
    row("no buffer at all", [](Audio& s) { s.null = true; });
    row("invalid", [](Audio& s) { s.valid = false; });
    row("no frame", [](Audio& s) { s.frames = 0; });
    row("less than no frame", [](Audio& s) { s.frames = -1; });
    row("too many frames", [](Audio& s) { s.frames = std::int64_t(std::numeric_limits<qint32>::max()) + 1; });
    row("frames whose low 32 bits are one", [](Audio& s) { s.frames = (std::int64_t(1) << 32) + 1; });
    row("size cannot be told", [](Audio& s) { s.sizeStatus = -12731; });
    row("size is zero", [](Audio& s) { s.claimedListSize = 0; });
    row("size is less than an empty list's", [](Audio& s) {
        s.claimedListSize = 7;
        s.claimedBuffers = 0;
    });
    row("samples are not handed out", [](Audio& s) { s.listStatus = -12731; });
    row("samples are not handed out, but a block buffer is", [](Audio& s) {
        s.listStatus = -12731;
        s.blockDespiteFailure = true;
    });
}

void MacIntakeTest::dropped()
{
    QFETCH(const Audio, delivered);
    QVERIFY(!taken(delivered));
    QCOMPARE(bench_->log.messages(), QStringList());
    QCOMPARE(macsim::live("SimBlockBuffer"), 0);
    QCOMPARE(taken(macsim::stereoAudio({7, 8})), std::optional(Samples{7, 8}));
}

void MacIntakeTest::unsupportedFormatIsToldOnce()
{
    Audio compressed = macsim::stereoAudio({1, 2});
    compressed.formatId = 0x61616320; // 'aac '
    Audio undescribed = macsim::stereoAudio({1, 2});
    undescribed.hasDescription = false;
    Audio otherwise = macsim::stereoAudio({1, 2});
    otherwise.descriptionIsAudio = false;
    for (const Audio& one : {undescribed, compressed, otherwise, undescribed})
        QVERIFY(macsim::deliver(one));
    QCOMPARE(bench_->log.messages(), QStringList(unsupportedLine));
    QVERIFY(macsim::record().listFlags.empty());
}

void MacIntakeTest::blockBuffer_data()
{
    QTest::addColumn<bool>("none");
    QTest::newRow("one") << false;
    QTest::newRow("none") << true;
}

void MacIntakeTest::blockBuffer()
{
    QFETCH(const bool, none);
    Audio one = macsim::stereoAudio({21, 22, 23, 24});
    one.noBlock = none;
    QCOMPARE(taken(one), std::optional(Samples{21, 22, 23, 24}));
    QCOMPARE(macsim::live("SimBlockBuffer"), 0);
}

void MacIntakeTest::listIsAskedForTwice()
{
    QVERIFY(macsim::deliver(macsim::stereoAudio({1, 2})));
    QCOMPARE(macsim::record().listFlags, (std::vector<std::uint32_t>{1, 1})); // 16-byte alignment
}

void MacIntakeTest::manyBlocksKeepTheirOrder()
{
    constexpr qint64 length = 480;
    for (qint16 i = 0; i < 200; ++i)
        deliverAt(macsim::stereoAudio(std::vector<std::int16_t>(2 * length, i)), i * length);
    capture_->deliverUntil(clockNs_ / 1000000 + 3000, true);
    QList<qint16> order;
    for (const auto& chunk : capture_->readAvailable()) {
        for (qsizetype i = 0; i < chunk.pcm.size(); i += 4) {
            const auto sample = qFromLittleEndian<qint16>(chunk.pcm.constData() + i);
            if (order.isEmpty() || order.last() != sample)
                order.append(sample);
        }
    }
    for (qint16 i = 1; i < 200; ++i)
        QCOMPARE(order.value(i), i);
    QCOMPARE(macsim::live("SimSampleBuffer"), 0);
}

ORVANTIS_TEST(MacIntakeTest)
#include "macintake_test.moc"
