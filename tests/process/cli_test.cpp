// The process from the outside, without a recording that matters: arguments, log file, environment.
#include "privatexserver.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QTest>

#include <unistd.h>

namespace {

const auto startingLine = QStringLiteral("FFmpeg recorder starting ");

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// As QDebug prints a string.
QString quoted(const QString& text)
{
    QString result;
    QDebug(&result).nospace() << text;
    return result;
}

QStringList logFilesIn(const QString& directory)
{
    return QDir(directory).entryList({QStringLiteral("*-orvantis-recorder-log.txt")}, QDir::Files);
}

}

class CliTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void tenthArgumentMissing();
    void tenthArgumentThere();
    void moreArgumentsThanNeeded();
    void argumentsThatLookLikeQts();
    void noArgumentsAtAll();
    void numbers_data();
    void numbers();
    void linesOfTheStart();
    void logFileName();
    void logFileAndStandardErrorAreTheSame();
    void unwritableLogDirectory();
    void plugInDirectory_data();
    void plugInDirectory();
    void noDisplay();
    void pathsWithBlanksAndOtherLetters_data();
    void pathsWithBlanksAndOtherLetters();

private:
    /// Runs a whole recording of the truth window, ended by stop and exit.
    bool runRecording(RecordingScene& scene);

    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;
};

void CliTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    window_ = std::make_unique<TruthWindowProcess>(server_.display());
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
}

bool CliTest::runRecording(RecordingScene& scene)
{
    return scene.startRecording() && scene.stopAndExit();
}

void CliTest::tenthArgumentMissing()
{
    RecordingScene scene(server_.display(), window_->id());
    QStringList arguments = scene.command.arguments();
    arguments.removeLast();
    QVERIFY(scene.recorder.start(arguments));
    QVERIFY(scene.recorder.waitForEnd());
    QCOMPARE(scene.recorder.exitCode(), 0);
    const QList<LogLine> log = scene.log();
    QCOMPARE(log.size(), 10 + 4); // the arguments with the executable, identity, environment, library paths, and:
    QCOMPARE(log.last().level, "Debug");
    QCOMPARE(log.last().text, QStringLiteral("invalid param count"));
    QCOMPARE(scene.recorder.standardOutput(), QByteArray());
    QVERIFY(!scene.launcher.isConnected());
    QVERIFY(!QFile::exists(scene.command.output));
}

void CliTest::tenthArgumentThere()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY2(runRecording(scene), scene.story());
    QCOMPARE(countLines(scene.log(), startingLine), 1);
    QCOMPARE(countLines(scene.log(), QStringLiteral("invalid param count")), 0);
    QVERIFY(QFileInfo(scene.command.output).size() > 0);
}

void CliTest::moreArgumentsThanNeeded()
{
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY(
        scene.recorder.start(scene.command.arguments() + QStringList{QStringLiteral("one"), QStringLiteral("2")}));
    QVERIFY(scene.launcher.waitForReceived(1, hangLimitMs));
    QVERIFY2(scene.stopAndExit(), scene.story());
    const QList<LogLine> log = scene.log();
    QCOMPARE(log[11].text, QStringLiteral("11 one"));
    QCOMPARE(log[12].text, QStringLiteral("12 2"));
    QCOMPARE(countLines(log, startingLine), 1);
}

/// Qt has options that it takes out of every command line, with what follows them.
void CliTest::argumentsThatLookLikeQts()
{
    RecordingScene scene(server_.display(), window_->id());
    const QStringList given{scene.command.logDirectory, "-platform", "-style", "-qmljsdebugger=port:3",
        "-platformpluginpath", "-geometry", "-qwindowicon", "-session", "-reverse", "-title", "--platform"};
    QVERIFY(scene.recorder.start(given));
    QVERIFY(scene.recorder.waitForEnd());
    QCOMPARE(scene.recorder.exitCode(), 2); // that is no window
    const QList<LogLine> log = scene.log();
    QVERIFY2(log.size() > given.size(), scene.story());
    for (qsizetype i = 0; i < given.size(); ++i)
        QCOMPARE(log[i + 1].text, QStringLiteral("%1 %2").arg(QString::number(i + 1), given[i]));
    QCOMPARE(restOfLine(log, startingLine),
        QStringLiteral("command \"-platform\" window \"-qmljsdebugger=port:3\" output \"-style.mp4\" canvas 16 16 "
                       "screen origin 0 0 scale 0"));
}

