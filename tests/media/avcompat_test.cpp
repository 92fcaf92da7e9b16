// What differs between FFmpeg's versions: both ways of asking an encoder for its formats, on every FFmpeg.
#include "avcompatversions.h"

#include "avcompat.h"

#include <QTest>

#include <algorithm>
#include <array>

namespace {

constexpr std::array listed{AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, AV_PIX_FMT_NONE};
constexpr std::array queried{AV_PIX_FMT_GRAY8, AV_PIX_FMT_RGB24, AV_PIX_FMT_BGRA, AV_PIX_FMT_NONE};

template <std::size_t Size>
bool holds(const InventedFormats& formats, const std::array<AVPixelFormat, Size>& expected)
{
    return formats && std::equal(formats->begin(), formats->end(), expected.begin(), expected.end());
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
    void eachVersionAsksInItsOwnWay();
    void installedFfmpegKnowsItsEncoders();
};

void AvCompatTest::olderReadsTheList()
{
    const InventedCodec codec{.pix_fmts = listed.data()};
    QVERIFY(holds(formatsBeforeTheChange(&codec), std::array{AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12}));
}

void AvCompatTest::olderTakesAnEmptyListAsOne()
{
    constexpr std::array empty{AV_PIX_FMT_NONE};
    const InventedCodec codec{.pix_fmts = empty.data()};
    QVERIFY(holds(formatsBeforeTheChange(&codec), std::array<AVPixelFormat, 0>()));
}

void AvCompatTest::olderWithoutListSaysNothing()
{
    const InventedCodec codec;
    QVERIFY(!formatsBeforeTheChange(&codec));
}

void AvCompatTest::newerAsks()
{
    const InventedCodec codec{.queried = queried.data(), .queriedCount = 3};
    QVERIFY(holds(formatsSinceTheChange(&codec), std::array{AV_PIX_FMT_GRAY8, AV_PIX_FMT_RGB24, AV_PIX_FMT_BGRA}));
}

void AvCompatTest::newerAsksForPixelFormatsOfTheCodec()
{
    const InventedCodec codec{.queried = queried.data(), .queriedCount = 1};
    QVERIFY(formatsSinceTheChange(&codec));
    QCOMPARE(lastQuery().context, static_cast<const AVCodecContext*>(nullptr));
    QCOMPARE(lastQuery().config, inventedPixelFormatConfig);
    QCOMPARE(lastQuery().flags, 0u);
}

void AvCompatTest::newerTakesAnEmptyAnswerAsAList()
{
    const InventedCodec codec{.queried = queried.data(), .queriedCount = 0};
    QVERIFY(holds(formatsSinceTheChange(&codec), std::array<AVPixelFormat, 0>()));
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
    QVERIFY(!formatsSinceTheChange(&codec));
}

void AvCompatTest::eachVersionAsksInItsOwnWay()
{
    const InventedCodec both{.pix_fmts = listed.data(), .queried = queried.data(), .queriedCount = 3};
    const auto older = formatsBeforeTheChange(&both);
    const auto newer = formatsSinceTheChange(&both);
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

    // A sound encoder lists no pixel formats.
    const AVCodec* const pcm = avcodec_find_encoder_by_name("pcm_s16le");
    QVERIFY(pcm);
    QVERIFY(!avcompat::pixelFormats(pcm));
}

QTEST_GUILESS_MAIN(AvCompatTest)
#include "avcompat_test.moc"
