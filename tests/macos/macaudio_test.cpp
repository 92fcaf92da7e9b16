// The configuration of the audio: content, applications, filter, stream and output, from ScreenCaptureKit up to
// RecorderAudioCapture.
#include "macbench.h"
#include "recorderaudiocapture.h"
#include "testregistry.h"

using macsim::answers;
using macsim::Application;
using macsim::Executable;
using macsim::When;

namespace {

const QString failedPrefix = QStringLiteral("macOS ScreenCaptureKit shareable content lookup failed: ");
const QString outputPrefix = QStringLiteral("macOS ScreenCaptureKit audio output setup failed: ");

Application application(std::int32_t processId, const std::string& bundle, const std::string& path)
{
    return {processId, bundle, "Application " + std::to_string(processId), Executable::Known, path};
}

/// What the filter leaves out.
std::optional<std::vector<std::int32_t>> processes(std::vector<std::int32_t> processIds)
{
    return processIds;
}

QString configuredLine(const QString& device, bool appOnly)
{
    return QStringLiteral("macOS ScreenCaptureKit audio capture configured requested device \"%1\" app-only %2")
        .arg(device, appOnly ? QStringLiteral("true") : QStringLiteral("false"));
}

}

class MacAudioTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void displayAudio();
    void answerBeforeTheCallReturns();
    void streamIsConfigured();
    void applicationAudio();
    void everythingOfOneBundleIsHeard();
    void applicationWithoutTexts();
    void namesDecideWithoutBundle();
    void executableThatCannotBeTold_data();
    void executableThatCannotBeTold();
    void nobodyIsExcluded();
    void pidOfNobody();
    void candidatesAreTwelveAtMost();
    void pidBeyond32Bits();
    void pidOfNoProcess_data();
    void pidOfNoProcess();

    void lookupFails_data();
    void lookupFails();
    void noDisplay_data();
    void noDisplay();
    void lookupTimesOut();
    void lookupAnswersLate_data();
    void lookupAnswersLate();

    void outputSetupFails_data();
    void outputSetupFails();

private:
    /// A capture that is configured, or fails the test.
    std::unique_ptr<RecorderAudioCapture> configured(const QString& device);

    std::optional<MacBench> bench_;
};

void MacAudioTest::init()
{
    bench_.emplace();
}

void MacAudioTest::cleanup()
{
    MAC_IS_CLEAN();
    bench_.reset();
}

std::unique_ptr<RecorderAudioCapture> MacAudioTest::configured(const QString& device)
{
    auto capture = std::make_unique<RecorderAudioCapture>(device);
    if (!capture->isValid() || macsim::record().streams.size() != 1)
        qFatal("not configured: %s", qUtf8Printable(bench_->log.messages().join(QLatin1Char('\n'))));
    return capture;
}

// ---- what is captured -------------------------------------------------------------------------------------------

void MacAudioTest::displayAudio()
{
    answers().displays = 3;
    answers().applications = {application(7, "org.seven", "/seven")};
    const auto capture = configured(QStringLiteral(" display "));
    const macsim::Record record = macsim::record();
    QCOMPARE(record.contents.size(), 1U);
    QVERIFY(record.contents[0].excludesDesktopWindows);
    QVERIFY(!record.contents[0].onScreenWindowsOnly);
    QCOMPARE(record.waits, std::vector<std::int64_t>{fiveSecondsNs});
    QCOMPARE(record.streams[0].display, 0);
    QVERIFY(!record.streams[0].excludedApplications);
    QCOMPARE(record.streams[0].windows, 0U);
    QCOMPARE(record.executablesAsked.size(), 0U);
    QCOMPARE(record.starts, 0);
    QCOMPARE(bench_->log.messages(), QStringList(configuredLine(QStringLiteral("display"), false)));
}

void MacAudioTest::answerBeforeTheCallReturns()
{
    answers().content = When::AtOnce;
    const auto capture = configured(QString());
    QVERIFY(capture->isValid());
}

