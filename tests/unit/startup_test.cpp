// The steps before the recorder exists: plug-in path, log file, identity lines, permission mode.
#include "startup.h"
#include "testregistry.h"

#include "fakeplatform.h"
#include "logcapture.h"
#include "messagehandler.h"
#include "privatetempdir.h"
#include "stderrcapture.h"
#include "timestamp.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QRegularExpression>
#include <QTest>

#include <sys/stat.h>

namespace {

const QRegularExpression stampPattern(QStringLiteral("\\A\\d{8}T\\d{6}\\.\\d{6}Z\\z"));

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// The stamp in a log path that must be prefix + stamp + the fixed ending; empty when it is not.
QString stampIn(const QString& path, const QString& prefix)
{
    const QString ending = QStringLiteral("-orvantis-recorder-log.txt");
    if (!path.startsWith(prefix) || !path.endsWith(ending))
        return QString();
    return path.mid(prefix.size(), path.size() - prefix.size() - ending.size());
}

}

class StartupTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void pluginDirectoryBesideTheExecutable();
    void pluginDirectoryHigherUpInABundle();
    void nearerPluginDirectoryWins();
    void oldPluginPathComesAfterAColon();
    void withoutPluginDirectoryNothingChanges();
    void pluginDirectoryThatOthersCanChangeDoesNotCount();
    void pluginDirectoryOfARelativeExecutable();
    void pluginPathIsUtf8();

    void organization();
    void stampIsSafeInAFileName();
    void stampsOfOneMillisecondDiffer();
    void logPath_data();
    void logPath();
    void missingDirectoryArgumentMeansTheRoot();

    void messagesGoToTheLogFileAndToStderr();
    void logFileIsTheUsersAlone();
    void plantedLogFileIsNotWritten();
    void unusableLogDirectoryLeavesStderr();
    void identityLines();
    void lineFeedInAnArgumentIsShown();
    void logRulesTakeNoLine();

    void permissionMode_data();
    void permissionMode();

private:
    QString makeDirectory(const QString& relative);

    std::optional<PrivateTempDir> directory_;
    QByteArray pluginPath_;
    bool hadPluginPath_ = false;
};

void StartupTest::init()
{
    fakeplatform::reset();
    directory_.emplace();
    hadPluginPath_ = qEnvironmentVariableIsSet("QT_PLUGIN_PATH");
    pluginPath_ = qgetenv("QT_PLUGIN_PATH");
    qunsetenv("QT_PLUGIN_PATH");
}

void StartupTest::cleanup()
{
    if (hadPluginPath_)
        qputenv("QT_PLUGIN_PATH", pluginPath_);
    else
        qunsetenv("QT_PLUGIN_PATH");
    qInstallMessageHandler(nullptr);
    if (logFilePtr)
        std::fclose(logFilePtr);
    logFilePtr = nullptr;
    directory_.reset();
}

QString StartupTest::makeDirectory(const QString& relative)
{
    const QString path = directory_->filePath(relative);
    if (!QDir().mkpath(path))
        qFatal("Cannot make %s", qPrintable(path));
    return path;
}

void StartupTest::pluginDirectoryBesideTheExecutable()
{
    makeDirectory(QStringLiteral("PlugIns"));
    const QString executables = makeDirectory(QStringLiteral("MacOS"));
    startup::extendPluginPath(QFile::encodeName(executables + QStringLiteral("/recorder")).constData());
    QCOMPARE(qgetenv("QT_PLUGIN_PATH"), (executables + QStringLiteral("/../PlugIns")).toUtf8());
}

void StartupTest::pluginDirectoryHigherUpInABundle()
{
    makeDirectory(QStringLiteral("PlugIns"));
    const QString executables = makeDirectory(QStringLiteral("Helpers/Recorder.app/Contents/MacOS"));
    startup::extendPluginPath(QFile::encodeName(executables + QStringLiteral("/recorder")).constData());
    QCOMPARE(qgetenv("QT_PLUGIN_PATH"), (executables + QStringLiteral("/../../../../PlugIns")).toUtf8());
}

