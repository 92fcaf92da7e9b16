// record-window when all goes well: what it tells the recorder, what it tells people and scripts.
#include "recordwindowprocess.h"
#include "testregistry.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include <array>
#include <csignal>
#include <cstdlib>
#include <pty.h>
#include <unistd.h>

using Lines = QList<RecordWindowProcess::Line>;

class RecordWindowTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void recorderGetsTheTenArguments();
    void argumentsKeepEveryByte();
    void valueThatLooksLikeAnOptionOfQt();
    void recorderIsToldToStopAndToLeave();
    void recorderRunsInAGroupOfItsOwn();
    void recordersEnvironment();
    void closedDescriptorsAreFilled();
    void controlSocketIsPrivateAndGoes();
    void longTemporaryDirectoryIsNoObstacle();
    void missingDirectoriesAreMade();
    void resultNamesTheFile();
    void logIsKeptOnlyWhenItIsAskedFor();
    void logOfWhatWentWrongIsKeptAndNamedLast();
    void resultNamesTheFallbackFile();
    void jsonIsOneLine();
    void jsonOfAFailureSaysWhy();
    void quietSaysNothing();
    void verboseShowsTheRecordersStandardError();
    void orderedClicksCarryTheirTime();
    void clicksAfterTheEndAreMissed();
    void progressIsPlainWithoutATerminal();
    void progressIsOneLineOnATerminal_data();
    void progressIsOneLineOnATerminal();
};

namespace {

const QStringList brief{"--window", "77", "--seconds", "0.1", "--output", "recording.mp4"};

QByteArray value(const QByteArray& text, const QByteArray& label)
{
    for (const QByteArray& line : text.split('\n')) {
        if (line.startsWith(label + ' '))
            return line.mid(label.size()).trimmed();
    }
    return QByteArray();
}

QByteArray sizeOf(const QString& path)
{
    return QLocale::c().formattedDataSize(QFileInfo(path).size(), 1, QLocale::DataSizeSIFormat).toUtf8();
}

}

void RecordWindowTest::recorderGetsTheTenArguments()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief), 0);
    const QByteArray directory = QFileInfo(launcher.path(QString())).canonicalFilePath().toUtf8();
    const QByteArrayList expected{
        directory, "qt-window-capture", directory + "/recording.mp4", "77", "0", "0", "1280", "720", "1.0", ""};
    QCOMPARE(launcher.recorderArguments(), expected);
}

void RecordWindowTest::argumentsKeepEveryByte()
{
    RecordWindowProcess launcher;
    const int code = launcher.run({"--window", "0xFFFFFFFF", "--seconds", "0.1", "--output",
        "my clips/Größe 世界 \"x\" 🎬.mp4", "--log-dir", "log ü", "--canvas", "17x33", "--audio", "app-pid:1"});
    QCOMPARE(code, 0);
    const QByteArray directory = QFileInfo(launcher.path(QString())).canonicalFilePath().toUtf8();
    const QByteArrayList expected{directory + "/log ü", "qt-window-capture",
        directory + "/my clips/Größe 世界 \"x\" 🎬.mp4", "4294967295", "0", "0", "17", "33", "1.0", "app-pid:1"};
    QCOMPARE(launcher.recorderArguments(), expected);
    QCOMPARE(value(launcher.standardOutput(), "file"), expected[2]);
}

void RecordWindowTest::valueThatLooksLikeAnOptionOfQt()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief + QStringList{"--output", "-qmljsdebugger=port:3.mp4", "--log-dir", "-platform"}), 0);
    QVERIFY2(launcher.recorderArguments()[2].endsWith("/-qmljsdebugger=port:3.mp4"), launcher.recorderArguments()[2]);
    QVERIFY2(launcher.recorderArguments()[0].endsWith("/-platform"), launcher.recorderArguments()[0]);
}

void RecordWindowTest::recorderIsToldToStopAndToLeave()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run({"--window", "77", "--seconds", "0.25"}), 0);
    const Lines lines = launcher.lines();
    QCOMPARE(lines.size(), 2);
    QCOMPARE(lines[0].text, QByteArray("{\"action\":\"stop\"}"));
    QCOMPARE(lines[1].text, QByteArray("{\"action\":\"exit\"}"));
    // Half a second from the readiness to the first frame, then the length. (The clocks differ by rounding.)
    QVERIFY(lines[0].atMs - launcher.note("ready").toLongLong() >= 745);
}

