// The start of a recorder's life: parameters, the order of construction, a set-up that fails.
#include "mediafile.h"
#include "numberedwindow.h"
#include "privatetempdir.h"
#include "recorderbench.h"
#include "testregistry.h"

#include <QCoreApplication>
#include <QFile>
#include <QTimer>

#include <limits>

namespace {

const QString setupFailedLine = QStringLiteral("macOS CoreGraphics window capture setup failed.");
const QString notAvailableLine = QStringLiteral("macOS window capture is not available.");

}

class RecorderStartTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void startLine();
    void canvasSize_data();
    void canvasSize();
    void commandThatIsWarnedOf_data();
    void commandThatIsWarnedOf();
    void commandChangesNothingElse();
    void textsAreTrimmedExceptTheWindow();
    void connectsBeforeItOpensTheWindow();

    void failedSetUpExitsWithTwo_data();
    void failedSetUpExitsWithTwo();
    void failedSetUpStopsAsUsual();
    void missingDirectoriesAreMade();
    void outputThatCannotBeOpenedEndsTheWorker();

private:
    void make(RecorderArguments arguments);
    RecorderProbe probe() { return RecorderProbe(*recorder_); }
    QString output() const { return directory_->filePath(QStringLiteral("out.mp4")); }

    std::optional<PrivateTempDir> directory_;
    std::optional<RecorderBench> bench_;
    std::optional<NumberedWindow> window_;
    std::unique_ptr<GstRecorder> recorder_;
};

void RecorderStartTest::init()
{
    directory_.emplace();
    bench_.emplace();
}

void RecorderStartTest::cleanup()
{
    recorder_.reset();
    QCOMPARE(fakeplatform::openWindows().load(), 0);
    window_.reset();
    bench_.reset();
    directory_.reset();
}

void RecorderStartTest::make(RecorderArguments arguments)
{
    if (arguments.output.isEmpty())
        arguments.output = output();
    recorder_ = makeRecorder(arguments);
}

void RecorderStartTest::startLine()
{
    RecorderArguments arguments;
    arguments.command = QStringLiteral(" Qt-Window-Capture ");
    arguments.output = directory_->filePath(QStringLiteral("clip-%03d.webm"));
    arguments.screenOriginX = -1920;
    arguments.screenOriginY = 25;
    arguments.canvasWidth = 321;
    arguments.canvasHeight = 99.5;
    arguments.scale = 1.25;
    make(arguments);
    const QString line = QStringLiteral("FFmpeg recorder starting command \"Qt-Window-Capture\" window \"42\" output "
                                        "\"%1/clip-001.mp4\" canvas 322 100 screen origin -1920 25 scale 1.25")
                             .arg(directory_->path());
    QCOMPARE(bench_->log.messages().first(), line);
    QVERIFY(bench_->log.messages(QtDebugMsg).contains(line));
}

void RecorderStartTest::canvasSize_data()
{
    QTest::addColumn<double>("requested");
    QTest::addColumn<int>("expected");
    QTest::newRow("0") << 0.0 << 16;
    QTest::newRow("1919.5") << 1919.5 << 1920;
    QTest::newRow("1920.5") << 1920.5 << 1922;
    QTest::newRow("1279.4") << 1279.4 << 1280;
    QTest::newRow("7") << 7.0 << 16;
    QTest::newRow("1921") << 1921.0 << 1922;
    QTest::newRow("negative") << -640.0 << 16;
    QTest::newRow("not a number") << std::numeric_limits<double>::quiet_NaN() << 16;
    QTest::newRow("1e308") << 1e308 << 2147483646;
}

void RecorderStartTest::canvasSize()
{
    QFETCH(double, requested);
    QFETCH(int, expected);
    RecorderArguments arguments;
    arguments.window = QStringLiteral("0");
    arguments.canvasWidth = requested;
    arguments.canvasHeight = 64;
    make(arguments);
    QCOMPARE(probe().canvasWidth(), expected);
    QCOMPARE(probe().canvasHeight(), 64);
    QVERIFY(bench_->log.messages().first().contains(QStringLiteral(" canvas %1 64 screen ").arg(expected)));
    arguments.canvasWidth = 64;
    arguments.canvasHeight = requested;
    make(arguments);
    QCOMPARE(probe().canvasWidth(), 64);
    QCOMPARE(probe().canvasHeight(), expected);
}

void RecorderStartTest::commandThatIsWarnedOf_data()
{
    QTest::addColumn<QString>("command");
    QTest::addColumn<QString>("quoted"); // empty: no warning
    QTest::newRow("as it is") << QStringLiteral("qt-window-capture") << QString();
    QTest::newRow("capitals") << QStringLiteral("QT-WINDOW-CAPTURE") << QString();
    QTest::newRow("mixed case") << QStringLiteral("Qt-Window-capture") << QString();
    QTest::newRow("blanks around") << QStringLiteral("\tqt-window-capture ") << QString();
    QTest::newRow("another") << QStringLiteral(" gdigrab ") << QStringLiteral("\"gdigrab\"");
    QTest::newRow("empty") << QString() << QStringLiteral("\"\"");
}

