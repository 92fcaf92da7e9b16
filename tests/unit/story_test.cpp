// The recorder's log as a story: what is told, with which times, and what a log of somebody else can do.
#include "story.h"

#include "privatetempdir.h"
#include "testregistry.h"

#include <QFile>
#include <QTest>

namespace {

/// As a recorder wrote it, with other paths.
const QByteArray begin
    = "Debug: 0 /opt/orvantis-recorder (:0, )\n"
      "Debug: recorder process identity pid 8017 applicationFilePath \"/opt/orvantis-recorder\" applicationDirPath "
      "\"/opt\" bundleIdentifier \"\" bundlePath \"\" bundleExecutablePath \"\" (:0, )\n"
      "Debug: FFmpeg recorder starting command \"qt-window-capture\" window \"2097152\" output \"/home/a/clip.mp4\" "
      "canvas 640 480 screen origin 0 0 scale 1 (:0, )\n"
      "Debug: macOS screen recording preflight before request true (:0, )\n"
      "Debug: macOS CoreGraphics capture configured for window 2097152 (:0, )\n"
      "Debug: recorder version 1.2.3 Qt 6.4.2 (:0, )\n"
      "Debug: macOS ScreenCaptureKit audio capture configured requested device \"app-pid:7\" app-only true (:0, )\n"
      "Debug: FFmpeg recorder using audio encoder \"aac\" sample rate 48000 channels 2 sample format fltp (:0, )\n"
      "Debug: FFmpeg recorder using video encoder \"mpeg4\" output \"/home/a/clip.mp4\" container mp4 pixel format "
      "yuv420p bitrate 6000000 (:0, )\n"
      "Debug: sending frame come (:0, )\n"
      "Debug: Recorder ready; delaying first encoded frame 500 ms (:0, )\n";
const QByteArray click
    = "Debug: Recorder mouse click received global QPointF(200,-3.5) normalized QPointF(0,0) has normalized false "
      "timestamp 1795323190930 receive delay ms 1001 raw recording ms 1468 overlay delay ms 0 display recording ms "
      "1468 (:0, )\n";
const QByteArray end = "Debug: FFmpeg recorder finalized output \"/home/a/clip.mp4\" duration 5978 (:0, )\n"
                       "Debug: FFmpeg recorder stopped, duration 5978 (:0, )\n"
                       "Debug: recorder exiting 0 (:0, )\n";
constexpr const char* usualName = "20261122T045308.787085Z-orvantis-recorder-log.txt";

}

class StoryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void wholeRun();
    void orderOfTheReadinessDoesNotMatter();
    void readinessAtTheStopIsNoImage();
    void versionOfACutLogIsTold();
    void renamedLogCountsFromTheFirstFrame();
    void warningsAreExplained();
    void unknownWarningIsShown();
    void killedRecorder();
    void cutLog();
    void severalRuns();
    void permissionCheck();
    void nothingMovesTheCursor();
    void noLogs_data();
    void noLogs();
    void hostileLogsStayShort_data();
    void hostileLogsStayShort();

private:
    Story tell(const QByteArray& log, const char* name = usualName)
    {
        QFile file(directory_.filePath(QLatin1String(name)));
        if (!file.open(QIODevice::WriteOnly) || file.write(log) != log.size() || !file.flush())
            return {QString(), QStringLiteral("not written")};
        return tellStory(file.fileName());
    }

    PrivateTempDir directory_;
};

/// The click was at 04:53:10.930, 1.468 s after the first frame; the recorder's start is in the name.
void StoryTest::wholeRun()
{
    const Story story = tell(begin + click + end);
    QCOMPARE(story.error, QString());
    QCOMPARE(story.text,
        QStringLiteral("Log of 2026-11-22 04:53:08.787 UTC\n"
                       "Seconds since the recorder started, where the log tells:\n"
                       "     0.000  the recorder starts as process 8017, version 1.2.3, Qt 6.4.2\n"
                       "            it is to record window 2097152 on a canvas of 640x480 into /home/a/clip.mp4\n"
                       "            permission to capture windows: held\n"
                       "            window 2097152 is captured\n"
                       "            audio of one application, app-pid:7\n"
                       "            audio encoder aac, 48000 Hz, 2 channels\n"
                       "            video encoder mpeg4, 6000000 bit/s, into /home/a/clip.mp4\n"
                       "     0.175  ready: the window has given images, and the launcher is told\n"
                       "     0.675  the first frame is due 0.500 s after that\n"
                       "     2.143  click at 200, -3.5, reported 1.001 s late\n"
                       "            the file is finished: /home/a/clip.mp4\n"
                       "     6.653  stopped; the recording lasts 5.978 s\n"
                       "            the recorder ends with exit code 0\n"
                       "            no warnings\n"));
}

