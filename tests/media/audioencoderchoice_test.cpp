// Which audio encoder is looked for, and what it is asked for.
#include "audioencoderchoice.h"
#include "testregistry.h"

#include <QStringList>
#include <QTest>

#include <algorithm>
#include <initializer_list>
#include <vector>

namespace {

using Rates = std::optional<std::vector<int>>;
using Formats = std::optional<std::vector<AVSampleFormat>>;

Rates rates(std::initializer_list<int> items)
{
    return std::vector(items);
}

Formats formats(std::initializer_list<AVSampleFormat> items)
{
    return std::vector(items);
}

/// As FFmpeg would give it.
template <typename Item>
std::optional<std::span<const Item>> asList(const std::optional<std::vector<Item>>& items)
{
    return items ? std::optional(std::span<const Item>(*items)) : std::nullopt;
}

}

Q_DECLARE_METATYPE(Rates)
Q_DECLARE_METATYPE(Formats)
Q_DECLARE_METATYPE(AVSampleFormat)

class AudioEncoderChoiceTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void candidates_data();
    void candidates();
    void sampleRate_data();
    void sampleRate();
    void sampleFormat_data();
    void sampleFormat();
    void preferenceHoldsInEveryOrder();
    void channels_data();
    void channels();
    void bitRates_data();
    void bitRates();
    void onlyOpusHasAnOption();
    void frameSizes_data();
    void frameSizes();
};

void AudioEncoderChoiceTest::candidates_data()
{
    const QStringList mp4{QStringLiteral("aac"), QStringLiteral("libmp3lame"), QStringLiteral("mp3")};
    const QStringList others = mp4 + QStringList{QStringLiteral("libopus")};
    QTest::addColumn<QString>("container");
    QTest::addColumn<QStringList>("names");
    QTest::newRow("MP4") << QStringLiteral("mp4") << mp4;
    QTest::newRow("capitals") << QStringLiteral("MP4") << mp4;
    QTest::newRow("one name of several") << QStringLiteral("mov,Mp4,m4a") << mp4;
    QTest::newRow("Matroska") << QStringLiteral("matroska") << others;
    QTest::newRow("nearly MP4") << QStringLiteral("mp3,m4a,mov") << others;
    QTest::newRow("no name") << QString() << others;
}

void AudioEncoderChoiceTest::candidates()
{
    QFETCH(const QString, container);
    QStringList names;
    for (const char* name : audioencoderchoice::candidates(container))
        names.append(QString::fromLatin1(name));
    QTEST(names, "names");
}

void AudioEncoderChoiceTest::sampleRate_data()
{
    const auto aac = QStringLiteral("aac");
    const auto opus = QStringLiteral("libopus");
    QTest::addColumn<QString>("encoder");
    QTest::addColumn<int>("captureRate");
    QTest::addColumn<Rates>("listed");
    QTest::addColumn<int>("rate");
    QTest::newRow("no list") << aac << 48000 << Rates() << 48000;
    QTest::newRow("no list, another capture") << aac << 44100 << Rates() << 44100;
    QTest::newRow("empty list") << aac << 48000 << rates({}) << 48000;
    QTest::newRow("listed") << aac << 48000 << rates({96000, 48000, 8000}) << 48000;
    QTest::newRow("another capture, listed") << aac << 44100 << rates({48000, 44100}) << 44100;
    QTest::newRow("another capture, not listed") << aac << 22050 << rates({44100, 48000}) << 48000;
    QTest::newRow("48000 not listed") << aac << 48000 << rates({32000, 44100, 8000}) << 32000;
    QTest::newRow("neither listed") << aac << 11025 << rates({44100, 22050}) << 44100;
    QTest::newRow("Opus") << opus << 48000 << rates({48000, 24000}) << 48000;
    QTest::newRow("Opus, another capture") << opus << 24000 << rates({48000, 24000}) << 48000;
    QTest::newRow("Opus, no list, another capture") << opus << 44100 << Rates() << 48000;
    QTest::newRow("Opus without 48000") << opus << 48000 << rates({16000, 24000}) << 16000;
}

void AudioEncoderChoiceTest::sampleRate()
{
    QFETCH(const QString, encoder);
    QFETCH(const int, captureRate);
    QFETCH(const Rates, listed);
    QTEST(audioencoderchoice::sampleRate(encoder, captureRate, asList(listed)), "rate");
}

