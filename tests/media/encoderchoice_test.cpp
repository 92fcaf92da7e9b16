// The rules of encoder selection, on invented encoders.
#include "avcompat.h"
#include "encoderchoice.h"
#include "testregistry.h"

#include <QTest>

#include <algorithm>
#include <limits>
#include <vector>

using namespace encoderchoice;

Q_DECLARE_METATYPE(AVCodecID)

namespace {

using Formats = std::vector<AVPixelFormat>;

constexpr auto noFormat = AV_PIX_FMT_NONE;
constexpr auto noSuchFormat = AV_PIX_FMT_NB; // one behind the last

/// The choice for an encoder with this list; noFormat for a refusal.
AVPixelFormat chosen(const Formats& list)
{
    return inputPixelFormat(std::span<const AVPixelFormat>(list)).value_or(noFormat);
}

}

Q_DECLARE_METATYPE(Formats)

class EncoderChoiceTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void forbidden_data();
    void forbidden();
    void pixelFormat_data();
    void pixelFormat();
    void candidatesInEveryOrder();
    void noListTakesTheFirstCandidate();
    void thirdCandidateIsP010();
    void bitRates_data();
    void bitRates();
    void bitRateNeverFallsWithTheSize();
    void threads_data();
    void threads();
    void fixedParameters();
};

void EncoderChoiceTest::forbidden_data()
{
    QTest::addColumn<AVCodecID>("id");
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("refused");
    const auto row = [](const char* title, AVCodecID id, const char* name, bool refused) {
        QTest::newRow(title) << id << QString::fromLatin1(name) << refused;
    };

    row("id H.264, innocent name", AV_CODEC_ID_H264, "mpeg4", true);
    row("id HEVC, innocent name", AV_CODEC_ID_HEVC, "mpeg4", true);
    row("id H.264, no name", AV_CODEC_ID_H264, "", true);

    row("h264", AV_CODEC_ID_MPEG4, "h264", true);
    row("h265", AV_CODEC_ID_MPEG4, "h265", true);
    row("hevc", AV_CODEC_ID_MPEG4, "hevc", true);
    row("openh264", AV_CODEC_ID_MPEG4, "openh264", true);
    row("x264", AV_CODEC_ID_MPEG4, "x264", true);
    row("x265", AV_CODEC_ID_MPEG4, "x265", true);

    row("libx264", AV_CODEC_ID_MPEG4, "libx264", true);
    row("libx264rgb", AV_CODEC_ID_MPEG4, "libx264rgb", true);
    row("libx265", AV_CODEC_ID_MPEG4, "libx265", true);
    row("libopenh264", AV_CODEC_ID_MPEG4, "libopenh264", true);
    row("h264_videotoolbox", AV_CODEC_ID_MPEG4, "h264_videotoolbox", true);
    row("hevc_vaapi", AV_CODEC_ID_MPEG4, "hevc_vaapi", true);

    row("capitals: H264", AV_CODEC_ID_MPEG4, "H264_NVENC", true);
    row("capitals: H265", AV_CODEC_ID_MPEG4, "MY_H265", true);
    row("capitals: HEVC", AV_CODEC_ID_MPEG4, "Hevc_Qsv", true);
    row("capitals: LIBX264", AV_CODEC_ID_MPEG4, "LIBX264", true);
    row("capitals: libX265", AV_CODEC_ID_MPEG4, "libX265", true);
    row("capitals: OpenH264", AV_CODEC_ID_MPEG4, "OpenH264", true);

    row("mpeg4", AV_CODEC_ID_MPEG4, "mpeg4", false);
    row("ffv1", AV_CODEC_ID_FFV1, "ffv1", false);
    row("h263 is another codec", AV_CODEC_ID_H263, "h263p", false);
    row("vvc is another codec", AV_CODEC_ID_VP9, "libvpx-vp9", false);
    row("x26 alone", AV_CODEC_ID_MPEG4, "x26", false);
    row("264 alone", AV_CODEC_ID_MPEG4, "my264", false);
    row("h 264 apart", AV_CODEC_ID_MPEG4, "h_264", false);
    row("no name", AV_CODEC_ID_MPEG4, "", false);
}

void EncoderChoiceTest::forbidden()
{
    QFETCH(const AVCodecID, id);
    QFETCH(const QString, name);
    QTEST(isForbidden(id, name), "refused");
}