void RecordWindowTest::recorderRunsInAGroupOfItsOwn()
{
    RecordWindowProcess launcher;
    launcher.process().setChildProcessModifier([] { ::setpgid(0, 0); });
    launcher.start({"--window", "77"});
    QVERIFY2(launcher.waitForRecording(), launcher.standardError());
    QCOMPARE(launcher.recorderGroup(), launcher.recorderPid());
    ::kill(-pid_t(launcher.process().processId()), SIGINT); // as a terminal does it: to the whole group
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 0);
    QCOMPARE(value(launcher.standardOutput(), "duration"), QByteArray("1.234 s"));
}

void RecordWindowTest::recordersEnvironment()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief), 0);
    QCOMPARE(launcher.note("environment"), QByteArray("ORVANTIS_END_WITH_LAUNCHER=1\nORVANTIS_POPUPS=1\n"));
    RecordWindowProcess without;
    QCOMPARE(without.run(brief + QStringList{"--no-popups"}), 0);
    QCOMPARE(without.note("environment"), QByteArray("ORVANTIS_END_WITH_LAUNCHER=1\nORVANTIS_POPUPS=0\n"));
}

void RecordWindowTest::closedDescriptorsAreFilled()
{
    RecordWindowProcess launcher;
    launcher.process().setChildProcessModifier([] {
        for (int descriptor = 0; descriptor <= 2; ++descriptor)
            ::close(descriptor);
    });
    launcher.start({"--window", "77"});
    QTRY_VERIFY_WITH_TIMEOUT(!launcher.note("ready").isEmpty(), 60'000);
    for (int descriptor = 0; descriptor <= 2; ++descriptor) {
        const QString link = QStringLiteral("/proc/%1/fd/%2").arg(launcher.process().processId()).arg(descriptor);
        QCOMPARE(QFile::symLinkTarget(link), QStringLiteral("/dev/null"));
    }
    launcher.interrupt(SIGINT);
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 0);
}

void RecordWindowTest::controlSocketIsPrivateAndGoes()
{
    RecordWindowProcess launcher;
    launcher.start({"--window", "77"});
    QVERIFY2(launcher.waitForRecording(), launcher.standardError());
    const QDir temporary(launcher.path("tmp"));
    const QFileInfoList made = temporary.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot);
    QCOMPARE(made.size(), 1);
    const auto ownerOnly = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
    QCOMPARE(made[0].permissions() & ~(QFile::ReadUser | QFile::WriteUser | QFile::ExeUser), ownerOnly);
    QVERIFY(QDir(made[0].filePath()).entryList(QDir::System).contains("orvantis-recorder"));
    launcher.interrupt(SIGTERM);
    QVERIFY(launcher.waitForEnd());
    QCOMPARE(launcher.process().exitCode(), 0);
    QVERIFY(temporary.isEmpty(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot));
}

void RecordWindowTest::longTemporaryDirectoryIsNoObstacle()
{
    RecordWindowProcess launcher;
    const QString deep = launcher.path(QString(120, QLatin1Char('d')));
    QVERIFY(QDir().mkpath(deep));
    launcher.setEnvironment("TMPDIR", deep.toUtf8());
    QCOMPARE(launcher.run(brief), 0);
}

void RecordWindowTest::missingDirectoriesAreMade()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief + QStringList{"--output", "a/b/clip.mp4", "--log-dir", "c/d"}), 0);
    QVERIFY(QFileInfo(launcher.path("a/b/clip.mp4")).isFile());
    QCOMPARE(QDir(launcher.path("c/d")).entryList(QDir::Files).size(), 1);
}

void RecordWindowTest::resultNamesTheFile()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief + QStringList{"--log-dir", "."}), 0);
    const QByteArray output = launcher.standardOutput();
    QCOMPARE(value(output, "file"), launcher.recorderArguments()[2]);
    QCOMPARE(value(output, "duration"), QByteArray("1.234 s"));
    QCOMPARE(value(output, "size"), sizeOf(launcher.path("recording.mp4")));
    QCOMPARE(value(output, "video"), QByteArray("64x48, 31 frames in 1.271 s, mpeg4"));
    QVERIFY2(value(output, "audio").endsWith(" s, aac"), output);
    QCOMPARE(
        value(output, "log"), launcher.recorderArguments()[0] + "/20260101T000000.000Z-orvantis-recorder-log.txt");
}