void MacAudioTest::streamIsConfigured()
{
    const auto capture = configured(QString());
    const macsim::Record record = macsim::record();
    const macsim::StreamMade& made = record.streams[0];
    QCOMPARE(made.width, 2U);
    QCOMPARE(made.height, 2U);
    QCOMPARE(made.intervalValue, 1);
    QCOMPARE(made.intervalScale, 1);
    QCOMPARE(made.queueDepth, 1L);
    QVERIFY(!made.showsCursor);
    QVERIFY(made.capturesAudio);
    QCOMPARE(made.sampleRate, 48000L);
    QCOMPARE(made.channelCount, 2L);
    QVERIFY(!made.excludesCurrentProcessAudio);
    QVERIFY(made.hasDelegate);
    QCOMPARE(record.outputTypes, std::vector<long>{macsim::audioOutput});
    QCOMPARE(record.queueLabels, std::vector<std::string>{"com.orvantis.recorder.screencapturekit.audio"});
}

void MacAudioTest::applicationAudio()
{
    answers().applications = {
        application(1, "org.one", "/Applications/One.app/Contents/MacOS/One"),
        application(42, "org.player", "/Applications/Player.app/Contents/MacOS/Player"),
        application(43, "org.player.helper", "/Applications/Player.app/Contents/Helpers/X"),
        application(44, "org.other", "/Applications/Player.application/Other"),
    };
    const auto capture = configured(QStringLiteral("app-pid: 42"));
    const macsim::Record record = macsim::record();
    QCOMPARE(record.streams[0].display, 0);
    QCOMPARE(record.streams[0].excludedApplications, processes({1, 44}));
    QCOMPARE(record.streams[0].windows, 0U);
    QCOMPARE(record.executablesAsked.at(0), 42);
    QVERIFY(bench_->log.contains(QStringLiteral(
        "macOS ScreenCaptureKit audio limited by excluding other applications pid 42 name \"Application 42\" bundle "
        "\"org.player\" executable \"/Applications/Player.app/Contents/MacOS/Player\" app bundle root "
        "\"/Applications/Player.app\" allowed applications 2 excluded applications 2")));
    QVERIFY(bench_->log.contains(configuredLine(QStringLiteral("app-pid: 42"), true)));
}

void MacAudioTest::everythingOfOneBundleIsHeard()
{
    answers().applications
        = {application(1, "org.player", "/a"), application(42, "org.player", "/b"), application(3, "org.x", "/c")};
    const auto capture = configured(QStringLiteral("app-pid:42"));
    QCOMPARE(macsim::record().streams[0].excludedApplications, processes({3}));
}

void MacAudioTest::applicationWithoutTexts()
{
    const Application nameless{42, std::nullopt, std::nullopt, Executable::NoUrl, ""};
    const Application other{43, std::nullopt, std::nullopt, Executable::NoUrl, ""};
    answers().applications = {nameless, other};
    const auto capture = configured(QStringLiteral("app-pid:42"));
    QCOMPARE(macsim::record().streams[0].excludedApplications, processes({43}));
    QVERIFY(bench_->log.contains(
        QStringLiteral("macOS ScreenCaptureKit audio limited by excluding other applications pid 42 name \"\" bundle "
                       "\"\" executable "
                       "\"\" app bundle root \"\" allowed applications 1 excluded applications 1")));
}

void MacAudioTest::namesDecideWithoutBundle()
{
    answers().applications = {{42, std::nullopt, "Häuser", Executable::Known, "/usr/bin/x"},
        {43, "org.y", "Häuser", Executable::Known, "/usr/bin/y"}, {44, std::nullopt, "Z", Executable::Known, "/z"}};
    const auto capture = configured(QStringLiteral("app-pid:42"));
    QCOMPARE(macsim::record().streams[0].excludedApplications, processes({44}));
    QVERIFY(
        bench_->log.countStartingWith(QString::fromUtf8(
            "macOS ScreenCaptureKit audio limited by excluding other applications pid 42 name \"Häuser\" bundle "))
        == 1);
}

void MacAudioTest::executableThatCannotBeTold_data()
{
    QTest::addColumn<int>("executable");
    QTest::newRow("no address") << int(Executable::NoUrl);
    QTest::newRow("no path") << int(Executable::NoPath);
    QTest::newRow("no such process") << int(Executable::NoSuchProcess);
}

