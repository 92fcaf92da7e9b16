// What differs between FFmpeg's versions: both ways of asking an encoder what it supports, on every FFmpeg.
#include "avcompatversions.h"
#include "testregistry.h"

#include "avcompat.h"

#include <QTest>

#include <algorithm>
#include <array>

namespace {

constexpr std::array listed{AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AV_PIX_FMT_NONE};
constexpr std::array queried{AV_PIX_FMT_GRAY8, AV_PIX_FMT_RGB24, AV_PIX_FMT_BGRA, AV_PIX_FMT_NONE};
constexpr std::array listedFormats{AV_SAMPLE_FMT_U8, AV_SAMPLE_FMT_S32P, AV_SAMPLE_FMT_NONE};
constexpr std::array queriedFormats{AV_SAMPLE_FMT_DBL, AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_S16};
constexpr std::array listedRates{96000, 48000, 8000, 0};
constexpr std::array queriedRates{44100, 22050};

template <typename Item, std::size_t Size>
bool holds(const Invented<Item>& items, const std::array<Item, Size>& expected)
{
    return items && std::equal(items->begin(), items->end(), expected.begin(), expected.end());
}

}

class AvCompatTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void olderReadsTheList();
    void olderTakesAnEmptyListAsOne();
    void olderWithoutListSaysNothing();
    void newerAsks();
    void newerAsksForPixelFormatsOfTheCodec();
    void newerTakesAnEmptyAnswerAsAList();
    void newerWithoutAnswerSaysNothing_data();
    void newerWithoutAnswerSaysNothing();
    void olderReadsTheListsOfAudio();
    void olderWithoutListsOfAudioSaysNothing();
    void newerAsksForSampleFormats();
    void newerAsksForSampleRates();
    void eachVersionAsksInItsOwnWay();
    void installedFfmpegKnowsItsEncoders();
};

void AvCompatTest::olderReadsTheList()
{
    const InventedCodec codec{.pix_fmts = listed.data()};
    QVERIFY(holds(pixelFormatsBeforeTheChange(&codec), std::array{AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12}));
}

void AvCompatTest::olderTakesAnEmptyListAsOne()
{
    constexpr std::array empty{AV_PIX_FMT_NONE};
    const InventedCodec codec{.pix_fmts = empty.data()};
    QVERIFY(holds(pixelFormatsBeforeTheChange(&codec), std::array<AVPixelFormat, 0>()));
}

void AvCompatTest::olderWithoutListSaysNothing()
{
    const InventedCodec codec;
    QVERIFY(!pixelFormatsBeforeTheChange(&codec));
}

void AvCompatTest::newerAsks()
{
    const InventedCodec codec{.queried = queried.data(), .queriedCount = 3};
    QVERIFY(
        holds(pixelFormatsSinceTheChange(&codec), std::array{AV_PIX_FMT_GRAY8, AV_PIX_FMT_RGB24, AV_PIX_FMT_BGRA}));
}

void AvCompatTest::newerAsksForPixelFormatsOfTheCodec()
{
    const InventedCodec codec{.queried = queried.data(), .queriedCount = 1};
    QVERIFY(pixelFormatsSinceTheChange(&codec));
    QCOMPARE(lastQuery().context, static_cast<const AVCodecContext*>(nullptr));
    QCOMPARE(lastQuery().config, inventedPixelFormatConfig);
    QCOMPARE(lastQuery().flags, 0u);
}

void AvCompatTest::newerTakesAnEmptyAnswerAsAList()
{
    const InventedCodec codec{.queried = queried.data(), .queriedCount = 0};
    QVERIFY(holds(pixelFormatsSinceTheChange(&codec), std::array<AVPixelFormat, 0>()));
}

void AvCompatTest::newerWithoutAnswerSaysNothing_data()
{
    QTest::addColumn<bool>("hasFormats");
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("status");
    QTest::newRow("every format is accepted") << false << 0 << 0;
    QTest::newRow("the query fails") << true << 3 << AVERROR(EINVAL);
    QTest::newRow("a count below zero") << true << -1 << 0;
}

void AvCompatTest::newerWithoutAnswerSaysNothing()
{
    QFETCH(const bool, hasFormats);
    QFETCH(const int, count);
    QFETCH(const int, status);
    const InventedCodec codec{
        .queried = hasFormats ? queried.data() : nullptr, .queriedCount = count, .queryStatus = status};
    QVERIFY(!pixelFormatsSinceTheChange(&codec));
}

