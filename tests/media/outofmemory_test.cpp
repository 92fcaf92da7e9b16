// No memory while a frame is composed: the frames that need it are lost, and nothing else.
#include "allocationfaults.h"
#include "fakeplatform.h"
#include "launcherserver.h"
#include "logcapture.h"
#include "mediafile.h"
#include "privatetempdir.h"
#include "recorderprobe.h"
#include "testregistry.h"

#include <QTest>

#include <memory>

class OutOfMemoryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void compositionWithoutMemory();
};

void OutOfMemoryTest::compositionWithoutMemory()
{
    constexpr int patienceMs = 20000;
    const PrivateTempDir directory;
    fakeplatform::reset();
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(160, 96, qRgb(90, 120, 150)); };
    const LogCapture log;
    LauncherServer launcher;
    const auto recorder = std::make_unique<GstRecorder>(QStringLiteral("qt-window-capture"),
        directory.filePath(QStringLiteral("out.mp4")), QStringLiteral("42"), 0, 0, 160, 96, 1.0, QString(), nullptr);
    RecorderProbe probe(*recorder);
    QTRY_VERIFY_WITH_TIMEOUT(probe.recordingStartedAtMs().load() > 0, patienceMs);
    QTest::qWait(500); // frames without a click
    recorder->addClick(10, 10, -1, -1, 0);
    const double clickAtMs = double(probe.clicks().firstKey());
    QTest::qWait(300); // frames with one

    const allocationfaults::Refusal refusal(sizeof(GstRecorder::LiveClick));
    recorder->stop();
    QVERIFY(refusal.count() >= 3); // one a frame
    QVERIFY(probe.finalized().load());
    const QByteArray reply = "{\"duration\":" + QByteArray::number(probe.durationMs()) + "}\n";
    QTRY_VERIFY_WITH_TIMEOUT(launcher.received().endsWith(reply), patienceMs);
    QCOMPARE(log.messages(QtCriticalMsg),
        QStringList{QStringLiteral("Recorder worker was interrupted by an exception: std::bad_alloc")});
    MediaFile file(probe.outputPath());
    const QList<MediaFrame> frames = file.frames();
    QVERIFY2(file.isValid(), qPrintable(file.errorString()));
    QVERIFY(frames.size() >= 5);
    QVERIFY(frames.last().ptsMs < clickAtMs);
    QVERIFY(file.durationMs() > 0);
}

ORVANTIS_TEST(OutOfMemoryTest)
#include "outofmemory_test.moc"