void StartupTest::nearerPluginDirectoryWins()
{
    makeDirectory(QStringLiteral("PlugIns"));
    makeDirectory(QStringLiteral("a/b/c/PlugIns"));
    const QString executables = makeDirectory(QStringLiteral("a/b/c/d"));
    startup::extendPluginPath(QFile::encodeName(executables + QStringLiteral("/recorder")).constData());
    QCOMPARE(qgetenv("QT_PLUGIN_PATH"), (executables + QStringLiteral("/../PlugIns")).toUtf8());
}

void StartupTest::oldPluginPathComesAfterAColon()
{
    makeDirectory(QStringLiteral("PlugIns"));
    const QString executables = makeDirectory(QStringLiteral("MacOS"));
    qputenv("QT_PLUGIN_PATH", "/opt/plugins:/opt/more");
    startup::extendPluginPath(QFile::encodeName(executables + QStringLiteral("/recorder")).constData());
    QCOMPARE(qgetenv("QT_PLUGIN_PATH"), executables.toUtf8() + "/../PlugIns:/opt/plugins:/opt/more");
}

void StartupTest::withoutPluginDirectoryNothingChanges()
{
    const QString executables = makeDirectory(QStringLiteral("a/b/c/d"));
    const QByteArray executable = QFile::encodeName(executables + QStringLiteral("/recorder"));
    const LogCapture log;
    startup::extendPluginPath(executable.constData());
    QVERIFY(!qEnvironmentVariableIsSet("QT_PLUGIN_PATH"));
    qputenv("QT_PLUGIN_PATH", "/opt/plugins");
    startup::extendPluginPath(executable.constData());
    QCOMPARE(qgetenv("QT_PLUGIN_PATH"), QByteArray("/opt/plugins"));
    QCOMPARE(log.messages(), QStringList());
}

void StartupTest::pluginDirectoryThatOthersCanChangeDoesNotCount()
{
    const QString near = makeDirectory(QStringLiteral("a/b/c/PlugIns"));
    const QString executables = makeDirectory(QStringLiteral("a/b/c/d"));
    const QByteArray executable = QFile::encodeName(executables + QStringLiteral("/recorder"));
    const auto own = QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner;
    QVERIFY(QFile::setPermissions(near, own | QFile::WriteOther));
    const QStringList refused{executables + QStringLiteral("/../PlugIns")};
    QCOMPARE(startup::extendPluginPath(executable.constData()), refused);
    QVERIFY(!qEnvironmentVariableIsSet("QT_PLUGIN_PATH"));

    // The other place then counts as if there was none here.
    makeDirectory(QStringLiteral("PlugIns"));
    QCOMPARE(startup::extendPluginPath(executable.constData()), refused);
    QCOMPARE(qgetenv("QT_PLUGIN_PATH"), (executables + QStringLiteral("/../../../../PlugIns")).toUtf8());

    const LogCapture log;
    startup::logRefusedPlugIns(refused);
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList{QStringLiteral("Plug-ins are not loaded from a place that other users can change: \"%1\"")
                        .arg(refused[0])});
    QVERIFY(QFile::setPermissions(near, own | QFile::WriteGroup));
    fakeplatform::state().administratorsGroup = QFileInfo(near).groupId();
    qunsetenv("QT_PLUGIN_PATH");
    QCOMPARE(startup::extendPluginPath(executable.constData()), QStringList());
    QCOMPARE(qgetenv("QT_PLUGIN_PATH"), (executables + QStringLiteral("/../PlugIns")).toUtf8());
}

void StartupTest::pluginDirectoryOfARelativeExecutable()
{
    makeDirectory(QStringLiteral("PlugIns"));
    makeDirectory(QStringLiteral("MacOS"));
    const QString before = QDir::currentPath();
    QVERIFY(QDir::setCurrent(directory_->path()));
    const QString current = QDir::currentPath();
    startup::extendPluginPath("MacOS/recorder");
    QVERIFY(QDir::setCurrent(before));
    QCOMPARE(qgetenv("QT_PLUGIN_PATH"), current.toUtf8() + "/MacOS/../PlugIns");
}