void AvCompatTest::olderReadsTheListsOfAudio()
{
    const InventedCodec codec{.sample_fmts = listedFormats.data(), .supported_samplerates = listedRates.data()};
    QVERIFY(holds(sampleFormatsBeforeTheChange(&codec), std::array{AV_SAMPLE_FMT_U8, AV_SAMPLE_FMT_S32P}));
    QVERIFY(holds(sampleRatesBeforeTheChange(&codec), std::array{96000, 48000, 8000}));
    QVERIFY(!pixelFormatsBeforeTheChange(&codec));
}

void AvCompatTest::olderWithoutListsOfAudioSaysNothing()
{
    const InventedCodec codec{.queried = queriedRates.data(), .queriedCount = 2};
    QVERIFY(!sampleFormatsBeforeTheChange(&codec));
    QVERIFY(!sampleRatesBeforeTheChange(&codec));
}

void AvCompatTest::newerAsksForSampleFormats()
{
    const InventedCodec codec{
        .sample_fmts = listedFormats.data(), .queried = queriedFormats.data(), .queriedCount = 3};
    QVERIFY(holds(sampleFormatsSinceTheChange(&codec), queriedFormats));
    QCOMPARE(lastQuery().context, static_cast<const AVCodecContext*>(nullptr));
    QCOMPARE(lastQuery().config, inventedSampleFormatConfig);
    QVERIFY(!sampleFormatsSinceTheChange(std::array{InventedCodec()}.data()));
}

void AvCompatTest::newerAsksForSampleRates()
{
    const InventedCodec codec{
        .supported_samplerates = listedRates.data(), .queried = queriedRates.data(), .queriedCount = 2};
    QVERIFY(holds(sampleRatesSinceTheChange(&codec), queriedRates));
    QCOMPARE(lastQuery().context, static_cast<const AVCodecContext*>(nullptr));
    QCOMPARE(lastQuery().config, inventedSampleRateConfig);
    QVERIFY(!sampleRatesSinceTheChange(std::array{InventedCodec()}.data()));
}

void AvCompatTest::eachVersionAsksInItsOwnWay()
{
    const InventedCodec both{.pix_fmts = listed.data(), .queried = queried.data(), .queriedCount = 3};
    const auto older = pixelFormatsBeforeTheChange(&both);
    const auto newer = pixelFormatsSinceTheChange(&both);
    QVERIFY(older && newer);
    QCOMPARE(older->data(), listed.data());
    QCOMPARE(newer->data(), queried.data());
}

void AvCompatTest::installedFfmpegKnowsItsEncoders()
{
    const AVCodec* const mpeg4 = avcodec_find_encoder_by_name("mpeg4");
    QVERIFY(mpeg4);
    QVERIFY(holds(avcompat::pixelFormats(mpeg4), std::array{AV_PIX_FMT_YUV420P}));

    const AVCodec* const ffv1 = avcodec_find_encoder_by_name("ffv1");
    QVERIFY(ffv1);
    const auto formats = avcompat::pixelFormats(ffv1);
    QVERIFY(formats);
    QVERIFY(std::find(formats->begin(), formats->end(), AV_PIX_FMT_YUV420P) != formats->end());

    // An audio encoder lists no pixel formats.
    const AVCodec* const pcm = avcodec_find_encoder_by_name("pcm_s16le");
    QVERIFY(pcm);
    QVERIFY(!avcompat::pixelFormats(pcm));
    QVERIFY(holds(avcompat::sampleFormats(pcm), std::array{AV_SAMPLE_FMT_S16}));
    QVERIFY(!avcompat::sampleRates(pcm));
    QVERIFY(!avcompat::sampleFormats(mpeg4));

    const AVCodec* const opus = avcodec_find_encoder_by_name("libopus");
    QVERIFY(opus);
    QVERIFY(holds(avcompat::sampleFormats(opus), std::array{AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_FLT}));
    QVERIFY(holds(avcompat::sampleRates(opus), std::array{48000, 24000, 16000, 12000, 8000}));
}

ORVANTIS_TEST(AvCompatTest)
#include "avcompat_test.moc"
