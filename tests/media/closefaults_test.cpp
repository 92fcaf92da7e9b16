// Every way in which closing fails, and what it finds half done: the log line, and that everything is released, once.
#include "ffmpegfaults.h"
#include "idlerecorder.h"
#include "mediafile.h"
#include "mp4boxes.h"
#include "testregistry.h"

#include <QTest>

using namespace ffmpegfaults;

namespace {

const auto interruptedLine = QStringLiteral("Recorder worker was interrupted by an exception: std::bad_alloc");

/// A short recording that waits for its end.
bool recordUpToTheEnd(IdleRecorder& recorder)
{
    return recorder->openOutput() && recorder.encode(IdleRecorder::steadyTimes(3)) && recorder->drainEncoder();
}

}

class CloseFaultsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { reset(); }
    void cleanup() { reset(); }

    void preparedFrameIsForgotten_data();
    void preparedFrameIsForgotten();

    void trailerFails();
    void trailerFailsInTheDestructor();
    void trailerFailsAndItsLineFindsNoMemory();
    void fileThatDoesNotClose_data();
    void fileThatDoesNotClose();
    void fileDoesNotCloseAndItsLineFindsNoMemory();
    void muxerThatKeepsBytesToItself();
};

void CloseFaultsTest::preparedFrameIsForgotten_data()
{
    QTest::addColumn<bool>("opensAgain");
    QTest::newRow("a frame comes after the end") << false;
    QTest::newRow("a frame comes to the next output") << true;
}

void CloseFaultsTest::preparedFrameIsForgotten()
{
    QFETCH(const bool, opensAgain);
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder->prepareFrame(testimages::walking(recorder.canvas(), 0), 7));
    recorder->closeOutput();
    QVERIFY(recorder.isClosed());
    QVERIFY(!opensAgain || recorder->openOutput());
    QList<qint64> ticks;
    surroundings().atWritePacket = [&](const AVPacket& packet) { ticks.append(packet.pts); };
    QCOMPARE(recorder.encode({41}, 1), opensAgain);
    QCOMPARE(calls(Call::SendFrame), opensAgain ? 1 : 0);
    QCOMPARE(ticks, opensAgain ? QList<qint64>{41 * 16} : QList<qint64>());
    QVERIFY(recorder.wasQuiet());
}

void CloseFaultsTest::trailerFails()
{
    IdleRecorder recorder;
    const qsizetype descriptors = openDescriptors();
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode(IdleRecorder::steadyTimes(30)));
    failOnce(Call::WriteTrailer, AVERROR(ENOSPC));
    QVERIFY(recorder.finish());
    QCOMPARE(recorder.warnings(),
        QStringList{QStringLiteral("Unable to write FFmpeg output trailer: \"No space left on device\"")});
    QVERIFY(recorder.criticals().isEmpty());
    QVERIFY(recorder.isClosed());
    QCOMPARE(openDescriptors(), descriptors);

    recorder.log().clear();
    recorder->closeOutput();
    QCOMPARE(recorder.log().messages(), QStringList());
    QCOMPARE(calls(Call::WriteTrailer), 1);

    // No trailer was written, and every frame plays without it.
    QVERIFY(!mp4boxes::types(mp4boxes::parseFile(recorder->outputPath())).contains("mfra"));
    QCOMPARE(MediaFile(recorder->outputPath()).frames().size(), 30);
}

void CloseFaultsTest::trailerFailsInTheDestructor()
{
    IdleRecorder recorder;
    QVERIFY(recorder->openOutput());
    QVERIFY(recorder.encode({0}));
    failOnce(Call::WriteTrailer, AVERROR(EIO));
    recorder.destroy();
    QCOMPARE(recorder.warnings(),
        QStringList{QStringLiteral("Unable to write FFmpeg output trailer: \"Input/output error\"")});
}