void AudioEncoderChoiceTest::sampleFormat_data()
{
    QTest::addColumn<Formats>("listed");
    QTest::addColumn<AVSampleFormat>("format");
    QTest::newRow("no list") << Formats() << AV_SAMPLE_FMT_FLTP;
    QTest::newRow("empty list") << formats({}) << AV_SAMPLE_FMT_FLTP;
    QTest::newRow("planar float last") << formats({AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_FLTP}) << AV_SAMPLE_FMT_FLTP;
    QTest::newRow("16-bit before float") << formats({AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_S16}) << AV_SAMPLE_FMT_S16;
    QTest::newRow("float before planar 16-bit")
        << formats({AV_SAMPLE_FMT_S16P, AV_SAMPLE_FMT_FLT}) << AV_SAMPLE_FMT_FLT;
    QTest::newRow("planar 16-bit only") << formats({AV_SAMPLE_FMT_S16P}) << AV_SAMPLE_FMT_S16P;
    QTest::newRow("planar 16-bit before 32-bit")
        << formats({AV_SAMPLE_FMT_S32P, AV_SAMPLE_FMT_S16P}) << AV_SAMPLE_FMT_S16P;
    QTest::newRow("32-bit only") << formats({AV_SAMPLE_FMT_S32}) << AV_SAMPLE_FMT_S32;
    QTest::newRow("none of the preferred: the first")
        << formats({AV_SAMPLE_FMT_DBL, AV_SAMPLE_FMT_S32, AV_SAMPLE_FMT_U8}) << AV_SAMPLE_FMT_DBL;
}

void AudioEncoderChoiceTest::sampleFormat()
{
    QFETCH(const Formats, listed);
    QTEST(audioencoderchoice::sampleFormat(asList(listed)), "format");
}

void AudioEncoderChoiceTest::preferenceHoldsInEveryOrder()
{
    const std::vector preferred{AV_SAMPLE_FMT_FLTP, AV_SAMPLE_FMT_S16, AV_SAMPLE_FMT_FLT, AV_SAMPLE_FMT_S16P};
    int orders = 0;
    for (std::size_t first = 0; first < preferred.size(); ++first) {
        std::vector<AVSampleFormat> list(preferred.begin() + std::ptrdiff_t(first), preferred.end());
        list.push_back(AV_SAMPLE_FMT_U8);
        std::sort(list.begin(), list.end());
        do {
            QCOMPARE(audioencoderchoice::sampleFormat(asList(Formats(list))), preferred[first]);
            ++orders;
        } while (std::next_permutation(list.begin(), list.end()));
    }
    QCOMPARE(orders, 120 + 24 + 6 + 2);
}

void AudioEncoderChoiceTest::channels_data()
{
    QTest::addColumn<int>("capture");
    QTest::addColumn<int>("output");
    QTest::newRow("none") << 0 << 1;
    QTest::newRow("mono") << 1 << 1;
    QTest::newRow("stereo") << 2 << 2;
    QTest::newRow("5.1") << 6 << 2;
}

void AudioEncoderChoiceTest::channels()
{
    QFETCH(const int, capture);
    QTEST(audioencoderchoice::channelCount(capture), "output");
}

void AudioEncoderChoiceTest::bitRates_data()
{
    QTest::addColumn<qint64>("bitRate");
    QTest::newRow("aac") << qint64(128000);
    QTest::newRow("libmp3lame") << qint64(128000);
    QTest::newRow("mp3") << qint64(128000);
    QTest::newRow("opus") << qint64(128000); // another encoder
    QTest::newRow("libopus") << qint64(96000);
}

void AudioEncoderChoiceTest::bitRates()
{
    QTEST(audioencoderchoice::bitRate(QString::fromLatin1(QTest::currentDataTag())), "bitRate");
}

void AudioEncoderChoiceTest::onlyOpusHasAnOption()
{
    for (const char* name : {"aac", "libmp3lame", "mp3", "opus", ""})
        QVERIFY(audioencoderchoice::options(QString::fromLatin1(name)).empty());
    const auto options = audioencoderchoice::options(QStringLiteral("libopus"));
    QCOMPARE(options.size(), std::size_t(1));
    QCOMPARE(options[0].key, "application");
    QCOMPARE(options[0].value, "audio");
}

void AudioEncoderChoiceTest::frameSizes_data()
{
    QTest::addColumn<int>("encoder");
    QTest::addColumn<int>("used");
    QTest::newRow("any size, stated as 0") << 0 << 1024;
    QTest::newRow("nonsense") << -1 << 1024;
    QTest::newRow("one") << 1 << 1;
    QTest::newRow("of Opus") << 960 << 960;
    QTest::newRow("of FLAC") << 4608 << 4608;
}

void AudioEncoderChoiceTest::frameSizes()
{
    QFETCH(const int, encoder);
    const AvCodecContextHandle context(avcodec_alloc_context3(nullptr));
    QVERIFY(context);
    context->frame_size = encoder;
    QTEST(audioencoderchoice::frameSize(*context), "used");
}

ORVANTIS_TEST(AudioEncoderChoiceTest)
#include "audioencoderchoice_test.moc"