void StartupTest::pluginPathIsUtf8()
{
    makeDirectory(QStringLiteral("B\u00fcndel/PlugIns"));
    const QString executables = makeDirectory(QStringLiteral("B\u00fcndel/MacOS"));
    startup::extendPluginPath((executables + QStringLiteral("/recorder")).toLocal8Bit().constData());
    QCOMPARE(qgetenv("QT_PLUGIN_PATH"), executables.toUtf8() + "/../PlugIns");
}

void StartupTest::organization()
{
    const QString before = QCoreApplication::organizationName();
    startup::setOrganization();
    const QString name = QCoreApplication::organizationName();
    QCoreApplication::setOrganizationName(before);
    QCOMPARE(name, QStringLiteral("PEMLO"));
}

void StartupTest::stampIsSafeInAFileName()
{
    const QString format = QStringLiteral("yyyyMMdd'T'HHmmss.zzz");
    const QString before = QDateTime::currentDateTimeUtc().toString(format);
    const QString stamp = TimeStamp::RawUTC();
    const QString after = QDateTime::currentDateTimeUtc().toString(format);
    QVERIFY2(stampPattern.match(stamp).hasMatch(), qPrintable(stamp));
    const QString milliseconds = stamp.left(before.size());
    QVERIFY(before <= milliseconds && milliseconds <= after);
}

/// Recorders that are started together have a log each.
void StartupTest::stampsOfOneMillisecondDiffer()
{
    constexpr int threeDigitsAndZ = 4;
    const auto differ = [] {
        const QString first = TimeStamp::RawUTC();
        const QString second = TimeStamp::RawUTC();
        return first != second && first.chopped(threeDigitsAndZ) == second.chopped(threeDigitsAndZ);
    };
    bool found = false; // a millisecond may end between the two
    QTRY_VERIFY(found = found || differ());
}

void StartupTest::logPath_data()
{
    QTest::addColumn<QByteArray>("directory");
    QTest::addColumn<QString>("prefix");
    QTest::newRow("plain") << QByteArray("/var/log") << QStringLiteral("/var/log/");
    QTest::newRow("empty") << QByteArray("") << QStringLiteral("/");
    QTest::newRow("trailing slash stays") << QByteArray("/tmp/") << QStringLiteral("/tmp//");
    QTest::newRow("%1 in it") << QByteArray("/tmp/%1/x") << QStringLiteral("/tmp/%1/x/");
    QTest::newRow("%2 in it") << QByteArray("/tmp/%2") << QStringLiteral("/tmp/%2/");
    QTest::newRow("%3 in it") << QByteArray("/tmp/%3%1%3") << QStringLiteral("/tmp/%3%1%3/");
    QTest::newRow("utf-8") << QByteArray("/tmp/l\xc3\xb6g") << QStringLiteral("/tmp/l\u00f6g/");
}

void StartupTest::logPath()
{
    QFETCH(QByteArray, directory);
    QFETCH(QString, prefix);
    const QString path = startup::logFilePath(directory.constData());
    QVERIFY2(stampPattern.match(stampIn(path, prefix)).hasMatch(), qPrintable(path));
}

void StartupTest::missingDirectoryArgumentMeansTheRoot()
{
    const QString path = startup::logFilePath(nullptr);
    QVERIFY2(stampPattern.match(stampIn(path, QStringLiteral("/"))).hasMatch(), qPrintable(path));
}

void StartupTest::messagesGoToTheLogFileAndToStderr()
{
    const StderrCapture errors;
    startup::startLogging(startup::logFilePath(QFile::encodeName(directory_->path()).constData()));
    QMessageLogger("main", 10, "main").debug() << "recorder exiting" << 0;
    QVERIFY(logFilePtr);
    const QStringList files = QDir(directory_->path()).entryList(QDir::Files);
    QCOMPARE(files.size(), 1);
    QVERIFY2(stampPattern.match(stampIn(files.first(), QString())).hasMatch(), qPrintable(files.first()));
    QCOMPARE(
        contents(directory_->filePath(files.first())), QByteArray("Debug: recorder exiting 0 (main:10, main)\n"));
    QCOMPARE(errors.text(), QByteArray("Debug: recorder exiting 0 (main:10, main)\n"));
}