void MacAudioTest::executableThatCannotBeTold()
{
    QFETCH(const int, executable);
    Application target = application(42, "org.player", "/Applications/Player.app/Contents/MacOS/Player");
    target.executable = Executable(executable);
    answers().applications = {target, application(43, "org.x", "/Applications/Player.app/Contents/Helpers/X")};
    const auto capture = configured(QStringLiteral("app-pid:42"));
    QCOMPARE(macsim::record().streams[0].excludedApplications, processes({43}));
    QCOMPARE(
        bench_->log.countStartingWith(QStringLiteral(
            "macOS ScreenCaptureKit audio limited by excluding other applications pid 42 name \"Application 42\" "
            "bundle \"org.player\" executable \"\" app bundle root \"\" ")),
        1);
}

void MacAudioTest::nobodyIsExcluded()
{
    answers().applications = {application(42, "org.player", "/b")};
    const auto capture = configured(QStringLiteral("app-pid:42"));
    QCOMPARE(macsim::record().streams[0].excludedApplications, processes({}));
}

void MacAudioTest::pidOfNobody()
{
    answers().applications
        = {application(7, "org.seven", "/seven"), {8, std::nullopt, std::nullopt, Executable::Known, "/eight"}};
    const RecorderAudioCapture capture{QStringLiteral("app-pid:42")};
    QVERIFY(!capture.isValid());
    QCOMPARE(bench_->log.messages(),
        QStringList({QStringLiteral("macOS ScreenCaptureKit could not find requested app for app-only audio pid 42 "
                                    "requested device \"app-pid:42\" candidates 2"),
            QStringLiteral(
                "macOS ScreenCaptureKit audio app candidate pid 7 name \"Application 7\" bundle \"org.seven\""),
            QStringLiteral("macOS ScreenCaptureKit audio app candidate pid 8 name \"\" bundle \"\"")}));
    QVERIFY(macsim::record().streams.empty());
}

void MacAudioTest::candidatesAreTwelveAtMost()
{
    for (int i = 101; i <= 140; ++i)
        answers().applications.push_back(application(i, "org.many", "/many"));
    const RecorderAudioCapture capture{QStringLiteral("app-pid:42")};
    QVERIFY(!capture.isValid());
    QStringList expected{
        QStringLiteral("macOS ScreenCaptureKit could not find requested app for app-only audio pid 42 "
                       "requested device \"app-pid:42\" candidates 40")};
    for (int i = 101; i <= 112; ++i) {
        expected += QStringLiteral(
            "macOS ScreenCaptureKit audio app candidate pid %1 name \"Application %1\" bundle \"org.many\"")
                        .arg(i);
    }
    QCOMPARE(bench_->log.messages(), expected);
}

void MacAudioTest::pidBeyond32Bits()
{
    answers().applications = {application(42, "org.player", "/b")};
    const RecorderAudioCapture capture{QStringLiteral("app-pid:4294967338")};
    QVERIFY(!capture.isValid());
    QVERIFY(macsim::record().executablesAsked.empty());
    QVERIFY(macsim::record().streams.empty());
}

void MacAudioTest::pidOfNoProcess_data()
{
    QTest::addColumn<QString>("device");
    for (const char* device : {"app-pid:0", "app-pid:x", "app-pid:-5", "app-pid:"})
        QTest::newRow(device) << QString::fromLatin1(device);
}

void MacAudioTest::pidOfNoProcess()
{
    QFETCH(const QString, device);
    const RecorderAudioCapture capture{device};
    QVERIFY(!capture.isValid());
    QCOMPARE(bench_->log.messages(),
        QStringList(
            QStringLiteral("macOS app-only audio capture received an invalid app-pid device: \"%1\"").arg(device)));
    const macsim::Record record = macsim::record();
    QVERIFY(record.contents.empty() && record.executablesAsked.empty() && record.streams.empty());
    QVERIFY(record.waits.empty() && record.queueLabels.empty());
}

// ---- failures ---------------------------------------------------------------------------------------------------