/// Two threads write the two lines.
void StoryTest::orderOfTheReadinessDoesNotMatter()
{
    const QByteArray told = "Debug: sending frame come (:0, )\n";
    const QByteArray due = "Debug: Recorder ready; delaying first encoded frame 500 ms (:0, )\n";
    QVERIFY(begin.endsWith(told + due));
    const QByteArray before = begin.left(begin.size() - told.size() - due.size());
    QCOMPARE(tell(before + due + told + click + end).text, tell(begin + click + end).text);
    // Nothing is said of the launcher that the log does not say.
    QVERIFY2(tell(before + due).text.contains("    -0.500  ready: the window has given images\n"),
        qPrintable(tell(before + due).text));
}

/// The byte is sent in any case, so that a launcher has one order to read.
void StoryTest::readinessAtTheStopIsNoImage()
{
    const QByteArray told = "Debug: sending frame come (:0, )\n";
    const QByteArray stopped = "Debug: FFmpeg recorder stopped, duration 41 (:0, )\n";
    const QByteArray before = begin.left(begin.indexOf(told));
    const QString text = tell(before + stopped + told).text;
    QVERIFY2(!text.contains("the window has given images"), qPrintable(text));
    QVERIFY2(text.contains("although the window gave no image"), qPrintable(text));
}

void StoryTest::versionOfACutLogIsTold()
{
    const QString text = tell(begin.mid(begin.indexOf("Debug: recorder version")) + end).text;
    QVERIFY2(text.contains("            the recorder has version 1.2.3, Qt 6.4.2\n"), qPrintable(text));
}

void StoryTest::renamedLogCountsFromTheFirstFrame()
{
    const QString text = tell(begin + click + end, "log.txt").text;
    QVERIFY2(text.startsWith("Seconds since the first frame, where the log tells:\n            the recorder starts"),
        qPrintable(text));
    for (const char* line :
        {"    -0.500  ready: ", "     0.000  the first frame ", "     1.468  click ", "     5.978  stopped"})
        QVERIFY2(text.contains(QLatin1String(line)), line);
    // A clock that was set in between tells nothing either.
    QVERIFY(tell(begin + click + end, "20200101T000000.000Z-orvantis-recorder-log.txt")
                .text.contains("     1.468  click"));
}

void StoryTest::warningsAreExplained()
{
    QByteArray log = begin;
    for (int i = 0; i < 12; ++i)
        log += "Critical: Unable to write FFmpeg packet: No space left on device (media/x.cpp:1, int f())\n";
    log += "Critical: Unable to write flushed FFmpeg packet: No space left on device (media/x.cpp:1, int f())\n";
    log += "Warning: Skipping video encoder with no software input format: \"x\" (:0, )\n";
    const QString text = tell(log + end).text;
    QVERIFY2(text.contains("            critical: Unable to write FFmpeg packet: No space left on device (13 times)\n"
                           "                -> parts of the recording cannot be written; make room on the disk."),
        qPrintable(text));
    QVERIFY(text.contains("warning: Skipping video encoder with no software input format: \"x\"\n"
                          "                -> nothing to do; what it leads to is told by other lines\n"));
    QVERIFY(!text.contains("no warnings"));
}

void StoryTest::unknownWarningIsShown()
{
    const QString text = tell(begin + "Warning: something new (a:1, b)\n" + end).text;
    QVERIFY2(text.contains("warning: something new\n                -> a text that this version does not know\n"),
        qPrintable(text));
}

void StoryTest::killedRecorder()
{
    QVERIFY(tell(begin).text.endsWith(
        "the log ends here: the recorder was killed, still runs, or the rest was cut off\n"));
}