void RecorderStartTest::commandThatIsWarnedOf()
{
    QFETCH(QString, command);
    QFETCH(QString, quoted);
    RecorderArguments arguments;
    arguments.command = command;
    make(arguments);
    const QString warning = QStringLiteral("macOS recorder uses CoreGraphics window capture; requested command %1 "
                                           "will use CoreGraphics window capture.")
                                .arg(quoted);
    QCOMPARE(bench_->log.countStartingWith(QStringLiteral("macOS recorder uses")), quoted.isEmpty() ? 0 : 1);
    QCOMPARE(bench_->log.messages(QtWarningMsg).contains(warning), !quoted.isEmpty());
}

void RecorderStartTest::commandChangesNothingElse()
{
    window_.emplace();
    RecorderArguments arguments;
    arguments.command = QStringLiteral("gdigrab");
    make(arguments);
    QVERIFY(bench_->launcher.waitForReceived(1, patienceMs));
    QCOMPARE(bench_->launcher.received(), QByteArray("1"));
}

void RecorderStartTest::textsAreTrimmedExceptTheWindow()
{
    RecorderArguments arguments;
    arguments.command = QStringLiteral(" qt-window-capture\n");
    arguments.window = QStringLiteral(" 42 ");
    arguments.audioSource = QStringLiteral("  app-pid:7 ");
    make(arguments);
    QCOMPARE(probe().command(), QStringLiteral("qt-window-capture"));
    QCOMPARE(probe().audioSource(), QStringLiteral("app-pid:7"));
    QVERIFY(bench_->log.messages().first().contains(QStringLiteral(" window \" 42 \" output ")));
    QVERIFY(bench_->log.contains(
        QStringLiteral("macOS CoreGraphics capture requested for window id \" 42 \" parsed 42 ok true")));
}

void RecorderStartTest::connectsBeforeItOpensTheWindow()
{
    make({});
    QVERIFY(bench_->launcher.waitForConnection(patienceMs));
    QVERIFY(probe().windowCapture());
    QVERIFY(probe().windowCapture()->isValid());
    const QStringList lines = bench_->log.messages();
    QVERIFY(lines[0].startsWith(QStringLiteral("FFmpeg recorder starting ")));
    QCOMPARE(lines.mid(1, 3),
        (QStringList{QStringLiteral("macOS CoreGraphics capture requested for window id \"42\" parsed 42 ok true"),
            QStringLiteral("macOS screen recording preflight before request true"),
            QStringLiteral("macOS CoreGraphics capture configured for window 42")}));
}

void RecorderStartTest::failedSetUpExitsWithTwo_data()
{
    QTest::addColumn<QString>("window");
    QTest::addColumn<bool>("permitted");
    QTest::newRow("no window id") << QString() << true;
    QTest::newRow("no permission") << QStringLiteral("42") << false;
}

void RecorderStartTest::failedSetUpExitsWithTwo()
{
    QFETCH(QString, window);
    QFETCH(bool, permitted);
    fakeplatform::state().preflightAnswers = {permitted};
    fakeplatform::state().requestAnswer = permitted;
    RecorderArguments arguments;
    arguments.window = window;
    make(arguments);
    QTimer limit;
    connect(&limit, &QTimer::timeout, this, [] { QCoreApplication::exit(99); });
    limit.start(patienceMs);
    QCOMPARE(QCoreApplication::exec(), 2);

    probe().waitForWorker();
    QCOMPARE(probe().windowCapture(), nullptr);
    QCOMPARE(bench_->log.messages(QtWarningMsg).last(), setupFailedLine);
    QCOMPARE(bench_->log.count(setupFailedLine), 1);
    QCOMPARE(bench_->log.messages(QtCriticalMsg), QStringList{notAvailableLine});
    QVERIFY(probe().workerStarted().load());
    QVERIFY(probe().finalized().load());
    QVERIFY(!QFile::exists(output()));
    QCOMPARE(bench_->launcher.received(), QByteArray());
}

void RecorderStartTest::failedSetUpStopsAsUsual()
{
    RecorderArguments arguments;
    arguments.window = QStringLiteral("0");
    make(arguments);
    probe().waitForWorker();
    recorder_->stop();
    QVERIFY(bench_->launcher.waitForReceived(durationReply(0).size(), patienceMs));
    QCOMPARE(bench_->launcher.received(), durationReply(0));
    QCOMPARE(bench_->log.count(stoppedLine(0)), 1);
}

void RecorderStartTest::missingDirectoriesAreMade()
{
    RecorderArguments arguments;
    arguments.output = directory_->filePath(QStringLiteral("not/yet/there/out.mp4"));
    make(arguments);
    QTRY_VERIFY_WITH_TIMEOUT(probe().workerStarted().load(), patienceMs);
    recorder_->stop();
    MediaFile file(arguments.output);
    QCOMPARE(file.frames().size(), 1);
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
}

void RecorderStartTest::outputThatCannotBeOpenedEndsTheWorker()
{
    QFile obstacle(directory_->filePath(QStringLiteral("file")));
    QVERIFY(obstacle.open(QIODevice::WriteOnly));
    window_.emplace();
    RecorderArguments arguments;
    arguments.output = directory_->filePath(QStringLiteral("file/out.mp4"));
    make(arguments);
    probe().waitForWorker();
    QVERIFY(probe().finalized().load());
    QCOMPARE(window_->asked(), 0);
    QCOMPARE(bench_->log.messages(QtCriticalMsg).size(), 1);
    recorder_->stop();
    QVERIFY(bench_->launcher.waitForReceived(durationReply(0).size(), patienceMs));
    QCOMPARE(bench_->launcher.received(), durationReply(0));
}

ORVANTIS_TEST(RecorderStartTest)
#include "recorderstart_test.moc"
