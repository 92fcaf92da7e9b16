// Recordings with audio, decoded again: every encoder, other rates, and files that did not come to their end.
#include "audioanalysis.h"
#include "ffmpegfaults.h"
#include "filesizelimit.h"
#include "mediafile.h"
#include "mp4boxes.h"
#include "recorderwithaudio.h"
#include "testregistry.h"

#include <QFile>
#include <QTest>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <optional>

using namespace ffmpegfaults;

namespace {

constexpr double leftHz = 441.7; // no fault hides in it, see audioanalysis.h
constexpr double rightHz = 997.0;
constexpr double amplitude = 0.5;

qint16 sine(qint64 sample, double frequency)
{
    const double angle = 2 * std::numbers::pi * frequency * double(sample) / testaudio::rate;
    return qint16(std::lround(amplitude * 32767 * std::sin(angle)));
}

/// Another tone on each side.
std::vector<qint16> tones(qint64 first, qint64 count)
{
    std::vector<qint16> samples;
    for (qint64 i = first; i < first + count; ++i) {
        samples.push_back(sine(i, leftHz));
        samples.push_back(sine(i, rightHz));
    }
    return samples;
}

/// Frames, and tones that arrive every 20 ms.
bool recordTones(RecorderWithAudio& recorder, qint64 lengthMs)
{
    for (qint64 at = 0; at < lengthMs; at += 20) {
        if (at % 40 == 0 && !recorder.encode({at}, int(at / 40)))
            return false;
        if (!recorder.turn(at + 20, tones(at * 48, 960)))
            return false;
    }
    return true;
}

/// Empty when each side has its tone without a fault.
QString judgeTones(const MediaAudio& audio, double fromMs, double toMs)
{
    const auto part = [&](int channel) {
        return audioanalysis::between(
            audio.channels[channel], audio.sampleRate, fromMs - audio.startMs, toMs - audio.startMs);
    };
    QStringList found;
    const auto expectLevel = [&](int channel, double frequency, double low, double high) {
        const double level = audioanalysis::levelDb(part(channel), audio.sampleRate, frequency);
        if (level < low || level > high)
            found.append(QStringLiteral("channel %1: %2 dB at %3 Hz").arg(channel).arg(level).arg(frequency));
    };
    expectLevel(0, leftHz, -7, -5.5);
    expectLevel(0, rightHz, -300, -45);
    expectLevel(1, rightHz, -7, -5.5);
    expectLevel(1, leftHz, -300, -45);
    const auto faults = audioanalysis::toneFaults(part(0), audio.sampleRate, leftHz);
    if (!faults.empty())
        found.append(audioanalysis::describe(faults));
    return found.join(QStringLiteral(", "));
}

bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Notes where in the file FFmpeg has something written. One at a time.
class WriteWatch {
public:
    WriteWatch(AVIOContext& file, QList<qint64>& places)
    {
        watched() = {file.write_packet, file.seek, &places};
        file.write_packet = &note;
    }

private:
    using Write = decltype(AVIOContext::write_packet);
    struct Watched {
        Write write = nullptr;
        decltype(AVIOContext::seek) seek = nullptr;
        QList<qint64>* places = nullptr;
    };
    static Watched& watched()
    {
        static Watched instance;
        return instance;
    }
    /// What the bytes are is constant from FFmpeg 7 on.
    template <typename Byte>
    static int note(void* file, Byte* bytes, int size)
    {
        watched().places->append(watched().seek(file, 0, SEEK_CUR));
        return watched().write(file, bytes, size);
    }
};

/// Where the last whole packet of this kind ends.
double wholePacketsEndMs(MediaFile& file, AVMediaType type)
{
    double end = 0;
    for (const MediaPacket& packet : file.packets()) {
        if (file.streams()[packet.stream].type == type && !packet.corrupt)
            end = std::max(end, packet.ptsMs + packet.durationMs);
    }
    return end;
}

}

class AudioFileTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }
    void cleanup() { reset(); }

    void tonesComeBack_data();
    void tonesComeBack();
    void silenceIsSilence();
    void audioReachesTheDiskWhileNoFrameComes();
    void audioEndsWithTheClock();
    void audioThatComesAfterTheLastTurnIsLeftOut();
    void unfinishedFilePlaysWithAudio();
    void cutFilePlaysWithAudio();
    void everyFragmentBeginsAWrite_data();
    void everyFragmentBeginsAWrite();
    void fullDiskCostsNoFragmentThatWasWritten();
    void fullVolumeIsNotDistorted();
};

void AudioFileTest::tonesComeBack_data()
{
    QTest::addColumn<QByteArray>("encoder");
    QTest::addColumn<bool>("matroska");
    QTest::addColumn<int>("rate");
    const auto row = [](const char* name, const char* encoder, bool matroska, int rate = 48000) {
        QTest::newRow(name) << QByteArray(encoder) << matroska << rate;
    };
    row("aac in MP4", "aac", false);
    row("mp3 in MP4", "libmp3lame", false);
    row("aac in Matroska", "aac", true);
    row("mp3 in Matroska", "libmp3lame", true);
    row("Opus in Matroska", "libopus", true);
    row("interleaved 16-bit in MP4", "mp2", false);
    row("planar 16-bit in MP4", "alac", false);
    row("planar 32-bit in Matroska", "ac3_fixed", true);
    row("32-bit in Matroska", "pcm_s32le", true);
    row("8000 Hz in Matroska", "libspeex", true, 8000);
}

void AudioFileTest::tonesComeBack()
{
    QFETCH(const QByteArray, encoder);
    QFETCH(const bool, matroska);
    QFETCH(const int, rate);
    QVERIFY(RecorderWithAudio::useEncoder(encoder.constData()));
    if (matroska)
        surroundings().hiddenEncoders = {"mpeg4"};
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recordTones(recorder, 4000));
    QVERIFY(recorder.finishAudio());
    QVERIFY(recorder.criticals().isEmpty());
    QVERIFY(recorder.isClosed());

    MediaFile file(recorder->outputPath());
    const auto audio = file.audio();
    QVERIFY2(file.isValid() && audio, qPrintable(file.errorString()));
    QCOMPARE(file.frames().size(), 100);
    QCOMPARE(audio->sampleRate, rate);
    QCOMPARE(audio->channels.size(), 2);
    QVERIFY(audio->durationMs() >= 4000);
    QVERIFY(audio->durationMs() < 4000 + 150);
    QVERIFY(audio->worstJoinMs < 1.0);
    if (rate == testaudio::rate)
        QCOMPARE(judgeTones(*audio, 200, 3900), QString());
    else // speech coding: the tone is there
        QVERIFY(
            audioanalysis::levelDb(audioanalysis::between(audio->channels[0], rate, 500, 3500), rate, leftHz) > -20);
}

/// A hidden window: the container holds audio back for frames, but not for ever.
void AudioFileTest::audioReachesTheDiskWhileNoFrameComes()
{
    constexpr qint64 shownMs = 1000;
    constexpr qint64 lengthMs = 9000;
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recordTones(recorder, shownMs));
    for (qint64 at = shownMs; at < lengthMs; at += 20)
        QVERIFY(recorder.turn(at + 20, tones(at * 48, 960)));
    const QString copy = recorder.filePath(QStringLiteral("copy.mp4"));
    QVERIFY(writeFile(copy, contentOf(recorder->outputPath()))); // what a killed process would leave
    MediaFile file(copy);
    constexpr double heldBackMs = 5000 + 1500; // and the fragment that is not complete
    const double endMs = wholePacketsEndMs(file, AVMEDIA_TYPE_AUDIO);
    QVERIFY2(endMs >= lengthMs - heldBackMs, qPrintable(QString::number(endMs)));
    QVERIFY(recorder.finishAudio());
    QVERIFY(recorder.wasQuiet());
    MediaFile whole(recorder->outputPath());
    const auto audio = whole.audio();
    QVERIFY(audio);
    QCOMPARE(judgeTones(*audio, 100, lengthMs - 100), QString());
}

