// What record-window finds in a recording's file, and what it complains about.
#include "inspection.h"
#include "judgement.h"

#include "clipwriter.h"
#include "privatetempdir.h"
#include "testregistry.h"

#include <QFile>
#include <QTest>

#include <vector>

class InspectionTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void soundRecordingHasNoComplaint();
    void gapsAreFound();
    void videoThatEndsEarly();
    void missingAudio();
    void shortAudio();
    void shorterThanAsked();
    void unreadableFiles_data();
    void unreadableFiles();
    void damagedFrames();
    void decodingIsLimited();

private:
    QString clip(const QList<qint64>& times, qint64 audioMs);

    PrivateTempDir directory_;
};

namespace {

constexpr qint64 noLimit = 1'000'000;

QList<qint64> everyFrame(qint64 fromMs, qint64 toMs)
{
    constexpr qint64 intervalMs = 41;
    QList<qint64> times;
    for (qint64 at = fromMs; at < toMs; at += intervalMs)
        times.append(at);
    return times;
}

Expectation expected(qint64 durationMs)
{
    Expectation expectation;
    expectation.durationMs = durationMs;
    return expectation;
}

}

/// audioMs: 0 for no audio.
QString InspectionTest::clip(const QList<qint64>& times, qint64 audioMs)
{
    constexpr qint64 samplesPerMs = 48;
    const QString path = directory_.filePath(QStringLiteral("clip.mp4"));
    QImage frame(64, 48, QImage::Format_RGB32);
    ClipOptions options;
    options.withAudio = audioMs > 0;
    ClipWriter writer(path, frame.size(), options);
    bool written = true;
    for (const qint64 at : times) {
        for (int y = 0; y < frame.height(); ++y) { // something to decode
            for (int x = 0; x < frame.width(); ++x)
                frame.setPixel(x, y, qRgb(int(at * x) & 255, int(at + y * 7) & 255, (x * y) & 255));
        }
        written = written && writer.add(frame, at);
    }
    if (audioMs > 0)
        written = written && writer.addAudio(std::vector<float>(std::size_t(audioMs * samplesPerMs)));
    written = written && writer.finish();
    return written ? path : QString();
}

void InspectionTest::soundRecordingHasNoComplaint()
{
    const Inspection found = inspectRecording(clip(everyFrame(0, 3000), 3000), noLimit);
    QCOMPARE(found.error, QString());
    QVERIFY(found.video && found.audio);
    QCOMPARE(found.video->frames, 74);
    QCOMPARE(found.video->decodedFrames, 74);
    QCOMPARE(found.video->size, QSize(64, 48));
    QCOMPARE(found.video->longestGapMs, 41);
    QVERIFY(std::abs(found.video->endMs - 3034) <= 1);
    QVERIFY(std::abs(found.audio->lengthMs - 3000) < 50);
    QCOMPARE(judge(found, expected(3000)), QStringList());
}

void InspectionTest::gapsAreFound()
{
    const Inspection found
        = inspectRecording(clip(everyFrame(0, 500) + everyFrame(2500, 3000) + everyFrame(4100, 4500), 4500), noLimit);
    QCOMPARE(found.video->gaps.size(), 2);
    QCOMPARE(judge(found, expected(4500)),
        QStringList({"the video holds no frame for 2.01 s from 0.49 s on; it stands still there",
            "the video holds no frame for 1.11 s from 2.99 s on; it stands still there"}));
}

void InspectionTest::videoThatEndsEarly()
{
    const Inspection found = inspectRecording(clip(everyFrame(0, 2280), 9280), noLimit);
    const QStringList complaints = judge(found, expected(9280));
    QCOMPARE(complaints.size(), 1);
    QVERIFY2(
        complaints[0].startsWith("the video ends after 2.3") && complaints[0].endsWith("the recording lasted 9.28 s"),
        qPrintable(complaints[0]));
}

void InspectionTest::missingAudio()
{
    const Inspection found = inspectRecording(clip(everyFrame(0, 1000), 0), noLimit);
    QVERIFY(!found.audio);
    QCOMPARE(judge(found, expected(1000)), QStringList("the file holds no audio"));
    Expectation none = expected(1000);
    none.withAudio = false;
    QCOMPARE(judge(found, none), QStringList());
}

void InspectionTest::shortAudio()
{
    const QStringList complaints = judge(inspectRecording(clip(everyFrame(0, 3000), 1000), noLimit), expected(3000));
    QCOMPARE(complaints.size(), 1);
    QVERIFY2(complaints[0].startsWith("the audio lasts 1.0"), qPrintable(complaints[0]));
}

void InspectionTest::shorterThanAsked()
{
    Expectation asked = expected(1000);
    asked.lengthMs = 10'000;
    QCOMPARE(judge(inspectRecording(clip(everyFrame(0, 1000), 1000), noLimit), asked),
        QStringList("the recording lasted 1.00 s, not the 10.00 s that were asked for"));
    asked.earlyEnd = QStringLiteral("the window has closed");
    QCOMPARE(judge(inspectRecording(clip(everyFrame(0, 1000), 1000), noLimit), asked),
        QStringList("the recording lasted 1.00 s, not the 10.00 s that were asked for: the window has closed"));
    asked.lengthMs = 900;
    QCOMPARE(judge(inspectRecording(clip(everyFrame(0, 1000), 1000), noLimit), asked), QStringList());
}

void InspectionTest::unreadableFiles_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("something else") << QByteArray(4096, 'x');
}

void InspectionTest::unreadableFiles()
{
    QFETCH(QByteArray, content);
    QFile file(directory_.filePath("bad.mp4"));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size() && file.flush());
    const QStringList complaints = judge(inspectRecording(file.fileName(), noLimit), expected(1000));
    QVERIFY2(
        complaints.value(0).startsWith("the file cannot be read to its end: "), qPrintable(complaints.join('|')));
    QVERIFY(complaints.contains("the file holds no video"));
}

void InspectionTest::damagedFrames()
{
    const QString path = clip(everyFrame(0, 3000), 0);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadWrite));
    // The inside of the last frames' data; the index behind it is small.
    constexpr qint64 length = 3000;
    QVERIFY(file.seek(file.size() - 6 * length) && file.write(QByteArray(length, '\xff')) == length);
    file.close();
    Expectation expectation = expected(3000);
    expectation.withAudio = false;
    const QStringList complaints = judge(inspectRecording(path, noLimit), expectation);
    QVERIFY2(complaints.join('|').contains("cannot be decoded"), qPrintable(complaints.join('|')));
}

void InspectionTest::decodingIsLimited()
{
    const Inspection found = inspectRecording(clip(everyFrame(0, 3000), 3000), -1);
    QCOMPARE(found.video->frames, 74);
    QCOMPARE(found.video->decodedFrames, 0);
    QCOMPARE(judge(found, expected(3000)), QStringList());
}

ORVANTIS_TEST(InspectionTest)
#include "inspection_test.moc"
