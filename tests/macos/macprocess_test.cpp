// The process on the Mac: permission mode, the accessory step, the bundle's texts, and who is at the other end of a
// socket.
#include "launcherserver.h"
#include "macbench.h"
#include "mediafile.h"
#include "platform/application.h"
#include "platform/recordinghold.h"
#include "privatetempdir.h"
#include "recorderprocess.h"
#include "startup.h"
#include "testregistry.h"

#include <QDir>

#include <array>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

using macsim::answers;

namespace {

/// The recorder as a process of its own on a simulated Mac of its own, see simulatedrecorder.cpp. Have a
/// PrivateTempDir first.
class SimulatedRecorder : public RecorderProcess {
public:
    explicit SimulatedRecorder(const QString& permission) : RecorderProcess(QByteArray())
    {
        setVariable(QStringLiteral("SIMULATED_PERMISSION"), permission);
        setVariable(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("minimal"));
        setVariable(QStringLiteral("XDG_RUNTIME_DIR"), QDir::tempPath()); // otherwise Qt on Linux warns
    }
};

/// The last lines of its stderr, when it is an accessory process and has asked for the permission so often.
QByteArray toldAtTheEnd(const QByteArray& asked)
{
    return "simulated: activation policy 1\nsimulated: " + asked + "\nsimulated: nothing is wrong\n";
}

}

class MacProcessTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void permissionMode_data();
    void permissionMode();
    void refusalHasTheProgramListed_data();
    void refusalHasTheProgramListed();
    void permissionProcess_data();
    void permissionProcess();
    void recordingWithoutPermission();

    void logOutFinishesTheFile();
    void logOutAsksTheHold();
    void holdStandsInForTheDelegate();
    void recordingIsAnActivity();
    void accessory();
    void accessoryIsSkipped_data();
    void accessoryIsSkipped();

    void bundleTexts();
    void bundleTextsThatAreMissing_data();
    void bundleTextsThatAreMissing();
    void identityLine();

    void processStaysInTheBackground_data();
    void processStaysInTheBackground();
    void peerOfALocalSocketIsKnown();
    void whatHasNoPeerHasNoUser();
    void administratorsMayWriteApplications();

private:
    std::optional<MacBench> bench_;
};

void MacProcessTest::init()
{
    bench_.emplace();
}

void MacProcessTest::cleanup()
{
    MAC_IS_CLEAN();
    bench_.reset();
}

void MacProcessTest::permissionMode_data()
{
    QTest::addColumn<bool>("before");
    QTest::addColumn<bool>("request");
    QTest::addColumn<bool>("after");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QStringList>("lines");
    const QString beforeLine = QStringLiteral("macOS screen recording preflight before request %1");
    const QString requestLine = QStringLiteral("macOS screen recording request result %1 preflight after request %2");
    const QString resultLine = QStringLiteral("recorder permission preflight completed screenCaptureAllowed %1");
    const QString yes = QStringLiteral("true");
    const QString no = QStringLiteral("false");
    QTest::newRow("held") << true << false << false << 0 << QStringList{beforeLine.arg(yes), resultLine.arg(yes)};
    QTest::newRow("granted") << false << true << false << 0
                             << QStringList{beforeLine.arg(no), requestLine.arg(yes, no), resultLine.arg(yes)};
    QTest::newRow("held after the request")
        << false << false << true << 0
        << QStringList{beforeLine.arg(no), requestLine.arg(no, yes), resultLine.arg(yes)};
    QTest::newRow("refused") << false << false << false << 2
                             << QStringList{beforeLine.arg(no), requestLine.arg(no, no), resultLine.arg(no)};
}

void MacProcessTest::permissionMode()
{
    QFETCH(const bool, before);
    QFETCH(const bool, request);
    QFETCH(const bool, after);
    QFETCH(const int, exitCode);
    QFETCH(const QStringList, lines);
    answers().preflight = {before, after};
    answers().request = request;
    QCOMPARE(startup::requestPermissions(), exitCode);
    QCOMPARE(bench_->log.messages(QtDebugMsg), lines);
    QCOMPARE(bench_->log.messages(), lines);
    QCOMPARE(macsim::record().requests, before ? 0 : 1);
    QCOMPARE(macsim::record().contents.size(), exitCode == 0 ? 0U : 1U);
}

