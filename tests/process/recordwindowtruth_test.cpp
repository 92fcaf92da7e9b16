// record-window tells a recording that is as asked from one that is not, and from none: by the recorder's log, by the
// file, and by what lies in the file's place.
#include "recordwindowprocess.h"
#include "testregistry.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>

#include <csignal>

class RecordWindowTruthTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void harmIsToldAtOnceAndInTheEnd_data();
    void harmIsToldAtOnceAndInTheEnd();
    void unwantedAudioIsNotMissed();
    void hintsChangeNoExitCode();
    void cutFileIsNoSuccess();
    void recordingThatIsImpossibleEndsAtOnce_data();
    void recordingThatIsImpossibleEndsAtOnce();
    void firstImageHasALimit();
    void twoIntoOneFile();
    void nothingIsOverwrittenUnasked();
    void nameKeepsItsDots();
    void otherSuffixIsExplained();
    void ignoredInterruptIsObeyed();
    void countdownComesFirst();
    void interruptedCountdownRecordsNothing();
};

namespace {

const QStringList brief{"--window", "77", "--seconds", "0.1", "--output", "clip.mp4"};

QStringList warnings(RecordWindowProcess& launcher)
{
    const QJsonObject result = QJsonDocument::fromJson(launcher.standardOutput()).object();
    return result.value(QLatin1String("warnings")).toVariant().toStringList();
}

bool write(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

}

void RecordWindowTruthTest::harmIsToldAtOnceAndInTheEnd_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<QByteArray>("sentence");
    QTest::newRow("full disk") << QByteArray("Critical: Unable to write FFmpeg packet: No space left (f:1, g)\n"
                                             "Critical: Unable to write FFmpeg packet: No space left (f:1, g)\n")
                               << QByteArray("parts of the recording cannot be written; make room on the disk");
    QTest::newRow("no audio server") << QByteArray(
        "Warning: macOS ScreenCaptureKit shareable content lookup failed: \"host is down\" (f:1, g)\n"
        "Warning: Audio capture did not start; recording video only. (f:1, g)\n"
        "Warning: Continuing video recording without audio. (f:1, g)\n")
                                     << QByteArray("there is no audio: the audio server cannot be reached");
    QTest::newRow("unknown") << QByteArray("Critical: new \033[2J trouble (f:1, g)\n")
                             << QByteArray("the recorder's log says: new ?[2J trouble");
}

void RecordWindowTruthTest::harmIsToldAtOnceAndInTheEnd()
{
    QFETCH(QByteArray, log);
    QFETCH(QByteArray, sentence);
    RecordWindowProcess launcher;
    launcher.setEnvironment("FAKE_RECORDER_LOG", log);
    launcher.start({"--window", "77", "--json"});
    QVERIFY2(launcher.waitForRecording(), launcher.standardError());
    QTRY_VERIFY2_WITH_TIMEOUT(launcher.standardError().contains(sentence), launcher.standardError(), 60'000);
    launcher.interrupt(SIGINT);
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 8);
    QCOMPARE(launcher.standardError().count(sentence), 1);
    const QStringList told = warnings(launcher);
    QCOMPARE(told.size(), 1);
    QVERIFY2(told[0].startsWith(QString::fromUtf8(sentence)), qPrintable(told[0]));
}

void RecordWindowTruthTest::unwantedAudioIsNotMissed()
{
    RecordWindowProcess launcher;
    launcher.setEnvironment("FAKE_RECORDER_LOG",
        "Warning: macOS app-only audio capture received an invalid app-pid device: \"app-pid:none\" (f:1, g)\n"
        "Warning: Audio capture did not start; recording video only. (f:1, g)\n"
        "Warning: Continuing video recording without audio. (f:1, g)\n");
    QCOMPARE(launcher.run(brief + QStringList{"--audio", "none"}), 0);
    QCOMPARE(launcher.recorderArguments()[9], QByteArray("app-pid:none"));
    QVERIFY2(!launcher.standardError().contains("audio"), launcher.standardError());
}

void RecordWindowTruthTest::hintsChangeNoExitCode()
{
    RecordWindowProcess launcher;
    launcher.setEnvironment("FAKE_RECORDER_LOG",
        "Warning: macOS CoreGraphics capture returned no image for window 77 (f:1, g)\n"
        "Debug: Unable to write FFmpeg packet: as if (f:1, g)\n");
    QCOMPARE(launcher.run(brief), 0);
    QVERIFY2(launcher.standardError().contains("the window gives no image at the moment"), launcher.standardError());
    QVERIFY(!launcher.standardError().contains("disk"));
}

void RecordWindowTruthTest::cutFileIsNoSuccess()
{
    RecordWindowProcess whole;
    QCOMPARE(whole.run(brief), 0);
    const QByteArray recording = contents(whole.path("clip.mp4"));
    QVERIFY(recording.size() > 2000);
    RecordWindowProcess launcher;
    QVERIFY(write(launcher.path("cut"), recording.left(900)));
    launcher.setEnvironment("FAKE_RECORDER_FILE", launcher.path("cut").toUtf8());
    QCOMPARE(launcher.run(brief + QStringList{"--json"}), 8);
    QVERIFY(!warnings(launcher).isEmpty());
    for (const QString& sentence : warnings(launcher))
        QVERIFY2(
            launcher.standardError().contains("record-window: " + sentence.toUtf8() + '\n'), qPrintable(sentence));
}