void CliTest::noArgumentsAtAll()
{
    // The log file is then sought at the root of the file system, which only root can write.
    const QString root = QStringLiteral("/");
    const QStringList before = logFilesIn(root);
    RecordingScene scene(server_.display(), window_->id());
    QVERIFY(scene.recorder.start({}));
    QVERIFY(scene.recorder.waitForEnd());
    QStringList made = logFilesIn(root);
    for (const QString& name : before)
        made.removeOne(name);
    QByteArray log;
    for (const QString& name : std::as_const(made)) {
        log += contents(root + name);
        QFile::remove(root + name);
    }

    QCOMPARE(scene.recorder.exitCode(), 0);
    const bool writable = ::access("/", W_OK) == 0;
    QCOMPARE(made.size(), writable ? 1 : 0);
    const QByteArray shown = scene.recorder.standardError();
    if (writable)
        QCOMPARE(log, shown);
    else
        QVERIFY2(shown.startsWith("orvantis-recorder: cannot open the log file //"), shown);
    QCOMPARE(RecorderProcess::parsed(shown).last().text, QStringLiteral("invalid param count"));
}

void CliTest::numbers_data()
{
    QTest::addColumn<QStringList>("given"); // origin x, y, canvas width, height, scale
    QTest::addColumn<QString>("logged");
    const auto row = [](const char* name, const QStringList& given, const char* logged) {
        QTest::newRow(name) << given << QString::fromLatin1(logged);
    };
    row("plain", {"12", "-7", "640", "360", "2.5"}, "canvas 640 360 screen origin 12 -7 scale 2.5");
    row("a fraction is no canvas size", {"0", "0", "1280.5", "360", "1"}, "canvas 16 360 screen origin 0 0 scale 1");
    row("words", {"left", "", "wide", "360p", "big"}, "canvas 16 16 screen origin 0 0 scale 0");
    row("other notations", {"0x10", "1e2", "+64", " 32 ", "1e-1"}, "canvas 64 32 screen origin 0 0 scale 0.1");
    row("zero and below", {"0", "0", "0", "-640", "-1"}, "canvas 16 16 screen origin 0 0 scale -1");
    row("odd", {"0", "0", "641", "17", "1"}, "canvas 642 18 screen origin 0 0 scale 1");
    row("too large for an int", {"2147483648", "-2147483649", "4294967936", "360", "1"},
        "canvas 16 360 screen origin 0 0 scale 1");
}

void CliTest::numbers()
{
    QFETCH(QStringList, given);
    QFETCH(QString, logged);
    RecordingScene scene(server_.display(), window_->id());
    scene.command.originX = given[0];
    scene.command.originY = given[1];
    scene.command.canvasWidth = given[2];
    scene.command.canvasHeight = given[3];
    scene.command.scale = given[4];
    QVERIFY2(scene.start() && scene.waitForLine(startingLine), scene.story());
    const QString line = restOfLine(scene.log(), startingLine);
    QVERIFY2(line.endsWith(logged), qPrintable(line));
}