void StoryTest::cutLog()
{
    const QByteArray log = begin + click + end;
    for (qsizetype length = begin.size() / 4; length < log.size(); length += 97) {
        const Story story = tell(log.left(length));
        QCOMPARE(story.error, QString());
        const bool isWhole = log[length - 1] == '\n';
        QVERIFY2(
            isWhole || story.text.endsWith("the log is cut off in the middle of a line\n"), qPrintable(story.text));
    }
    QVERIFY(tell(log.mid(begin.size() - 300)).text.contains("stopped; the recording lasts 5.978 s"));
}

void StoryTest::severalRuns()
{
    const QByteArray run = begin + click + end;
    const QString text = tell(run + run + begin).text;
    QVERIFY2(text.startsWith("The file holds the logs of 3 runs.\n"), qPrintable(text));
    QCOMPARE(text.count("stopped; the recording lasts 5.978 s"), 2);
    QVERIFY(text.contains("\n\nRun 2\nSeconds since the first frame"));
}

void StoryTest::permissionCheck()
{
    const QString text
        = tell("Debug: recorder process identity pid 5 applicationFilePath \"/x\" (:0, )\n"
               "Debug: macOS screen recording preflight before request false (:0, )\n"
               "Debug: macOS screen recording request result false preflight after request false (:0, )\n"
               "Debug: recorder permission preflight completed screenCaptureAllowed false (:0, )\n"
               "Debug: recorder exiting 2 (:0, )\n")
              .text;
    for (const char* part :
        {"permission to capture windows: not held\n", "the permission is requested: not held now\n",
            "it was only to check the permission to capture windows: not held\n", "exit code 2\n"})
        QVERIFY2(text.contains(QLatin1String(part)), qPrintable(text));
}

/// Every text of a log is somebody's: of the window, of the file system, or forged.
void StoryTest::nothingMovesTheCursor()
{
    const QByteArray bad = "\033[2J\r\b\x9b"
                           "31m\xe2\x80\xae";
    const QByteArray log = "Debug: recorder process identity pid " + bad + " x (:0, )\n"
        + "Debug: FFmpeg recorder starting command \"q\" window \"" + bad + "\" output \"" + bad + "\" canvas 6 "
        + bad + " x (:0, )\nWarning: " + bad + " (a:1, b)\nDebug: recorder exiting " + bad + "\n";
    const QString text = tell(log).text;
    QVERIFY(text.contains("process "));
    for (const QChar character : text) {
        QVERIFY(character == QLatin1Char('\n')
            || (character.category() != QChar::Other_Control && character.category() != QChar::Other_Format));
    }
}

void StoryTest::noLogs_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("words");
    QTest::newRow("empty") << QByteArray() << QStringLiteral("is empty");
    QTest::newRow("another text") << QByteArray("hello\nWarning: something of another program\n")
                                  << QStringLiteral("is no log of the recorder");
    QTest::newRow("zeros") << QByteArray(300'000, '\0') << QStringLiteral("is no log of the recorder");
}

void StoryTest::noLogs()
{
    QFETCH(const QByteArray, content);
    QFETCH(const QString, words);
    const Story story = tell(content);
    QCOMPARE(story.text, QString());
    QVERIFY2(story.error.endsWith(words), qPrintable(story.error));
    QVERIFY(tellStory(directory_.filePath("missing")).error.startsWith("there is no file "));
    QVERIFY(tellStory(directory_.path()).error.endsWith("is no file"));
}

void StoryTest::hostileLogsStayShort_data()
{
    QTest::addColumn<QByteArray>("line"); // # is replaced by a number
    QTest::newRow("clicks") << click;
    QTest::newRow("unknown warnings") << QByteArray("Warning: number # (a:1, b)\n");
    QTest::newRow("files") << QByteArray("Debug: FFmpeg recorder finalized output \"/#\" duration 5 (:0, )\n");
    QTest::newRow("runs") << begin;
    QTest::newRow("long lines") << "Warning: #" + QByteArray(20'000, 'x') + '\n';
}

void StoryTest::hostileLogsStayShort()
{
    QFETCH(const QByteArray, line);
    QByteArray log = begin;
    for (int i = 0; log.size() < 4'000'000; ++i)
        log += QByteArray(line).replace('#', QByteArray::number(i));
    const Story story = tell(log);
    QCOMPARE(story.error, QString());
    QVERIFY2(story.text.size() < 200'000, qPrintable(QString::number(story.text.size())));
    QVERIFY(story.text.contains(" more "));
}

ORVANTIS_TEST(StoryTest)
#include "story_test.moc"