void MacProcessTest::refusalHasTheProgramListed_data()
{
    QTest::addColumn<int>("when");
    QTest::addColumn<bool>("error");
    QTest::newRow("answered at once") << int(macsim::When::AtOnce) << false;
    QTest::newRow("answered soon") << int(macsim::When::Soon) << false;
    QTest::newRow("refused") << int(macsim::When::Soon) << true;
    QTest::newRow("never answered") << int(macsim::When::Held) << false;
}

/// Some systems list a program in their settings only when it has asked for what can be captured.
void MacProcessTest::refusalHasTheProgramListed()
{
    QFETCH(const int, when);
    QFETCH(const bool, error);
    answers().preflight = {false};
    answers().request = false;
    answers().content = macsim::When(when);
    if (error)
        answers().contentError = macsim::Error("The user declined");
    QCOMPARE(startup::requestPermissions(), 2);
    const macsim::Record record = macsim::record();
    QCOMPARE(record.contents.size(), 1U);
    QCOMPARE(record.waits, std::vector<std::int64_t>{5000000000});
    QCOMPARE(macsim::answerHeld(macsim::Call::Content), when == int(macsim::When::Held)); // and comes to nothing then
}

void MacProcessTest::permissionProcess_data()
{
    QTest::addColumn<QString>("permission");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("lines");
    QTest::addColumn<QByteArray>("asked");
    const QByteArray once = "1 preflights, 0 requests, 0 contents";
    const QByteArray twice = "2 preflights, 1 requests, 0 contents";
    const QByteArray listed = "2 preflights, 1 requests, 1 contents";
    const QByteArray before = "macOS screen recording preflight before request ";
    const QByteArray request = "macOS screen recording request result ";
    const QByteArray result = "recorder permission preflight completed screenCaptureAllowed ";
    QTest::newRow("held") << "held" << 0 << QByteArray(before + "true\n" + result + "true\n") << once;
    QTest::newRow("granted") << "granted" << 0
                             << QByteArray(before + "false\n" + request + "true preflight after request false\n"
                                    + result + "true\n")
                             << twice;
    QTest::newRow("held after the request")
        << "later" << 0
        << QByteArray(before + "false\n" + request + "false preflight after request true\n" + result + "true\n")
        << twice;
    QTest::newRow("refused") << "refused" << 2
                             << QByteArray(before + "false\n" + request + "false preflight after request false\n"
                                    + result + "false\n")
                             << listed;
}

void MacProcessTest::permissionProcess()
{
    QFETCH(const QString, permission);
    QFETCH(const int, exitCode);
    QFETCH(const QByteArray, lines);
    QFETCH(const QByteArray, asked);
    const PrivateTempDir directory;
    SimulatedRecorder recorder(permission);
    QVERIFY(recorder.start({directory.path(), QStringLiteral("x"), QStringLiteral("--request-permissions")}));
    QVERIFY(recorder.waitForEnd());
    QCOMPARE(recorder.standardError(), lines + toldAtTheEnd(asked));
    QCOMPARE(recorder.exitCode(), exitCode);
    QVERIFY(QDir(directory.path()).isEmpty());
}

void MacProcessTest::recordingWithoutPermission()
{
    const PrivateTempDir directory;
    LauncherServer launcher;
    QVERIFY2(launcher.isListening(), qPrintable(launcher.errorString()));
    RecorderCommand command;
    command.logDirectory = directory.path();
    command.output = directory.filePath(QStringLiteral("out.mp4"));
    command.window = QStringLiteral("42");
    SimulatedRecorder recorder(QStringLiteral("refused"));
    QVERIFY(recorder.start(command.arguments()));
    QVERIFY(recorder.waitForEnd());
    QCOMPARE(recorder.exitCode(), 2);

    QStringList warnings;
    const QList<LogLine> log = RecorderProcess::log(directory.path());
    for (const LogLine& line : log) {
        if (line.level == "Warning")
            warnings.append(line.text);
    }
    QCOMPARE(warnings,
        QStringList({QStringLiteral("macOS screen recording permission is not currently granted; requesting access."),
            QStringLiteral(
                "macOS screen recording permission was not granted; window capture will not produce frames."),
            QStringLiteral("macOS CoreGraphics window capture setup failed.")}));
    QCOMPARE(log.last().text, QStringLiteral("recorder exiting 2"));
    QCOMPARE(launcher.received(), QByteArray());
    QVERIFY2(recorder.standardError().endsWith(toldAtTheEnd("2 preflights, 1 requests, 0 contents")),
        recorder.standardError());
}