void CliTest::linesOfTheStart()
{
    RecordingScene scene(server_.display(), window_->id());
    scene.recorder.setVariable(QStringLiteral("QT_QPA_PLATFORM_PLUGIN_PATH"), QStringLiteral("/nowhere \"at\" all"));
    scene.recorder.setVariable(QStringLiteral("QT_MEDIA_BACKEND"), QStringLiteral("ffmpeg"));
    scene.command.captureCommand = QStringLiteral(" Qt-Window-Capture ");
    scene.command.audioSource = QStringLiteral("app-pid:1");
    QVERIFY2(scene.startRecording(), scene.story());
    const qint64 pid = scene.recorder.pid();
    QVERIFY2(scene.stopAndExit(), scene.story());

    const QString binary = RecorderProcess::defaultBinary();
    QStringList expected;
    const QStringList arguments = QStringList(binary) + scene.command.arguments();
    for (qsizetype i = 0; i < arguments.size(); ++i)
        expected << QStringLiteral("%1 %2").arg(QString::number(i), arguments[i]);
    expected << QStringLiteral("recorder process identity pid %1 applicationFilePath %2 applicationDirPath %3 "
                               "bundleIdentifier \"\" bundlePath \"\" bundleExecutablePath \"\"")
                    .arg(QString::number(pid), quoted(binary), quoted(QFileInfo(binary).absolutePath()));
    expected << QStringLiteral("recorder environment QT_PLUGIN_PATH \"\" QT_QPA_PLATFORM_PLUGIN_PATH "
                               "\"/nowhere \\\"at\\\" all\" QT_MEDIA_BACKEND \"ffmpeg\"");

    const QList<LogLine> log = scene.log();
    for (qsizetype i = 0; i < expected.size(); ++i) {
        QCOMPARE(log[i].level, "Debug");
        QCOMPARE(log[i].text, expected[i]);
    }
    const QString paths = log[expected.size()].text;
    static const QRegularExpression pathsForm(
        QStringLiteral("^recorder Qt library paths QList\\(\"/[^\"]+\"(, \"/[^\"]+\")*\\)$"));
    QVERIFY2(pathsForm.match(paths).hasMatch(), qPrintable(paths));
    QVERIFY2(paths.contains(quoted(QFileInfo(binary).absolutePath())), qPrintable(paths));
    QCOMPARE(log[expected.size() + 1].text,
        QStringLiteral("FFmpeg recorder starting command \"Qt-Window-Capture\" window %1 output %2 canvas 640 360 "
                       "screen origin 0 0 scale 1")
            .arg(quoted(scene.command.window), quoted(scene.command.output)));
    QCOMPARE(countLines(log, QStringLiteral("macOS recorder uses CoreGraphics window capture")), 0);
    const QString version = QStringLiteral("recorder version " ORVANTIS_VERSION " Qt ") + QLatin1String(qVersion());
    QCOMPARE(countLines(log, version), 1);
}

void CliTest::logFileName()
{
    RecordingScene scene(server_.display(), window_->id());
    const QDateTime before = QDateTime::currentDateTimeUtc();
    QVERIFY(scene.recorder.start({scene.command.logDirectory}));
    QVERIFY(scene.recorder.waitForEnd());
    const QString name = QFileInfo(RecorderProcess::logFile(scene.command.logDirectory)).fileName();
    static const QRegularExpression form(
        QStringLiteral("^(\\d{8}T\\d{6}\\.\\d{3})\\d{3}Z-orvantis-recorder-log\\.txt$"));
    const QRegularExpressionMatch match = form.match(name);
    QVERIFY2(match.hasMatch(), qPrintable(name));
    QDateTime time = QDateTime::fromString(match.captured(1), QStringLiteral("yyyyMMdd'T'HHmmss.zzz"));
    time.setTimeSpec(Qt::UTC);
    QVERIFY2(time >= before && time <= QDateTime::currentDateTimeUtc(), qPrintable(name));
}