void StartupTest::logFileIsTheUsersAlone()
{
    const StderrCapture errors;
    const mode_t before = ::umask(0);
    startup::startLogging(startup::logFilePath(QFile::encodeName(directory_->path()).constData()));
    ::umask(before);
    const QStringList files = QDir(directory_->path()).entryList(QDir::Files);
    QCOMPARE(files.size(), 1);
    struct stat status = {};
    QCOMPARE(::stat(QFile::encodeName(directory_->filePath(files.first())).constData(), &status), 0);
    QCOMPARE(status.st_mode & 07777, mode_t(0600));
}

/// The name is a time, and can be guessed.
void StartupTest::plantedLogFileIsNotWritten()
{
    const StderrCapture errors;
    const QString precious = directory_->filePath(QStringLiteral("precious"));
    QFile file(precious);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("text") == 4);
    file.close();
    const QString path = startup::logFilePath(QFile::encodeName(directory_->path()).constData());
    QVERIFY(QFile::link(precious, path));
    startup::startLogging(path);
    QCOMPARE(logFilePtr, nullptr);
    QMessageLogger("main", 10, "main").debug() << "hello";
    QCOMPARE(contents(precious), QByteArray("text"));
    const QByteArrayList lines = errors.text().split('\n');
    QVERIFY2(lines[0].endsWith("-orvantis-recorder-log.txt: it is a symbolic link"), lines[0]);
    QCOMPARE(lines[1], QByteArray("Debug: hello (main:10, main)"));
}

void StartupTest::unusableLogDirectoryLeavesStderr()
{
    const StderrCapture errors;
    const QString missing = directory_->filePath(QStringLiteral("missing"));
    startup::startLogging(startup::logFilePath(QFile::encodeName(missing).constData()));
    QCOMPARE(logFilePtr, nullptr);
    QMessageLogger("main", 10, "main").debug() << "hello";
    const QByteArrayList lines = errors.text().split('\n');
    QCOMPARE(lines.size(), 3);
    const QString first = QString::fromUtf8(lines[0]);
    const QString opening = QStringLiteral("orvantis-recorder: cannot open the log file ") + missing;
    QVERIFY2(first.startsWith(opening + QLatin1Char('/')), qPrintable(first));
    QVERIFY2(
        first.endsWith(QStringLiteral("-orvantis-recorder-log.txt: No such file or directory")), qPrintable(first));
    QCOMPARE(lines[1], QByteArray("Debug: hello (main:10, main)"));
    QCOMPARE(lines[2], QByteArray());
}

void StartupTest::identityLines()
{
    qputenv("QT_PLUGIN_PATH", "/opt/plugins");
    qputenv("QT_MEDIA_BACKEND", "ffmpeg");
    qunsetenv("QT_QPA_PLATFORM_PLUGIN_PATH");
    QByteArray program("./recorder");
    QByteArray second("two words");
    char* arguments[] = {program.data(), second.data(), nullptr};
    const LogCapture log;
    startup::logIdentity(2, arguments);
    qunsetenv("QT_MEDIA_BACKEND");

    QString libraryPaths;
    for (const QString& path : QCoreApplication::libraryPaths())
        libraryPaths += (libraryPaths.isEmpty() ? QStringLiteral("\"") : QStringLiteral(", \"")) + path + u'"';
    const QStringList expected{QStringLiteral("0 ./recorder"), QStringLiteral("1 two words"),
        QStringLiteral("recorder process identity pid %1 applicationFilePath \"%2\" applicationDirPath \"%3\" "
                       "bundleIdentifier \"\" bundlePath \"\" bundleExecutablePath \"\"")
            .arg(QString::number(QCoreApplication::applicationPid()), QCoreApplication::applicationFilePath(),
                QCoreApplication::applicationDirPath()),
        QStringLiteral("recorder environment QT_PLUGIN_PATH \"/opt/plugins\" QT_QPA_PLATFORM_PLUGIN_PATH \"\" "
                       "QT_MEDIA_BACKEND \"ffmpeg\""),
        QStringLiteral("recorder Qt library paths QList(%1)").arg(libraryPaths)};
    QCOMPARE(log.messages(), expected);
    QCOMPARE(log.messages(QtDebugMsg), expected);
}