void AudioFileTest::silenceIsSilence()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    for (qint64 at = 0; at < 3000; at += 40) {
        QVERIFY(recorder.encode({at}, int(at / 40)));
        QVERIFY(recorder.turn(at + 40, testaudio::constant(40 * 48, 0)));
    }
    QVERIFY(recorder.finishAudio());
    const auto audio = MediaFile(recorder->outputPath()).audio();
    QVERIFY(audio);
    QVERIFY(audio->durationMs() >= 3000);
    for (const std::vector<float>& channel : audio->channels)
        QVERIFY(audioanalysis::peakDb(channel) < -120);
}

/// Up to the end of the last frame, and no further.
void AudioFileTest::audioEndsWithTheClock()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recordTones(recorder, 1000));
    QCOMPARE(recorder.present(), 48000);
    QVERIFY(recorder.finishAudio());
    const auto audio = MediaFile(recorder->outputPath()).audio();
    QVERIFY(audio);
    QCOMPARE(audio->channels[0].size(), std::size_t(1024 + 47 * 1024)); // priming, 46.9 frames of audio
    const auto rest = audioanalysis::Samples(audio->channels[0]).subspan(1024 + 48000 + 16);
    QVERIFY(audioanalysis::rmsDb(rest) < -30);
}

void AudioFileTest::audioThatComesAfterTheLastTurnIsLeftOut()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recorder.turn(1000, tones(0, 48000)));
    QVERIFY(fakeplatform::deliverStereo(tones(48000, 48000)));
    QVERIFY(recorder.finishAudio());
    QVERIFY(MediaFile(recorder->outputPath()).audio()->durationMs() < 1100);
}

/// What is on disk while the recording runs: at least all but the last second and a half, in step.
void AudioFileTest::unfinishedFilePlaysWithAudio()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recordTones(recorder, 10000));
    const QString copy = recorder.filePath(QStringLiteral("copy.mp4"));
    QVERIFY(writeFile(copy, contentOf(recorder->outputPath())));
    MediaFile file(copy);
    const auto audio = file.audio();
    QVERIFY2(audio, qPrintable(file.errorString()));
    QVERIFY(audio->durationMs() > 8500);
    QCOMPARE(judgeTones(*audio, 200, 8400), QString());
    QVERIFY(file.frames().constLast().ptsMs > 8500);
    QVERIFY(recorder.finishAudio());
}

/// Cut within a fragment, both streams reach to its beginning; cut after one, to its end.
void AudioFileTest::cutFilePlaysWithAudio()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QVERIFY(recordTones(recorder, 10000));
    QVERIFY(recorder.finishAudio());
    const QByteArray whole = contentOf(recorder->outputPath());
    const QString copy = recorder.filePath(QStringLiteral("cut.mp4"));
    int fragments = 0;
    for (const Mp4Box& box : mp4boxes::parse(whole)) {
        if (box.type != "mdat")
            continue;
        const double wholeMs = 960.0 * fragments; // 24 frames a fragment
        QVERIFY(writeFile(copy, whole.left(box.offset + (box.end() - box.offset) / 2)));
        MediaFile half(copy);
        QVERIFY(half.videoStream() && half.audioStream());
        QVERIFY(wholePacketsEndMs(half, AVMEDIA_TYPE_VIDEO) >= wholeMs);
        QVERIFY(wholePacketsEndMs(half, AVMEDIA_TYPE_AUDIO) >= wholeMs);

        ++fragments;
        QVERIFY(writeFile(copy, whole.left(box.end())));
        MediaFile file(copy);
        const auto audio = file.audio();
        QVERIFY2(audio, qPrintable(file.errorString()));
        QVERIFY(audio->durationMs() >= std::min(960.0 * fragments, 10000.0));
        QCOMPARE(judgeTones(*audio, 200, audio->durationMs() - 50), QString());
    }
    QCOMPARE(fragments, 11);
}