void CliTest::logFileAndStandardErrorAreTheSame()
{
    RecordingScene scene(server_.display(), window_->id());
    scene.command.captureCommand = QStringLiteral("another-capture"); // one warning among the debug lines
    QVERIFY2(runRecording(scene), scene.story());
    const QByteArray log = contents(RecorderProcess::logFile(scene.command.logDirectory));
    QCOMPARE(scene.recorder.standardError(), log);
    QVERIFY(log.endsWith('\n'));

    const QList<LogLine> lines = RecorderProcess::parsed(log);
    for (const LogLine& line : lines) {
        QVERIFY2(!line.level.isEmpty(), qPrintable(line.text));
#ifdef QT_NO_DEBUG
        QCOMPARE(line.place, ":0, "); // optimised builds of Qt programs know no places
#else
        QVERIFY2(line.place.contains(".cpp:"), line.place);
#endif
    }
    const QString warning = QStringLiteral("macOS recorder uses CoreGraphics window capture; requested command "
                                           "\"another-capture\" will use CoreGraphics window capture.");
    QCOMPARE(countLines(lines, warning), 1);
    QVERIFY(log.contains("\nWarning: " + warning.toUtf8() + " ("));
    QCOMPARE(lines.last().text, QStringLiteral("recorder exiting 0"));
}

void CliTest::unwritableLogDirectory()
{
    RecordingScene scene(server_.display(), window_->id());
    scene.command.logDirectory = scene.directory.filePath(QStringLiteral("not there"));
    QVERIFY2(runRecording(scene), scene.story());
    const QByteArray said = scene.recorder.standardError();
    const QByteArray start
        = "orvantis-recorder: cannot open the log file " + scene.command.logDirectory.toUtf8() + '/';
    QVERIFY2(said.startsWith(start), said);
    QVERIFY2(said.left(said.indexOf('\n')).endsWith(": No such file or directory"), said);
    QVERIFY(!QFile::exists(scene.command.logDirectory));
    QCOMPARE(RecorderProcess::parsed(said).last().text, QStringLiteral("recorder exiting 0"));
    QVERIFY(QFileInfo(scene.command.output).size() > 0);
}

void CliTest::plugInDirectory_data()
{
    QTest::addColumn<QString>("executableDirectory");
    QTest::addColumn<QString>("plugIns"); // a directory that exists; empty for none
    QTest::addColumn<QString>("before"); // QT_PLUGIN_PATH
    QTest::addColumn<QString>("after"); // %1 stands for the directory of it all
    QTest::newRow("beside, path empty") << "bin"
                                        << "PlugIns"
                                        << ""
                                        << "%1/bin/../PlugIns";
    QTest::newRow("beside, path set") << "bin"
                                      << "PlugIns"
                                      << "/old/one:/old/two"
                                      << "%1/bin/../PlugIns:/old/one:/old/two";
    QTest::newRow("four levels up") << "App/Contents/Helpers/bin"
                                    << "PlugIns"
                                    << "/old"
                                    << "%1/App/Contents/Helpers/bin/../../../../PlugIns:/old";
    QTest::newRow("nowhere, path set") << "bin"
                                       << ""
                                       << "/old"
                                       << "/old";
    QTest::newRow("nowhere, path empty") << "bin"
                                         << ""
                                         << ""
                                         << "";
}

void CliTest::plugInDirectory()
{
    QFETCH(QString, executableDirectory);
    QFETCH(QString, plugIns);
    QFETCH(QString, before);
    QFETCH(QString, after);
    RecordingScene scene(server_.display(), window_->id());
    const QString root = scene.directory.filePath(QStringLiteral("tree"));
    const QString binary = root + '/' + executableDirectory + QStringLiteral("/orvantis-recorder");
    QVERIFY(QDir().mkpath(QFileInfo(binary).absolutePath()));
    QVERIFY(QFile::copy(RecorderProcess::defaultBinary(), binary));
    if (!plugIns.isEmpty())
        QVERIFY(QDir().mkpath(root + '/' + plugIns));

    scene.recorder.setBinary(binary);
    if (!before.isEmpty())
        scene.recorder.setVariable(QStringLiteral("QT_PLUGIN_PATH"), before);
    QVERIFY(scene.recorder.start({scene.command.logDirectory}));
    QVERIFY(scene.recorder.waitForEnd());
    QCOMPARE(scene.recorder.exitCode(), 0);
    const QString line = restOfLine(scene.log(), QStringLiteral("recorder environment "));
    const QString expected = after.contains(QLatin1String("%1")) ? after.arg(root) : after;
    QVERIFY2(line.startsWith(QStringLiteral("QT_PLUGIN_PATH %1 QT_QPA").arg(quoted(expected))), qPrintable(line));
    if (!plugIns.isEmpty()) {
        const QString paths = restOfLine(scene.log(), QStringLiteral("recorder Qt library paths "));
        QVERIFY2(paths.startsWith(QStringLiteral("QList(%1").arg(quoted(root + '/' + plugIns))), qPrintable(paths));
    }
}