void StartupTest::lineFeedInAnArgumentIsShown()
{
    QByteArray program("a\nb\n");
    QByteArray other("\\n \t\r\x1b \"\xc3\xb6\" %1");
    char* arguments[] = {program.data(), other.data(), nullptr};
    const LogCapture log;
    startup::logIdentity(2, arguments);
    QCOMPARE(log.messages().value(0), QStringLiteral("0 a\\nb\\n"));
    QCOMPARE(log.messages().value(1), "1 " + QString::fromUtf8(other)); // as it is
}

void StartupTest::logRulesTakeNoLine()
{
    QLoggingCategory::setFilterRules(QStringLiteral("*=false\ndefault=false"));
    QVERIFY(!QLoggingCategory::defaultCategory()->isDebugEnabled());
    startup::keepEveryLogLine();
    const QLoggingCategory& own = *QLoggingCategory::defaultCategory();
    const bool all = own.isDebugEnabled() && own.isInfoEnabled() && own.isWarningEnabled() && own.isCriticalEnabled();
    static const QLoggingCategory other("orvantis.test.other");
    const bool others = other.isWarningEnabled();
    QLoggingCategory::installFilter(nullptr);
    QLoggingCategory::setFilterRules(QString());
    QVERIFY(all);
    QVERIFY(!others); // other libraries' lines stay under the rules
}

void StartupTest::permissionMode_data()
{
    const QString heldBefore = QStringLiteral("macOS screen recording preflight before request true");
    const QString missingBefore = QStringLiteral("macOS screen recording preflight before request false");
    const QString result = QStringLiteral("macOS screen recording request result %1 preflight after request %2");
    const QString completed = QStringLiteral("recorder permission preflight completed screenCaptureAllowed %1");
    const QString yes = QStringLiteral("true");
    const QString no = QStringLiteral("false");

    QTest::addColumn<QList<bool>>("preflight");
    QTest::addColumn<bool>("granted");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<int>("requests");
    QTest::addColumn<QStringList>("lines");
    QTest::newRow("held") << QList<bool>{true} << false << 0 << 0 << QStringList{heldBefore, completed.arg(yes)};
    QTest::newRow("granted and held") << QList<bool>{false, true} << true << 0 << 1
                                      << QStringList{missingBefore, result.arg(yes, yes), completed.arg(yes)};
    QTest::newRow("granted, not yet held") << QList<bool>{false, false} << true << 0 << 1
                                           << QStringList{missingBefore, result.arg(yes, no), completed.arg(yes)};
    QTest::newRow("refused, but held by then") << QList<bool>{false, true} << false << 0 << 1
                                               << QStringList{missingBefore, result.arg(no, yes), completed.arg(yes)};
    QTest::newRow("refused") << QList<bool>{false, false} << false << 2 << 1
                             << QStringList{missingBefore, result.arg(no, no), completed.arg(no)};
}

void StartupTest::permissionMode()
{
    QFETCH(QList<bool>, preflight);
    QFETCH(bool, granted);
    fakeplatform::state().preflightAnswers.assign(preflight.cbegin(), preflight.cend());
    fakeplatform::state().requestAnswer = granted;
    const LogCapture log;
    QTEST(startup::requestPermissions(), "exitCode");
    QTEST(fakeplatform::state().requestCalls, "requests");
    QCOMPARE(fakeplatform::state().enrolments, QTest::currentDataTag() == QByteArray("refused") ? 1 : 0);
    QTEST(log.messages(), "lines");
    QTEST(log.messages(QtDebugMsg), "lines");
}

ORVANTIS_TEST(StartupTest)
#include "startup_test.moc"