void MacProcessTest::logOutFinishesTheFile()
{
    const PrivateTempDir directory;
    LauncherServer launcher;
    QVERIFY2(launcher.isListening(), qPrintable(launcher.errorString()));
    RecorderCommand command;
    command.logDirectory = directory.path();
    command.output = directory.filePath(QStringLiteral("out.mp4"));
    command.window = QStringLiteral("42");
    SimulatedRecorder recorder(QStringLiteral("held"));
    recorder.setVariable(QStringLiteral("SIMULATED_LOG_OUT"), QStringLiteral("1"));
    QVERIFY(recorder.start(command.arguments()));
    QVERIFY(recorder.waitForEnd());
    QVERIFY2(recorder.standardError().contains("simulated: log-out answered 1\n"), recorder.standardError());
    QCOMPARE(recorder.exitCode(), 0);
    QCOMPARE(RecorderProcess::log(directory.path()).last().text, QStringLiteral("recorder exiting 0"));
    MediaFile file(command.output);
    QVERIFY(!file.frames().isEmpty());
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
}

void MacProcessTest::logOutAsksTheHold()
{
    macsim::setCancellingDelegate();
    QCOMPARE(macsim::askToTerminate(), 0L);
    int finished = 0;
    {
        const platform::RecordingHold hold([&finished] { ++finished; });
        QCOMPARE(finished, 0);
        QCOMPARE(macsim::askToTerminate(), 1L);
        QCOMPARE(finished, 1);
    }
    QCOMPARE(macsim::askToTerminate(), 0L);
    QCOMPARE(finished, 1);
}

void MacProcessTest::holdStandsInForTheDelegate()
{
    {
        const platform::RecordingHold hold([] {}); // there is none before
        QCOMPARE(macsim::askToTerminate(), 1L);
    }
    QCOMPARE(macsim::askToTerminate(), -1L);
    macsim::setCancellingDelegate();
    const platform::RecordingHold hold([] {});
    QVERIFY(macsim::callDelegate());
}

void MacProcessTest::recordingIsAnActivity()
{
    constexpr std::uint64_t suddenAndAutomaticEnd = 1U << 14 | 1U << 15;
    {
        const platform::RecordingHold hold([] {});
        QCOMPARE(macsim::runningActivities(), 1);
        const auto options = macsim::record().activities.at(0);
        QCOMPARE(options & suddenAndAutomaticEnd, suddenAndAutomaticEnd);
        QCOMPARE(options, 0xff00efffffULL);
    }
    QCOMPARE(macsim::runningActivities(), 0);
}

void MacProcessTest::accessory()
{
    platform::becomeAccessory();
    QCOMPARE(macsim::record().activationPolicies, std::vector<long>{1});
}

void MacProcessTest::accessoryIsSkipped_data()
{
    QTest::addColumn<QString>("missing");
    QTest::newRow("without the class") << "NSApplication";
    QTest::newRow("without the object") << QString();
    QTest::newRow("without the object's getter") << "sharedApplication";
    QTest::newRow("without the policy's setter") << "setActivationPolicy:";
}

void MacProcessTest::accessoryIsSkipped()
{
    QFETCH(const QString, missing);
    answers().noApplicationObject = missing.isEmpty();
    answers().hiddenClasses = {missing.toStdString()};
    answers().hiddenSelectors = {missing.toStdString()};
    platform::becomeAccessory();
    QVERIFY(macsim::record().activationPolicies.empty());
    QCOMPARE(bench_->log.messages(), QStringList());
}