void MacAudioTest::lookupFails_data()
{
    QTest::addColumn<bool>("hasText");
    QTest::addColumn<bool>("hasContent");
    QTest::addColumn<QString>("quoted");
    QTest::newRow("with a text") << true << false << "\"declined – ÄÖ\"";
    QTest::newRow("without a text") << false << false << "\"\"";
    QTest::newRow("with content all the same") << true << true << "\"declined – ÄÖ\"";
}

void MacAudioTest::lookupFails()
{
    QFETCH(const bool, hasText);
    QFETCH(const bool, hasContent);
    QFETCH(const QString, quoted);
    answers().contentBesideError = hasContent;
    answers().contentError = hasText ? macsim::Error("declined – ÄÖ") : macsim::Error();
    const RecorderAudioCapture capture{QString()};
    QVERIFY(!capture.isValid());
    QCOMPARE(bench_->log.messages(), QStringList(failedPrefix + quoted));
}

void MacAudioTest::noDisplay_data()
{
    QTest::addColumn<bool>("noContent");
    QTest::newRow("content without a display") << false;
    QTest::newRow("neither content nor error") << true;
}

void MacAudioTest::noDisplay()
{
    QFETCH(const bool, noContent);
    answers().noContent = noContent;
    answers().displays = 0;
    const RecorderAudioCapture capture{QString()};
    QVERIFY(!capture.isValid());
    QCOMPARE(bench_->log.messages(),
        QStringList(QStringLiteral("macOS ScreenCaptureKit found no capturable display for audio.")));
}

void MacAudioTest::lookupTimesOut()
{
    answers().content = When::Held;
    const RecorderAudioCapture capture{QString()};
    QVERIFY(!capture.isValid());
    QCOMPARE(bench_->log.messages(),
        QStringList(QStringLiteral("macOS ScreenCaptureKit shareable content lookup timed out.")));
    QCOMPARE(macsim::record().waits, std::vector<std::int64_t>{fiveSecondsNs});
    QCOMPARE(macsim::heldAnswers(), 1);
    macsim::forgetHeld();
}

void MacAudioTest::lookupAnswersLate_data()
{
    QTest::addColumn<bool>("fails");
    QTest::newRow("with content") << false;
    QTest::newRow("with an error") << true;
}

void MacAudioTest::lookupAnswersLate()
{
    QFETCH(const bool, fails);
    answers().content = When::Held;
    answers().applications = {application(42, "org.player", "/b")};
    {
        const RecorderAudioCapture capture{QString()};
        QVERIFY(!capture.isValid());
    }
    if (fails)
        answers().contentError = macsim::Error("late");
    bench_->log.clear();
    QVERIFY(macsim::answerHeld(macsim::Call::Content));
    QCOMPARE(bench_->log.messages(), QStringList());
    QVERIFY(macsim::record().streams.empty());
}

void MacAudioTest::outputSetupFails_data()
{
    QTest::addColumn<QString>("why");
    QTest::addColumn<QString>("quoted");
    QTest::newRow("with a text") << "text"
                                 << "\"no room\"";
    QTest::newRow("without a text") << "no text"
                                    << "\"\"";
    QTest::newRow("without an error") << "no error"
                                      << "\"unknown error\"";
    QTest::newRow("without a stream") << "no stream"
                                      << "\"unknown error\"";
}

void MacAudioTest::outputSetupFails()
{
    QFETCH(const QString, why);
    QFETCH(const QString, quoted);
    answers().addOutputFails = true;
    if (why == QLatin1String("text"))
        answers().addOutputError = macsim::Error("no room");
    else if (why == QLatin1String("no text"))
        answers().addOutputError = macsim::Error();
    answers().noStream = why == QLatin1String("no stream");
    RecorderAudioCapture capture{QString()};
    QVERIFY(!capture.isValid());
    QCOMPARE(bench_->log.messages(), QStringList(outputPrefix + quoted));
    macsim::settle();
    for (const char* name : {"SCStream", "MacScreenAudioOutput", "SimQueue"})
        QCOMPARE(macsim::live(name), 0); // given back at once, not at the end
    QVERIFY(!capture.start());
    QCOMPARE(macsim::record().starts, 0);
}

ORVANTIS_TEST(MacAudioTest)
#include "macaudio_test.moc"