void RecordWindowTest::logIsKeptOnlyWhenItIsAskedFor()
{
    const QString log = "20260101T000000.000Z-orvantis-recorder-log.txt";
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief), 0);
    QCOMPARE(launcher.leftFiles(), QStringList{"recording.mp4"});
    QVERIFY2(!launcher.standardOutput().contains("log "), launcher.standardOutput());
    QVERIFY2(!launcher.standardError().contains("log"), launcher.standardError());

    RecordWindowProcess asked;
    QCOMPARE(asked.run(brief + QStringList{"--log-dir", "."}), 0);
    QCOMPARE(asked.leftFiles(), (QStringList{log, "recording.mp4"}));
}

/// Last of all, so that it stands above the shell's next prompt.
void RecordWindowTest::logOfWhatWentWrongIsKeptAndNamedLast()
{
    for (const QStringList& manner : {QStringList(), QStringList{"--quiet"}, QStringList{"--json"}}) {
        RecordWindowProcess launcher;
        // Twice as long as what the fake records.
        QCOMPARE(
            launcher.run(QStringList{"--window", "77", "--output", "recording.mp4", "--seconds", "2.5"} + manner), 8);
        const QString log = "20260101T000000.000Z-orvantis-recorder-log.txt";
        QCOMPARE(launcher.leftFiles(), (QStringList{log, "recording.mp4"}));
        const QByteArray path = launcher.recorderArguments()[0] + '/' + log.toUtf8();
        const QByteArray last = "\nthe recorder's log: " + path + '\n';
        QVERIFY2(launcher.standardError().endsWith(last), launcher.standardError());
        QCOMPARE(launcher.standardError().count(path), 1);
        QVERIFY2(manner.contains("--json") || !launcher.standardOutput().contains(path), launcher.standardOutput());
    }
}

void RecordWindowTest::resultNamesTheFallbackFile()
{
    RecordWindowProcess launcher("fallback");
    // A log of another recorder lies beside the one that counts.
    QFile other(launcher.path("20990101T000000.000Z-orvantis-recorder-log.txt"));
    QVERIFY(other.open(QIODevice::WriteOnly));
    other.write("Debug: recorder process identity pid 1 applicationFilePath \"/other\" (:0, )\n"
                "Debug: FFmpeg recorder finalized output \"/other.mp4\" duration 1 (:0, )\n");
    other.close();
    QCOMPARE(launcher.run(brief), 0);
    QByteArray expected = launcher.recorderArguments()[2];
    QCOMPARE(value(launcher.standardOutput(), "file"), expected.replace(".mp4", ".mkv"));
}

void RecordWindowTest::jsonIsOneLine()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief + QStringList{"--json", "--output", "a \"b\"\\c.mp4"}), 0);
    const QByteArray output = launcher.standardOutput();
    QCOMPARE(output.count('\n'), 1);
    QVERIFY(output.endsWith('\n'));
    QJsonObject object = QJsonDocument::fromJson(output).object();
    const QJsonObject video{{"codec", "mpeg4"}, {"width", 64}, {"height", 48}, {"frames", 31}, {"decodedFrames", 31},
        {"badFrames", 0}, {"lengthMs", 1271}, {"longestGapMs", 41}};
    QCOMPARE(object.take("video").toObject(), video);
    const QJsonObject audio = object.take("audio").toObject();
    QCOMPARE(audio.value("codec").toString(), QString("aac"));
    QCOMPARE(audio.value("rate").toInt(), 48000);
    QVERIFY(std::abs(audio.value("lengthMs").toInt() - 1234) < 50);
    const QJsonObject expected{{"file", QString::fromUtf8(launcher.recorderArguments()[2])}, {"durationMs", 1234},
        {"recorderExitCode", 0}, {"logFile", QJsonValue()}, {"error", QJsonValue()}, {"warnings", QJsonArray()},
        {"sha256", QJsonValue()}, {"share", QJsonValue()}, {"contactSheet", QJsonValue()}};
    QCOMPARE(object, expected);
}

void RecordWindowTest::jsonOfAFailureSaysWhy()
{
    RecordWindowProcess launcher("setupfails");
    QCOMPARE(launcher.run(brief + QStringList{"--json"}), 4);
    const QJsonObject object = QJsonDocument::fromJson(launcher.standardOutput()).object();
    QVERIFY(object.value(QLatin1String("file")).isNull());
    QVERIFY(object.value(QLatin1String("durationMs")).isNull());
    QCOMPARE(object.value(QLatin1String("recorderExitCode")).toInt(), 2);
    QVERIFY(object.value(QLatin1String("error")).toString().contains("before it was ready"));
}

void RecordWindowTest::quietSaysNothing()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief + QStringList{"--quiet"}), 0);
    QCOMPARE(launcher.standardOutput(), QByteArray());
    QCOMPARE(launcher.standardError(), QByteArray());
    QVERIFY(QFileInfo(launcher.path("recording.mp4")).isFile());
}

