// Every call of FFmpeg in short recordings with audio is made to fail, the first, the second, ... the last one of it.
#include "ffmpegfaults.h"
#include "mediafile.h"
#include "recorderwithaudio.h"
#include "testregistry.h"

#include <QFile>
#include <QTest>

#include <algorithm>
#include <set>
#include <vector>

using namespace ffmpegfaults;

namespace {

constexpr int frames = 4;
constexpr int recordedMs = frames * 41;
constexpr int chunk = 41 * 48; // samples a frame
const auto fallbackLine
    = QStringLiteral("Recording with FFV1 fallback because no preferred video encoder was opened.");

/// What is recorded, and how often it makes each call.
struct Kind {
    const char* name;
    QSize canvas;
    bool isFallback; ///< FFV1 in Matroska
    bool isHurried; ///< each frame is converted on two threads
    bool losesBytes; ///< the disk takes nothing for a while
    std::vector<Call> failing; ///< the calls that are made to fail; empty: all
    std::vector<int> calls{};

    bool fails(Call call) const
    {
        if (!failing.empty())
            return std::find(failing.begin(), failing.end(), call) != failing.end();
        return !isFallback || call < Call::AllocResampler; // what is for audio alone is the same code
    }
};

std::vector<Kind>& kinds()
{
    static std::vector<Kind> instance{
        {"MPEG-4", {48, 32}, false, false, false, {}},
        {"fallback", {48, 32}, true, false, false, {}},
        {"two bands", {48, 128}, false, true, false,
            {Call::AllocFrame, Call::GetFrameBuffer, Call::GetConverter, Call::Convert}},
        {"disk full for a while", {48, 32}, false, false, true, {Call::SetOption}},
        {"fallback, disk full for a while", {48, 32}, true, false, true, {Call::SetOption}},
    };
    return instance;
}

/// The first piece of every text that the log may have.
QStringList listedTexts()
{
    QStringList texts;
    for (const char* const name : {"/required_texts.txt", "/extra_texts.txt"}) {
        QFile file(QStringLiteral(LOG_TEXTS) + QLatin1String(name));
        if (!file.open(QIODevice::ReadOnly))
            qFatal("No list of log texts");
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (line.contains('|'))
                texts.append(QString::fromUtf8(line.split('|').at(1)));
        }
    }
    return texts;
}

/// FFmpeg as it is, and around it what such a recording takes.
void prepare(const Kind& kind)
{
    reset();
    if (kind.isFallback)
        surroundings().hiddenEncoders = {"mpeg4"};
    if (kind.isHurried)
        surroundings().processors = 2;
    if (kind.losesBytes)
        failOnce(Call::FlushFile, AVERROR(ENOSPC), 3); // of the second packet; the first flush is the header's
}

/// A short recording whose failures are left as they are.
void record(RecorderWithAudio& recorder, const Kind& kind)
{
    recorder.giveAudio();
    recorder->isBehind() = kind.isHurried;
    if (recorder->openOutput()) {
        if (recorder->audioCodecContext() && recorder->audioCapture())
            recorder.startAudio();
        for (int i = 0; i < frames; ++i) {
            if (recorder->audioStarted())
                recorder.turn((i + 1) * 41, testaudio::noise(i * chunk, chunk));
            recorder.encode({i * 41}, i);
        }
    }
    recorder.finishAudio();
}

bool isMatroska(const QString& path)
{
    return path.endsWith(QLatin1String(".mkv"));
}

/// A Matroska file is opened by nobody before it has its first cluster.
bool hasContent(const QString& path)
{
    QFile file(path);
    return !isMatroska(path) || (file.open(QIODevice::ReadOnly) && file.readAll().contains("\x1f\x43\xb6\x75"));
}

/// How long the audio is that can be decoded; 0 when there is none.
double audioMsOf(MediaFile& file)
{
    const auto audio = file.audio();
    return audio ? audio->durationMs() : 0.0;
}

/// With the calls of a recording in which nothing more fails.
const Kind& counted(std::size_t index)
{
    Kind& kind = kinds()[index];
    if (!kind.calls.empty())
        return kind;
    prepare(kind);
    RecorderWithAudio recorder(QStringLiteral("clip.mp4"), kind.canvas);
    record(recorder, kind);
    for (int call = 0; call <= int(Call::Last); ++call)
        kind.calls.push_back(calls(Call(call)));
    reset();
    return kind;
}

/// What fails without a line, as all that it costs comes with the next call.
bool mayBeSilent(Call call)
{
    return call == Call::AllocPacket || call == Call::AllocFrame;
}

}

class FailureSweepTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }
    void cleanup() { reset(); }

    void recordingWithoutAFailure_data();
    void recordingWithoutAFailure();
    void anyCallFails_data();
    void anyCallFails();
    void anyCallFailsFromThenOn_data() { anyCallFails_data(); }
    void anyCallFailsFromThenOn();

private:
    void failAt(const Kind& kind, Call call, int nth, bool fromThenOn);
    void verifyEnd(RecorderWithAudio& recorder, Call call);
    static void verifyFile(const QString& path, bool mayLackSomething, const QStringList& lines);

    const QStringList texts_ = listedTexts();
};

void FailureSweepTest::recordingWithoutAFailure_data()
{
    QTest::addColumn<std::size_t>("index");
    for (std::size_t index = 0; index < kinds().size(); ++index)
        QTest::newRow(kinds()[index].name) << index;
}