void AudioFileTest::everyFragmentBeginsAWrite_data()
{
    QTest::addColumn<int>("frames"); // that wait in memory for audio
    QTest::addColumn<bool>("comes");
    QTest::newRow("no audio before the end") << 5 * 24 << false;
    QTest::newRow("audio that comes late") << 9 * 24 << true;
}

/// Also when many frames are written at once. Only then its list gets its head last, and no killed process leaves one
/// that is torn.
void AudioFileTest::everyFragmentBeginsAWrite()
{
    QFETCH(const int, frames);
    QFETCH(const bool, comes);
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    QList<qint64> places;
    const WriteWatch watch(*recorder->formatContext()->pb, places);
    for (int i = 0; i < frames; ++i)
        QVERIFY(recorder->encodeImage(testimages::noise(recorder.canvas(), quint32(i)), i * 41));
    QVERIFY(!comes || recorder.turn(frames * 41, tones(0, 4800)));
    QVERIFY(recorder.finishAudio());
    QVERIFY(recorder.wasQuiet());
    const QList<Mp4Box> boxes = mp4boxes::parseFile(recorder->outputPath());
    int fragments = 0;
    for (const Mp4Box& box : boxes) {
        if (box.type != "moof")
            continue;
        ++fragments;
        QVERIFY2(places.contains(box.offset), qPrintable(QStringLiteral("fragment %1").arg(fragments)));
    }
    QVERIFY(fragments >= frames / 24);
}

/// Frames waited for audio, and the disk gets full while they are written at once.
void AudioFileTest::fullDiskCostsNoFragmentThatWasWritten()
{
    const auto fragments = [](RecorderWithAudio& recorder) {
        QList<Mp4Box> boxes = mp4boxes::parseFile(recorder->outputPath());
        boxes.removeIf([](const Mp4Box& box) { return box.type != "moof"; });
        return boxes;
    };
    const auto record = [](RecorderWithAudio& recorder, const QList<Mp4Box>& whole) {
        if (!recorder.openAndStart())
            return false;
        for (int i = 0; i < 5 * 24; ++i) {
            if (!recorder->encodeImage(testimages::noise(recorder.canvas(), quint32(i)), i * 41))
                return false;
        }
        std::optional<FileSizeLimit> limit;
        if (!whole.isEmpty())
            limit.emplace(rlim_t(whole[60].offset + 1000));
        return recorder.finishAudio();
    };
    RecorderWithAudio unlimited;
    QVERIFY(record(unlimited, {}));
    const QList<Mp4Box> whole = fragments(unlimited);
    QVERIFY(whole.size() > 100); // noise: each image is a key frame, with a fragment of its own

    RecorderWithAudio recorder;
    QVERIFY(record(recorder, whole));
    QCOMPARE(recorder.criticals(), QStringList());
    QCOMPARE(fragments(recorder).size(), 60);
    QCOMPARE(MediaFile(recorder->outputPath()).frames().size(), 60);
}

/// A square wave of full scale overshoots in the encoder, which takes it back a little; it does not wrap around.
void AudioFileTest::fullVolumeIsNotDistorted()
{
    RecorderWithAudio recorder;
    QVERIFY(recorder.openAndStart());
    for (qint64 at = 0; at < 2000; at += 40) {
        const auto square = testaudio::frames(
            at * 48, 40 * 48, [](qint64 i) { return i / 60 % 2 ? qint16(-32768) : qint16(32767); }); // 400 Hz
        QVERIFY(recorder.turn(at + 40, square));
    }
    QVERIFY(recorder.finishAudio());
    const auto audio = MediaFile(recorder->outputPath()).audio();
    QVERIFY(audio);
    const auto part = audioanalysis::between(audio->channels[0], 48000, 200, 1900);
    const double fundamentalDb = 20 * std::log10(4 / std::numbers::pi);
    QVERIFY(std::abs(audioanalysis::levelDb(part, 48000, 400) - fundamentalDb) < 1.0);
    QVERIFY(std::abs(audioanalysis::rmsDb(part)) < 1.0);
}

ORVANTIS_TEST(AudioFileTest)
#include "audiofile_test.moc"