/// A muxer that has failed is torn down: asked once more, it would end the process.
void CloseFaultsTest::trailerFailsAndItsLineFindsNoMemory()
{
    IdleRecorder recorder;
    const qsizetype descriptors = openDescriptors();
    QVERIFY(recordUpToTheEnd(recorder));
    failOnce(Call::WriteTrailer, AVERROR(ENOSPC));
    surroundings().noMemoryForErrorText = true;
    for (int times = 0; times < 2; ++times)
        QVERIFY_THROWS_NO_EXCEPTION(recorder->closeOutput());
    QCOMPARE(calls(Call::WriteTrailer), 1);
    QVERIFY(recorder.isClosed());
    QCOMPARE(openDescriptors(), descriptors);
    QCOMPARE(recorder.criticals(), QStringList{interruptedLine});
    QCOMPARE(recorder.warnings(), QStringList{QStringLiteral("Unable to write FFmpeg output trailer:")});
}

void CloseFaultsTest::fileThatDoesNotClose_data()
{
    QTest::addColumn<bool>("trailerFails");
    QTest::addColumn<QString>("warning");
    QTest::newRow("alone") << false
                           << QStringLiteral("Output file was closed with an error; what was written last may be "
                                             "missing: \"Disk quota exceeded\"");
    QTest::newRow("after a trailer that failed")
        << true << QStringLiteral("Unable to write FFmpeg output trailer: \"Disk quota exceeded\"");
}

/// What the system tells only then is told, too, unless something is told already.
void CloseFaultsTest::fileThatDoesNotClose()
{
    QFETCH(const bool, trailerFails);
    QFETCH(const QString, warning);
    IdleRecorder recorder;
    const qsizetype descriptors = openDescriptors();
    QVERIFY(recordUpToTheEnd(recorder));
    if (trailerFails)
        failOnce(Call::WriteTrailer, AVERROR(EDQUOT));
    failOnce(Call::CloseFile, AVERROR(EDQUOT));
    recorder->closeOutput();
    QCOMPARE(recorder.warnings(), QStringList{warning});
    QVERIFY(recorder.criticals().isEmpty());
    QVERIFY(recorder.isClosed());
    QCOMPARE(openDescriptors(), descriptors);
}

/// Nor is a number closed twice, which may be another file's by then.
void CloseFaultsTest::fileDoesNotCloseAndItsLineFindsNoMemory()
{
    IdleRecorder recorder;
    const qsizetype descriptors = openDescriptors();
    QVERIFY(recordUpToTheEnd(recorder));
    failOnce(Call::CloseFile, AVERROR(EDQUOT));
    surroundings().noMemoryForErrorText = true;
    const int before = calls(Call::CloseFile);
    for (int times = 0; times < 2; ++times)
        QVERIFY_THROWS_NO_EXCEPTION(recorder->closeOutput());
    QCOMPARE(calls(Call::CloseFile), before + 1);
    QVERIFY(recorder.isClosed());
    QCOMPARE(openDescriptors(), descriptors);
    QCOMPARE(recorder.criticals(), QStringList{interruptedLine});
    QCOMPARE(recorder.warnings(),
        QStringList{QStringLiteral("Output file was closed with an error; what was written last may be missing:")});
}

/// The stand-in writes a line for each packet, and none of its bytes.
void CloseFaultsTest::muxerThatKeepsBytesToItself()
{
    surroundings().muxer = "framecrc";
    IdleRecorder recorder;
    QVERIFY(recorder.record(IdleRecorder::steadyTimes(10)));
    QCOMPARE(recorder.criticals().size(), 1);
    QVERIFY(recorder.criticals().first().startsWith(
        QStringLiteral("FFmpeg output is smaller than its packets; bytes: ")));
    QVERIFY(recorder.warnings().isEmpty());
    QVERIFY(recorder.isClosed());
}

ORVANTIS_TEST(CloseFaultsTest)
#include "closefaults_test.moc"