void MacProcessTest::bundleTexts()
{
    answers().bundleIdentifier = "com.example.Grüße";
    answers().bundlePath = "/Applications/X.app";
    answers().executablePath = "/Applications/X.app/Contents/MacOS/x";
    QCOMPARE(platform::mainBundleString("bundleIdentifier"), QString::fromUtf8("com.example.Grüße"));
    QCOMPARE(platform::mainBundleString("bundlePath"), QStringLiteral("/Applications/X.app"));
    QCOMPARE(platform::mainBundleString("executablePath"), QStringLiteral("/Applications/X.app/Contents/MacOS/x"));
}

void MacProcessTest::bundleTextsThatAreMissing_data()
{
    QTest::addColumn<QString>("why");
    QTest::addColumn<QByteArray>("selector");
    QTest::newRow("no class") << "class" << QByteArray("bundlePath");
    QTest::newRow("no bundle") << "bundle" << QByteArray("bundlePath");
    QTest::newRow("no value") << "value" << QByteArray("bundleIdentifier");
    QTest::newRow("no such property") << "nothing" << QByteArray("noSuchProperty");
    QTest::newRow("no text") << "nothing" << QByteArray("class");
}

void MacProcessTest::bundleTextsThatAreMissing()
{
    QFETCH(const QString, why);
    QFETCH(const QByteArray, selector);
    answers().bundlePath = "/Applications/X.app";
    if (why == QLatin1String("class"))
        answers().hiddenClasses = {"NSBundle"};
    answers().noBundle = why == QLatin1String("bundle");
    QCOMPARE(platform::mainBundleString(selector.constData()), QString());
}

void MacProcessTest::identityLine()
{
    answers().bundleIdentifier = "com.example.x";
    answers().bundlePath = "/X.app";
    QByteArray name("x");
    char* argv[] = {name.data(), nullptr};
    startup::logIdentity(1, argv);
    const auto lines = bench_->log.messages(QtDebugMsg).filter(QStringLiteral("recorder process identity"));
    QCOMPARE(lines.size(), 1);
    QVERIFY(lines[0].endsWith(
        QStringLiteral(" bundleIdentifier \"com.example.x\" bundlePath \"/X.app\" bundleExecutablePath \"\"")));
}

void MacProcessTest::processStaysInTheBackground_data()
{
    QTest::addColumn<QByteArray>("before");
    QTest::addColumn<QByteArray>("after");
    QTest::newRow("not set") << QByteArray() << QByteArray("1");
    QTest::newRow("set by the user") << QByteArray("yes") << QByteArray("yes");
}

void MacProcessTest::processStaysInTheBackground()
{
    QFETCH(const QByteArray, before);
    const char* variable = "QT_MAC_DISABLE_FOREGROUND_APPLICATION_TRANSFORM"; // of Qt's Cocoa plug-in
    qunsetenv("QT_QPA_PLATFORM");
    if (before.isNull())
        qunsetenv(variable);
    else
        qputenv(variable, before);
    platform::chooseGuiPlatform();
    QTEST(qgetenv(variable), "after");
    QVERIFY(!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"));
    qunsetenv(variable);
}

void MacProcessTest::peerOfALocalSocketIsKnown()
{
    std::array<int, 2> ends{};
    QCOMPARE(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    QCOMPARE(platform::peerUserId(ends[0]), std::optional<quint32>(::geteuid()));
    QCOMPARE(platform::ownUserId(), quint32(::geteuid()));
    answers().peerUser = 501;
    QCOMPARE(platform::peerUserId(ends[0]), std::optional<quint32>(501));
    ::close(ends[0]);
    ::close(ends[1]);
}

void MacProcessTest::whatHasNoPeerHasNoUser()
{
    const int file = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    QVERIFY(file >= 0);
    QCOMPARE(platform::peerUserId(file), std::nullopt);
    ::close(file);
    QCOMPARE(platform::peerUserId(-1), std::nullopt);
}

void MacProcessTest::administratorsMayWriteApplications()
{
    QCOMPARE(platform::administratorsGroup(), std::optional<quint32>(80));
}

ORVANTIS_TEST(MacProcessTest)
#include "macprocess_test.moc"