/// The others can only be believed when it is whole, and when it makes the calls.
void FailureSweepTest::recordingWithoutAFailure()
{
    QFETCH(const std::size_t, index);
    const Kind& kind = kinds()[index];
    prepare(kind);
    RecorderWithAudio recorder(QStringLiteral("clip.mp4"), kind.canvas);
    record(recorder, kind);
    QStringList expected;
    if (kind.isFallback)
        expected << fallbackLine;
    if (kind.losesBytes)
        expected << QStringLiteral("Unable to write FFmpeg audio packet: \"No space left on device\"");
    QCOMPARE(recorder.warnings() + recorder.criticals(), expected);
    QCOMPARE(calls(Call::Convert), kind.isFallback ? 0 : frames * (kind.isHurried ? 2 : 1));
    QCOMPARE(calls(Call::SetOption), kind.losesBytes ? 2 : 0);

    MediaFile file(recorder->outputPath());
    QCOMPARE(file.containerName().contains(QStringLiteral("matroska")), kind.isFallback);
    QCOMPARE(file.frames().size(), frames);
    QCOMPARE(file.streams().size(), 2);
    QVERIFY(audioMsOf(file) >= recordedMs);
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
}

/// Those that the recording makes.
void FailureSweepTest::anyCallFails_data()
{
    QTest::addColumn<std::size_t>("index");
    QTest::addColumn<int>("call");
    for (std::size_t index = 0; index < kinds().size(); ++index) {
        const Kind& kind = counted(index);
        for (int call = 0; call <= int(Call::Last); ++call) {
            if (kind.fails(Call(call)) && kind.calls[std::size_t(call)] > 0)
                QTest::addRow("%s, call %d", kind.name, call) << index << call;
        }
    }
}

void FailureSweepTest::verifyEnd(RecorderWithAudio& recorder, Call call)
{
    const QStringList lines = recorder.warnings() + recorder.criticals();
    for (const QString& line : lines) {
        const bool isListed
            = std::any_of(texts_.begin(), texts_.end(), [&](const QString& text) { return line.startsWith(text); });
        QVERIFY2(isListed, qPrintable(line));
    }
    QVERIFY(recorder.isClosed());
    QCOMPARE(fakeplatform::audio().liveStreams, 0);
    const bool canBeOpened = calls(Call::WriteTrailer) > 0 && hasContent(recorder->outputPath());
    heal(call); // the reader makes the same calls
    const bool says
        = std::any_of(lines.begin(), lines.end(), [](const QString& line) { return line != fallbackLine; });
    const bool isKeyFrameLost = call == Call::WritePacket && isMatroska(recorder->outputPath());
    QVERIFY(says || (canBeOpened && !isKeyFrameLost));
    if (canBeOpened && isKeyFrameLost) // FFV1 cannot go on before the next one
        QVERIFY(!MediaFile(recorder->outputPath()).packets().isEmpty());
    else if (canBeOpened)
        verifyFile(recorder->outputPath(), says || mayBeSilent(call), lines);
}

/// Everything that is in it can be decoded.
void FailureSweepTest::verifyFile(const QString& path, bool mayLackSomething, const QStringList& lines)
{
    MediaFile file(path);
    const qsizetype decoded = file.frames().size();
    const double audioMs = audioMsOf(file);
    const QByteArray told = (file.errorString() + QLatin1Char(' ') + lines.join(QLatin1Char('\n'))).toLocal8Bit();
    QVERIFY2(file.isValid(), told.constData());
    QVERIFY2(decoded <= frames, told.constData());
    QVERIFY2(decoded == frames || mayLackSomething, "frames are missing, and no line says so");
    QVERIFY2(audioMs >= recordedMs || mayLackSomething, "audio is missing, and no line says so");
}

void FailureSweepTest::failAt(const Kind& kind, Call call, int nth, bool fromThenOn)
{
    prepare(kind);
    RecorderWithAudio recorder(QStringLiteral("clip.mp4"), kind.canvas);
    const qsizetype descriptors = openDescriptors();
    if (fromThenOn)
        failFrom(call, AVERROR(ENOMEM), nth);
    else
        failOnce(call, AVERROR(ENOMEM), nth);
    record(recorder, kind);
    QVERIFY(calls(call) >= nth);
    QCOMPARE(openDescriptors(), descriptors);
    verifyEnd(recorder, call);
    if (QTest::currentTestFailed())
        QFAIL(qPrintable(QStringLiteral("the failure was number %1").arg(nth)));
}

void FailureSweepTest::anyCallFails()
{
    QFETCH(const std::size_t, index);
    QFETCH(const int, call);
    const Kind& kind = counted(index);
    for (int nth = 1; nth <= kind.calls[std::size_t(call)]; ++nth)
        failAt(kind, Call(call), nth, false);
}

/// From the first one, one in the middle and the last one.
void FailureSweepTest::anyCallFailsFromThenOn()
{
    QFETCH(const std::size_t, index);
    QFETCH(const int, call);
    const Kind& kind = counted(index);
    const int count = kind.calls[std::size_t(call)];
    for (const int nth : std::set<int>{1, (count + 1) / 2, count})
        failAt(kind, Call(call), nth, true);
}

ORVANTIS_TEST(FailureSweepTest)
#include "failuresweep_test.moc"
