// What the recorder prints and logs at its start: help and version, arguments that look like log lines, and log rules
// of the environment.
#include "privatexserver.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QDir>
#include <QFile>
#include <QTest>

class StartOutputTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void helpAndVersion_data();
    void helpAndVersion();
    void helpIsGivenOnlyAlone();
    void lineFeedInAnArgument();
    void logRulesOfTheEnvironmentTakeNothing();
};

void StartOutputTest::helpAndVersion_data()
{
    QTest::addColumn<QString>("argument");
    QTest::addColumn<QByteArray>("start");
    QTest::addColumn<QByteArrayList>("parts");
    const QByteArrayList parts{"record-window", "qt-window-capture", "app-pid:", "--request-permissions", "--version",
        "ORVANTIS_END_WITH_LAUNCHER", "ORVANTIS_POPUPS", "Exit codes:\n  0 ", "\n  2 ", "\n  3 ", "\n  128 + n "};
    QTest::newRow("--help") << "--help" << QByteArray("Usage: orvantis-recorder ") << parts;
    QTest::newRow("-h") << "-h" << QByteArray("Usage: orvantis-recorder ") << parts;
    QTest::newRow("--version") << "--version" << QByteArray("orvantis-recorder 0.") << QByteArrayList();
}

void StartOutputTest::helpAndVersion()
{
    QFETCH(QString, argument);
    QFETCH(QByteArray, start);
    QFETCH(QByteArrayList, parts);
    RecordingScene scene(QByteArray(), 0);
    QVERIFY(scene.recorder.start({argument}));
    QVERIFY(scene.recorder.waitForEnd());
    QCOMPARE(scene.recorder.exitCode(), 0);
    const QByteArray text = scene.recorder.standardOutput();
    QVERIFY2(text.startsWith(start), text);
    QVERIFY2(text.endsWith('\n') && !text.endsWith("\n\n"), text);
    for (const QByteArray& part : std::as_const(parts))
        QVERIFY2(text.contains(part), part);
    // The log is what it is with every command line that is too short, but its file is not sought in "--help".
    const QList<LogLine> log = RecorderProcess::parsed(scene.recorder.standardError());
    QCOMPARE(log.size(), 2 + 4);
    QCOMPARE(log[1].text, "1 " + argument);
    QCOMPARE(log.last().text, QStringLiteral("invalid param count"));
}

void StartOutputTest::helpIsGivenOnlyAlone()
{
    RecordingScene scene(QByteArray(), 0);
    QVERIFY(scene.recorder.start({scene.command.logDirectory, "--help"}));
    QVERIFY(scene.recorder.waitForEnd());
    QCOMPARE(scene.recorder.exitCode(), 0);
    QCOMPARE(scene.recorder.standardOutput(), QByteArray());
    QCOMPARE(scene.log().last().text, QStringLiteral("invalid param count"));
}

void StartOutputTest::lineFeedInAnArgument()
{
    RecordingScene scene(QByteArray(), 0);
    const QString forged = QStringLiteral("x (:0, )\nDebug: recorder exiting 0");
    QVERIFY(scene.recorder.start({scene.command.logDirectory, forged, QStringLiteral("back\\nslash \r")}));
    QVERIFY(scene.recorder.waitForEnd());
    const QList<LogLine> log = scene.log();
    QCOMPARE(log.size(), 4 + 4);
    QCOMPARE(log[2].text, QStringLiteral("2 x (:0, )\\nDebug: recorder exiting 0"));
    QCOMPARE(log[3].text, QStringLiteral("3 back\\nslash \r")); // everything else is shown as it is
}

void StartOutputTest::logRulesOfTheEnvironmentTakeNothing()
{
    PrivateXServer server;
    QVERIFY2(server.isRunning(), qPrintable(server.errorString()));
    TruthWindowProcess window(server.display());
    RecordingScene scene(server.display(), window.id());
    const QString configuration = scene.directory.filePath(QStringLiteral("configuration"));
    QVERIFY(QDir().mkpath(configuration + QStringLiteral("/QtProject")));
    const QString rules = configuration + QStringLiteral("/QtProject/qtlogging.ini");
    QFile file(rules);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("[Rules]\n*=false\ndefault.debug=false\n");
    file.close();
    scene.recorder.setVariable(QStringLiteral("XDG_CONFIG_HOME"), configuration);
    scene.recorder.setVariable(QStringLiteral("QT_LOGGING_CONF"), rules);
    scene.recorder.setVariable(QStringLiteral("QT_LOGGING_RULES"), QStringLiteral("*=false;default.warning=false"));
    for (const char* const name : {"QT_FATAL_WARNINGS", "QT_FATAL_CRITICALS"})
        scene.recorder.setVariable(QLatin1String(name), QStringLiteral("1"));
    scene.command.captureCommand = QStringLiteral("another-capture"); // which is warned of
    QVERIFY2(scene.startRecording() && scene.stopAndExit(), scene.story());
    const QList<LogLine> log = scene.log();
    QVERIFY(!log.isEmpty());
    QCOMPARE(log.first().text, "0 " + RecorderProcess::defaultBinary());
    QCOMPARE(countLines(log, QStringLiteral("macOS recorder uses CoreGraphics window capture")), 1);
    QCOMPARE(log.last().text, QStringLiteral("recorder exiting 0"));
}

ORVANTIS_TEST(StartOutputTest)
#include "startoutput_test.moc"
