// What the recorder finds at descriptors 0, 1 and 2.
#include "privatexserver.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QFile>
#include <QTest>

namespace {

/// What a descriptor of the process is.
QString target(const RecorderProcess& recorder, int descriptor)
{
    return QFile::symLinkTarget(QStringLiteral("/proc/%1/fd/%2").arg(recorder.pid()).arg(descriptor));
}

}

class StandardStreamsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void closedDescriptors();

private:
    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;
};

void StandardStreamsTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    window_ = std::make_unique<TruthWindowProcess>(server_.display());
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
}

void StandardStreamsTest::closedDescriptors()
{
    RecordingScene scene(server_.display(), window_->id());
    scene.recorder.setWrapper({"sh", "-c", "exec \"$@\" <&- >&- 2>&-", "sh"});
    QVERIFY2(scene.startRecording(), scene.story());
    for (int descriptor = 0; descriptor <= 2; ++descriptor)
        QCOMPARE(target(scene.recorder, descriptor), QStringLiteral("/dev/null"));
    QVERIFY2(scene.stopAndExit(), scene.story());
    QCOMPARE(scene.log().last().text, QStringLiteral("recorder exiting 0"));
}

ORVANTIS_TEST(StandardStreamsTest)
#include "standardstreams_test.moc"
