// Answers of the project's own rules that no platform brings about: they are replaced at link time.
#include "fakeaudio.h"
#include "testregistry.h"

#include "audioselection.h"
#include "fakeplatform.h"
#include "logcapture.h"
#include "recorderaudiocapture.h"

#include <QTest>

namespace {

bool leavesNobody = false;

}

// audioselection::partition() under its names for the linker (SELECTION_CALLS in CMakeLists.txt).
#define ORVANTIS_PARTITION                                                                                           \
    "_ZN14audioselection9partitionERKNS_6TargetERKSt6vectorIN8platform16AudioApplicationESaIS5_"                     \
    "EERKSt8functionIF7QStringxEE"
using ExecutableOf = std::function<QString(qint64)>;
using Applications = std::vector<platform::AudioApplication>;
audioselection::Partition realPartition(
    const audioselection::Target&, const Applications&, const ExecutableOf&) __asm__("__real_" ORVANTIS_PARTITION);
audioselection::Partition partitionInstead(
    const audioselection::Target&, const Applications&, const ExecutableOf&) __asm__("__wrap_" ORVANTIS_PARTITION);

audioselection::Partition partitionInstead(
    const audioselection::Target& target, const Applications& applications, const ExecutableOf& executableOf)
{
    return leavesNobody ? audioselection::Partition() : realPartition(target, applications, executableOf);
}

class CaptureFaultsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fakeplatform::reset(); }
    void cleanup() { leavesNobody = false; }

    void nobodyIsLeftToBeRecorded();
};

/// The application itself always belongs to itself, so its rule has to fail.
void CaptureFaultsTest::nobodyIsLeftToBeRecorded()
{
    fakeplatform::audio().lookup = fakeplatform::contentOf({{4242, QStringLiteral("org.player"), QString()}});
    leavesNobody = true;
    const LogCapture log;
    RecorderAudioCapture capture(QStringLiteral("app-pid:4242"));
    QVERIFY(!capture.isValid());
    QVERIFY(!capture.start());
    QVERIFY(capture.readAvailable().isEmpty());
    QCOMPARE(log.messages(),
        QStringList{QStringLiteral("macOS ScreenCaptureKit app-only audio filter resolved no included applications "
                                   "pid 4242 requested device \"app-pid:4242\"")});
    QCOMPARE(fakeplatform::audio().liveStreams, 0);

    leavesNobody = false;
    QVERIFY(RecorderAudioCapture(QStringLiteral("app-pid:4242")).isValid());
}

ORVANTIS_TEST(CaptureFaultsTest)
#include "capturefaults_test.moc"