void CliTest::noDisplay()
{
    RecordingScene scene(QByteArray(), window_->id());
    QVERIFY(scene.recorder.start(scene.command.arguments()));
    QVERIFY(scene.recorder.waitForEnd());
    QCOMPARE(scene.recorder.exitCode(), 2);
    const QList<LogLine> log = scene.log();
    QStringList end;
    for (qsizetype i = 12 + 3; i < log.size(); ++i) // after the arguments and the three lines about the process
        end << QString::fromLatin1(log[i].level) + ' ' + log[i].text;
    // The worker says so too, at some point after its start.
    QCOMPARE(end.removeAll(QStringLiteral("Critical macOS window capture is not available.")), 1);
    const QStringList expected{
        QStringLiteral("Debug macOS CoreGraphics capture requested for window id %1 parsed %2 ok true")
            .arg(quoted(scene.command.window), scene.command.window),
        QStringLiteral("Debug macOS screen recording preflight before request false"),
        QStringLiteral("Warning macOS screen recording permission is not currently granted; requesting access."),
        QStringLiteral("Debug macOS screen recording request result false preflight after request false"),
        QStringLiteral("Warning macOS screen recording permission was not granted; window capture will not produce "
                       "frames."),
        QStringLiteral("Warning macOS CoreGraphics window capture setup failed."),
        QStringLiteral("Debug recorder version " ORVANTIS_VERSION " Qt ") + QLatin1String(qVersion()),
        QStringLiteral("Debug recorder exiting 2"),
    };
    QCOMPARE(end, expected);
    QVERIFY(!QFile::exists(scene.command.output));
}

void CliTest::pathsWithBlanksAndOtherLetters_data()
{
    QTest::addColumn<QString>("locale");
    QTest::newRow("UTF-8 locale") << "C.UTF-8";
    QTest::newRow("no locale") << "C";
}

void CliTest::pathsWithBlanksAndOtherLetters()
{
    QFETCH(QString, locale);
    RecordingScene scene(server_.display(), window_->id());
    const QString odd = QStringLiteral("Überblick für 日本 – \U0001F3A5 %1 %3");
    const QString root = scene.directory.filePath(odd);
    scene.command.logDirectory = root + QStringLiteral("/log files");
    scene.command.output = root + QStringLiteral("/my films/größer.mp4");
    const QString binary = root + QStringLiteral("/the bin/orvantis-recorder");
    QVERIFY(QDir().mkpath(scene.command.logDirectory));
    QVERIFY(QDir().mkpath(QFileInfo(binary).absolutePath()));
    QVERIFY(QFile::copy(RecorderProcess::defaultBinary(), binary));
    scene.recorder.setBinary(binary);
    scene.recorder.setVariable(QStringLiteral("LANG"), locale);

    QVERIFY2(runRecording(scene), scene.story());
    QVERIFY(QFileInfo(scene.command.output).size() > 0);
    const QList<LogLine> log = scene.log();
    QVERIFY2(!log.isEmpty(), scene.story());
    QCOMPARE(log[0].text, QStringLiteral("0 ") + binary);
    QCOMPARE(log[1].text, QStringLiteral("1 ") + scene.command.logDirectory);
    QCOMPARE(log[3].text, QStringLiteral("3 ") + scene.command.output);
    QVERIFY(restOfLine(log, QStringLiteral("FFmpeg recorder finalized output "))
                .startsWith(quoted(scene.command.output)));
}

ORVANTIS_TEST(CliTest)
#include "cli_test.moc"