void RecordWindowTruthTest::recordingThatIsImpossibleEndsAtOnce_data()
{
    QTest::addColumn<QByteArray>("log");
    QTest::addColumn<QByteArray>("sentence");
    QTest::newRow("output") << QByteArray("Critical: Unable to open video output file \"/x\" : no (f:1, g)\n")
                            << QByteArray("nothing was recorded: the output file cannot be written");
    QTest::newRow("canvas") << QByteArray(
        "Warning: Unable to open video encoder \"mpeg4\" : x (f:1, g)\n"
        "Critical: Unable to open FFmpeg FFV1 fallback encoder: Invalid argument (f:1, g)\n")
                            << QByteArray("nothing was recorded: FFmpeg has no encoder that takes this video; choose "
                                          "a smaller --canvas");
}

/// Without the log it would take the whole of --ready-timeout.
void RecordWindowTruthTest::recordingThatIsImpossibleEndsAtOnce()
{
    QFETCH(QByteArray, log);
    QFETCH(QByteArray, sentence);
    RecordWindowProcess launcher("notready");
    launcher.setEnvironment("FAKE_RECORDER_LOG", log);
    QCOMPARE(launcher.run(brief + QStringList{"--ready-timeout", "1000"}), 4);
    QVERIFY2(launcher.standardError().contains(sentence), launcher.standardError());
    QCOMPARE(launcher.leftFiles(), QStringList{"20260101T000000.000Z-orvantis-recorder-log.txt"});
}

void RecordWindowTruthTest::firstImageHasALimit()
{
    RecordWindowProcess launcher("noimage");
    QCOMPARE(launcher.run(brief), 5);
    QVERIFY2(launcher.standardError().contains("gave no image in time"), launcher.standardError());
    QVERIFY(!QFileInfo::exists(launcher.path("clip.mp4")));
}

void RecordWindowTruthTest::twoIntoOneFile()
{
    RecordWindowProcess first;
    first.start({"--window", "77", "--output", "clip"});
    QVERIFY2(first.waitForRecording(), first.standardError());
    for (const QStringList& more : {QStringList(), QStringList{"--force"}}) {
        RecordWindowProcess second;
        QCOMPARE(second.run(brief.mid(0, 4) + QStringList{"--output", first.path("clip.mp4")} + more), 2);
        QVERIFY2(second.standardError().contains("another record-window is recording into"), second.standardError());
        QCOMPARE(second.note("process"), QByteArray());
    }
    first.interrupt(SIGINT);
    QVERIFY(first.waitForEnd());
    QCOMPARE(first.process().exitCode(), 0);
}

void RecordWindowTruthTest::nothingIsOverwrittenUnasked()
{
    RecordWindowProcess launcher;
    QVERIFY(write(launcher.path("clip.mp4"), "precious"));
    QCOMPARE(launcher.run(brief), 2);
    QVERIFY2(launcher.standardError().contains("clip.mp4 is there already; --force overwrites it"),
        launcher.standardError());
    QCOMPARE(contents(launcher.path("clip.mp4")), QByteArray("precious"));
    QCOMPARE(launcher.note("process"), QByteArray());
    QCOMPARE(launcher.run(brief + QStringList{"--force"}), 0);
    QVERIFY(contents(launcher.path("clip.mp4")).size() > 1000);
}

void RecordWindowTruthTest::nameKeepsItsDots()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run({"--window", "77", "--seconds", "0.1", "--output", "2026.11.21-demo"}), 0);
    QVERIFY(QFileInfo(launcher.path("2026.11.21-demo.mp4")).isFile());
    QVERIFY2(launcher.recorderArguments()[2].endsWith("/2026.11.21-demo.mp4"), launcher.recorderArguments()[2]);
    RecordWindowProcess unnamed;
    QCOMPARE(unnamed.run({"--window", "77", "--seconds", "0.1"}), 0);
    const QStringList names = unnamed.leftFiles().filter(".mp4");
    QCOMPARE(names.size(), 1);
    QVERIFY2(QRegularExpression("^recording-\\d{4}-\\d\\d-\\d\\d-\\d{6}\\.mp4$").match(names[0]).hasMatch(),
        qPrintable(names[0]));
}

void RecordWindowTruthTest::otherSuffixIsExplained()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run({"--window", "77", "--seconds", "0.1", "--output", "clip.mkv"}), 0);
    QVERIFY2(launcher.standardError().contains("the recording goes to clip.mp4"), launcher.standardError());
    QVERIFY(QFileInfo(launcher.path("clip.mp4")).isFile());
}

/// As a job in the background of a script has it.
void RecordWindowTruthTest::ignoredInterruptIsObeyed()
{
    RecordWindowProcess launcher;
    launcher.process().setChildProcessModifier([] { std::signal(SIGINT, SIG_IGN); });
    launcher.start({"--window", "77"});
    QVERIFY2(launcher.waitForRecording(), launcher.standardError());
    const QByteArray hint = "kill -INT " + QByteArray::number(launcher.process().processId()) + " ends it";
    QVERIFY2(launcher.standardError().contains(hint), launcher.standardError());
    launcher.interrupt(SIGINT);
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 0);
}

void RecordWindowTruthTest::countdownComesFirst()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief + QStringList{"--countdown", "2"}), 0);
    const QByteArray progress = launcher.standardError();
    QVERIFY2(progress.contains("recording in 2 s\nrecording in 1 s\n"), progress);
    QVERIFY(progress.indexOf("recording in 1 s") < progress.indexOf("\nrecording\n"));
}

void RecordWindowTruthTest::interruptedCountdownRecordsNothing()
{
    RecordWindowProcess launcher;
    launcher.start(brief + QStringList{"--countdown", "1000"});
    QTRY_VERIFY_WITH_TIMEOUT(launcher.standardError().contains("recording in 1000 s"), 60'000);
    launcher.interrupt(SIGINT);
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 130);
    QCOMPARE(launcher.note("process"), QByteArray());
    QCOMPARE(launcher.leftFiles(), QStringList());
}

ORVANTIS_TEST(RecordWindowTruthTest)
#include "recordwindowtruth_test.moc"
