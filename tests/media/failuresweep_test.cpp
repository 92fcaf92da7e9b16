// Every call of FFmpeg in a short recording with audio is made to fail, the first, the second, ... the last one of
// it.
#include "ffmpegfaults.h"
#include "mediafile.h"
#include "recorderwithaudio.h"
#include "testregistry.h"

#include <QFile>
#include <QTest>

#include <algorithm>
#include <set>

using namespace ffmpegfaults;

namespace {

constexpr int frames = 4;
constexpr int chunk = 41 * 48; // samples a frame
const QSize canvas(48, 32);

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

/// A short recording whose failures are left as they are.
void record(RecorderWithAudio& recorder)
{
    recorder.giveAudio();
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

/// How often each call is made when none fails.
const std::vector<int>& callsOfARecording()
{
    static std::vector<int> counts;
    if (!counts.empty())
        return counts;
    reset();
    RecorderWithAudio recorder(QStringLiteral("clip.mp4"), canvas);
    record(recorder);
    for (int call = 0; call <= int(Call::Last); ++call)
        counts.push_back(calls(Call(call)));
    reset();
    return counts;
}

/// What fails without a line, as all that it costs comes with the next call.
bool mayBeSilent(Call call)
{
    return call == Call::AllocPacket || call == Call::AllocFrame || call == Call::FlushFile;
}

}

class FailureSweepTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }
    void cleanup() { reset(); }

    void recordingWithoutAFailure();
    void anyCallFails_data();
    void anyCallFails();
    void anyCallFailsFromThenOn_data() { anyCallFails_data(); }
    void anyCallFailsFromThenOn();

private:
    void failAt(Call call, int nth, bool fromThenOn);
    void verifyEnd(RecorderWithAudio& recorder, Call call);

    const QStringList texts_ = listedTexts();
};

void FailureSweepTest::recordingWithoutAFailure()
{
    RecorderWithAudio recorder(QStringLiteral("clip.mp4"), canvas);
    record(recorder);
    QVERIFY(recorder.wasQuiet());
    QCOMPARE(MediaFile(recorder->outputPath()).frames().size(), frames);
    QCOMPARE(MediaFile(recorder->outputPath()).streams().size(), 2);
}

/// Those that the recording makes.
void FailureSweepTest::anyCallFails_data()
{
    QTest::addColumn<int>("call");
    for (int call = 0; call <= int(Call::Last); ++call) {
        if (callsOfARecording()[std::size_t(call)] > 0)
            QTest::addRow("call %d", call) << call;
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
    const bool hasHeader = calls(Call::WriteTrailer) > 0;
    heal(call); // the reader makes the same calls
    if (!hasHeader) {
        QVERIFY(!lines.isEmpty()); // there is no header
        return;
    }
    MediaFile file(recorder->outputPath());
    const qsizetype decoded = file.frames().size();
    QVERIFY2(file.isValid(), qPrintable(file.errorString() + QLatin1Char(' ') + lines.join(QLatin1Char('\n'))));
    QVERIFY(decoded <= frames);
    QVERIFY2(decoded == frames || !lines.isEmpty() || mayBeSilent(call), "frames are missing, and no line says so");
}

void FailureSweepTest::failAt(Call call, int nth, bool fromThenOn)
{
    reset();
    RecorderWithAudio recorder(QStringLiteral("clip.mp4"), canvas);
    const qsizetype descriptors = openDescriptors();
    if (fromThenOn)
        failFrom(call, AVERROR(ENOMEM), nth);
    else
        failOnce(call, AVERROR(ENOMEM), nth);
    record(recorder);
    QVERIFY(calls(call) >= nth);
    QCOMPARE(openDescriptors(), descriptors);
    verifyEnd(recorder, call);
    if (QTest::currentTestFailed())
        QFAIL(qPrintable(QStringLiteral("the failure was number %1").arg(nth)));
}

void FailureSweepTest::anyCallFails()
{
    QFETCH(const int, call);
    for (int nth = 1; nth <= callsOfARecording()[std::size_t(call)]; ++nth)
        failAt(Call(call), nth, false);
}

/// From the first one, one in the middle and the last one.
void FailureSweepTest::anyCallFailsFromThenOn()
{
    QFETCH(const int, call);
    const int count = callsOfARecording()[std::size_t(call)];
    for (const int nth : std::set<int>{1, (count + 1) / 2, count})
        failAt(Call(call), nth, true);
}

ORVANTIS_TEST(FailureSweepTest)
#include "failuresweep_test.moc"