void EncoderChoiceTest::pixelFormat_data()
{
    QTest::addColumn<Formats>("list");
    QTest::addColumn<int>("format");
    const auto row = [](const char* title, const Formats& list, AVPixelFormat format) {
        QTest::newRow(title) << list << int(format);
    };
    constexpr auto third = avcompat::thirdInputFormat;

    row("mpeg4's own list", {AV_PIX_FMT_YUV420P}, AV_PIX_FMT_YUV420P);
    row("the order is ours, not the list's",
        {AV_PIX_FMT_BGRA, AV_PIX_FMT_YUV444P, third, AV_PIX_FMT_NV12, AV_PIX_FMT_YUV420P}, AV_PIX_FMT_YUV420P);
    row("second candidate", {AV_PIX_FMT_BGRA, AV_PIX_FMT_YUV444P, third, AV_PIX_FMT_NV12}, AV_PIX_FMT_NV12);
    row("third candidate", {AV_PIX_FMT_BGRA, AV_PIX_FMT_YUV444P, third}, third);
    row("fourth candidate", {AV_PIX_FMT_BGRA, AV_PIX_FMT_YUV444P}, AV_PIX_FMT_YUV444P);
    row("fifth candidate", {AV_PIX_FMT_BGRA}, AV_PIX_FMT_BGRA);
    row("a candidate behind strangers", {AV_PIX_FMT_GRAY8, AV_PIX_FMT_RGB24, AV_PIX_FMT_BGRA}, AV_PIX_FMT_BGRA);
    row("hardware first, candidate second", {AV_PIX_FMT_VAAPI, AV_PIX_FMT_NV12}, AV_PIX_FMT_NV12);

    row("no candidate: the list's first", {AV_PIX_FMT_YUV422P, AV_PIX_FMT_GRAY8}, AV_PIX_FMT_YUV422P);
    row("no candidate: the first that is software",
        {AV_PIX_FMT_VAAPI, AV_PIX_FMT_CUDA, AV_PIX_FMT_GRAY8, AV_PIX_FMT_RGB24}, AV_PIX_FMT_GRAY8);
    row("a format that nobody knows is no software format", {noSuchFormat, AV_PIX_FMT_GRAY8}, AV_PIX_FMT_GRAY8);

    row("hardware only", {AV_PIX_FMT_VAAPI}, noFormat);
    row("several hardware formats only",
        {AV_PIX_FMT_VAAPI, AV_PIX_FMT_CUDA, AV_PIX_FMT_VIDEOTOOLBOX, AV_PIX_FMT_QSV, AV_PIX_FMT_DRM_PRIME}, noFormat);
    row("unknown only", {noSuchFormat}, noFormat);
    row("empty list", {}, noFormat);
}

void EncoderChoiceTest::pixelFormat()
{
    QFETCH(const Formats, list);
    QTEST(int(chosen(list)), "format");
}

/// Whatever the order of an encoder's list, and whatever it lacks.
void EncoderChoiceTest::candidatesInEveryOrder()
{
    const Formats order{
        AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, avcompat::thirdInputFormat, AV_PIX_FMT_YUV444P, AV_PIX_FMT_BGRA};
    for (std::size_t first = 0; first < order.size(); ++first) {
        std::vector<std::size_t> places;
        for (std::size_t i = first; i < order.size(); ++i)
            places.push_back(i);
        do {
            Formats list{AV_PIX_FMT_YUV410P, AV_PIX_FMT_VAAPI};
            for (const std::size_t place : places)
                list.push_back(order[place]);
            QCOMPARE(int(chosen(list)), int(order[first]));
        } while (std::next_permutation(places.begin(), places.end()));
    }
}

void EncoderChoiceTest::noListTakesTheFirstCandidate()
{
    const auto format = inputPixelFormat(std::nullopt);
    QVERIFY(format.has_value());
    QCOMPARE(int(*format), int(AV_PIX_FMT_YUV420P));
}

void EncoderChoiceTest::thirdCandidateIsP010()
{
    QCOMPARE(av_get_pix_fmt_name(avcompat::thirdInputFormat), "p010le");
}

void EncoderChoiceTest::bitRates_data()
{
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<qint64>("bitsPerSecond");
    const auto row = [](const char* title, int width, int height, qint64 bitsPerSecond) {
        QTest::newRow(title) << QSize(width, height) << bitsPerSecond;
    };

    constexpr int largest = std::numeric_limits<int>::max();
    row("smallest canvas", 16, 16, 6000000);
    row("1280x720", 1280, 720, 6000000);
    row("just below a megapixel", 1000, 998, 6000000);
    row("a megapixel", 1000, 1000, 6000000);
    row("just above a megapixel", 1000, 1002, 6012000);
    row("1920x1080", 1920, 1080, 12441600);
    row("1080x1920 upright", 1080, 1920, 12441600);
    row("just below the ceiling", 2000, 1498, 17976000);
    row("at the ceiling", 2000, 1500, 18000000);
    row("just above the ceiling", 2000, 1502, 18000000);
    row("2560x1440", 2560, 1440, 18000000);
    row("3840x2160", 3840, 2160, 18000000);
    row("beyond 32 bits", 65536, 65536, 18000000);
    row("six times it is beyond 32 bits", 30000, 20000, 18000000);
    row("the largest numbers there are", largest, largest, 18000000);
    row("as wide as can be", largest, 16, 18000000);
}

void EncoderChoiceTest::bitRates()
{
    QFETCH(const QSize, canvas);
    QTEST(bitRate(canvas), "bitsPerSecond");
}

void EncoderChoiceTest::bitRateNeverFallsWithTheSize()
{
    qint64 before = 0;
    for (int height = 16; height <= 4000; height += 2) {
        const qint64 now = bitRate(QSize(1600, height));
        QVERIFY2(now >= before, qPrintable(QString::number(height)));
        before = now;
    }
    QCOMPARE(before, 18000000);
}

void EncoderChoiceTest::threads_data()
{
    QTest::addColumn<int>("processors");
    QTest::addColumn<int>("threads");
    QTest::newRow("unknown") << 0 << 1;
    QTest::newRow("1") << 1 << 1;
    QTest::newRow("2") << 2 << 1;
    QTest::newRow("3") << 3 << 2;
    QTest::newRow("4") << 4 << 3;
    QTest::newRow("10") << 10 << 9;
    QTest::newRow("128") << 128 << 127;
}

void EncoderChoiceTest::threads()
{
    QFETCH(const int, processors);
    QTEST(threadCount(processors), "threads");
}

void EncoderChoiceTest::fixedParameters()
{
    QCOMPARE(codecTimeBase.num, 1);
    QCOMPARE(codecTimeBase.den, 1000);
    QCOMPARE(frameRate.num, 24);
    QCOMPARE(frameRate.den, 1);
    QCOMPARE(gopSize, 24);
}

ORVANTIS_TEST(EncoderChoiceTest)
#include "encoderchoice_test.moc"