void RecordWindowTest::verboseShowsTheRecordersStandardError()
{
    const QByteArray mark = "end of the fake's standard error";
    RecordWindowProcess plain;
    QCOMPARE(plain.run(brief), 0);
    QVERIFY(!plain.standardError().contains(mark));
    RecordWindowProcess verbose;
    QCOMPARE(verbose.run(brief + QStringList{"--verbose"}), 0);
    QVERIFY(verbose.standardError().contains(mark));
}

void RecordWindowTest::orderedClicksCarryTheirTime()
{
    RecordWindowProcess launcher;
    QCOMPARE(
        launcher.run({"--window", "77", "--seconds", "1", "--click", "640,400@0.1+0.6", "--click", "-30.25,4@0.3"}),
        0);
    const Lines lines = launcher.lines();
    QCOMPARE(lines.size(), 4);
    const QByteArrayList punctual = lines[0].text.split('|');
    const QByteArrayList late = lines[1].text.split('|');
    QCOMPARE(punctual.mid(0, 5), QByteArrayList({"click", "-30.25", "4", "-1", "-1"}));
    QCOMPARE(late.mid(0, 5), QByteArrayList({"click", "640", "400", "-1", "-1"}));
    QCOMPARE(punctual.size(), 6);
    QCOMPARE(late.size(), 6);
    const qint64 punctualAtMs = punctual[5].toLongLong();
    const qint64 lateAtMs = late[5].toLongLong();
    QCOMPARE(punctualAtMs - lateAtMs, 200);
    QVERIFY(lateAtMs >= launcher.note("ready").toLongLong() + 100);
    QVERIFY(lateAtMs <= lines[1].atMs);
    // The report comes not before it is due. (The clocks differ by rounding.)
    QVERIFY(lines[0].atMs - punctualAtMs >= -5);
    QVERIFY(lines[1].atMs - lateAtMs >= 595);
}

void RecordWindowTest::clicksAfterTheEndAreMissed()
{
    RecordWindowProcess launcher;
    QCOMPARE(launcher.run(brief + QStringList{"--click", "1,1@0.1", "--click", "1,1@0.1+9", "--click", "1,1@5"}), 0);
    QCOMPARE(launcher.clickLines().size(), 1);
    QVERIFY2(launcher.standardError().contains("before 2 click report(s) were due"), launcher.standardError());
}

void RecordWindowTest::progressIsPlainWithoutATerminal()
{
    RecordWindowProcess launcher;
    launcher.setEnvironment("TERM", "xterm");
    QCOMPARE(launcher.run({"--window", "77", "--seconds", "2", "--no-watch-clicks"}), 0);
    const QByteArray progress = launcher.standardError();
    QVERIFY2(progress.contains("\nrecording\n00:00  8 bytes\n00:01  8 bytes\n"), progress);
    QVERIFY(!progress.contains('\033') && !progress.contains('\r'));
}

void RecordWindowTest::progressIsOneLineOnATerminal_data()
{
    QTest::addColumn<QByteArray>("terminal");
    QTest::addColumn<bool>("changes");
    QTest::newRow("capable") << QByteArray("xterm") << true;
    QTest::newRow("dumb") << QByteArray("dumb") << false;
    QTest::newRow("unknown") << QByteArray() << false;
}

void RecordWindowTest::progressIsOneLineOnATerminal()
{
    QFETCH(QByteArray, terminal);
    QFETCH(bool, changes);
    std::array<int, 2> ends{-1, -1};
    QCOMPARE(::openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr), 0);
    RecordWindowProcess launcher;
    launcher.setEnvironment("TERM", terminal);
    launcher.process().setChildProcessModifier([slave = ends[1]] { ::dup2(slave, STDERR_FILENO); });
    const int code = launcher.run({"--window", "77", "--seconds", "1"});
    ::close(ends[1]);
    QByteArray shown;
    char bytes[256];
    for (ssize_t size = 0; (size = ::read(ends[0], bytes, sizeof(bytes))) > 0;)
        shown.append(bytes, size);
    ::close(ends[0]);
    QCOMPARE(code, 0);
    QVERIFY2(shown.contains("00:00  8 bytes"), shown);
    QCOMPARE(shown.contains("\r\033[K00:00"), changes);
    QCOMPARE(shown.contains('\033'), changes);
    QVERIFY(shown.contains("\r\nfinishing the file\r\n")); // the changing line is closed first
}

ORVANTIS_TEST(RecordWindowTest)
#include "recordwindow_test.moc"
