// What happens to a window while it is recorded.
#include "desktop.h"
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthcode.h"
#include "truthoverlay.h"
#include "truthreport.h"
#include "truthreporttext.h"
#include "truthscene.h"
#include "truthwindowprocess.h"

#include <QProcess>
#include <QRandomGenerator>
#include <QTest>

#include <algorithm>
#include <cmath>

namespace {

const QRect windowPlace(40, 30, 640, 360); // pixels of the screen
const auto noImage = QStringLiteral("macOS CoreGraphics capture returned no image for window ");

bool showsTruth(const QImage& frame, QSize window)
{
    return truthcode::decode(frame, truthscene::letterboxed(window, frame.size())).has_value();
}

}

class WindowLifeTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void covered();
    void moved();
    void resized();
    void minimisedAndRestored();
    void destroyed();
    void shownOnlyLater();
    void neverThere();

private:
    PrivateXServer server_;
    std::unique_ptr<Desktop> desktop_;
};

void WindowLifeTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    desktop_ = std::make_unique<Desktop>(server_.display());
    QVERIFY(desktop_->isConnected());
    desktop_->movePointer(QPoint(1900, 1190));
}

void WindowLifeTest::covered()
{
    TruthWindowProcess window(server_.display(), windowPlace);
    RecordingScene scene(server_.display(), window.id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(300), scene.story());
    const quint32 cover = desktop_->create(windowPlace.adjusted(-20, -20, 20, 20), 0x00ff00ff);
    QVERIFY(desktop_->isViewable(cover));
    QVERIFY2(scene.waitUntilRecorded(1500), scene.story());
    desktop_->destroy(cover);
    QVERIFY2(scene.stopAndExit(), scene.story());

    const TruthReport report = measureTruth(scene.command.output, {windowPlace.size(), {}, {}, {}});
    QVERIFY2(report.error.isEmpty(), qPrintable(report.error));
    QVERIFY(report.framesInFile > 10);
    QCOMPARE(report.framesDecoded, report.framesInFile);
    for (const TruthPatch& patch : report.patches)
        QVERIFY2(*std::max_element(patch.mean.begin(), patch.mean.end()) < 8.0, qPrintable(truthReportTable(report)));
}

void WindowLifeTest::moved()
{
    TruthWindowProcess window(server_.display(), windowPlace);
    const QPoint pointer(700, 520); // on the screen; inside the window at its last place
    const QPoint lastPlace(300, 250);
    desktop_->movePointer(pointer);
    RecordingScene scene(server_.display(), window.id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(100), scene.story());
    QRandomGenerator random(7);
    for (int i = 0; i < 30; ++i) {
        desktop_->place(
            window.id(), QRect(QPoint(random.bounded(-300, 1500), random.bounded(-200, 1000)), windowPlace.size()));
        QTest::qWait(30);
    }
    desktop_->place(window.id(), QRect(lastPlace, windowPlace.size()));
    QTest::qWait(500);
    QVERIFY2(scene.stopAndExit(), scene.story());
    desktop_->movePointer(QPoint(1900, 1190));

    const TruthReport report = measureTruth(scene.command.output, {windowPlace.size(), {}, {}, {}});
    QVERIFY2(report.error.isEmpty(), qPrintable(report.error));
    QCOMPARE(report.framesDecoded, report.framesInFile); // also where a part of it was off the screen
    const Playback file = playBack(scene.command.output);
    const QRect field = truthscene::layout(windowPlace.size()).field.adjusted(16, 16, -16, -16);
    const auto tip = truthoverlay::findPointer(file.last, field, 1.0);
    QVERIFY(tip);
    const QPointF expected = pointer - lastPlace;
    QVERIFY2(std::hypot(tip->x() - expected.x(), tip->y() - expected.y()) <= 1.5,
        qPrintable(QStringLiteral("%1,%2").arg(tip->x()).arg(tip->y())));
}

void WindowLifeTest::resized()
{
    TruthWindowProcess window(server_.display(), windowPlace);
    RecordingScene scene(server_.display(), window.id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(100), scene.story());
    QRandomGenerator random(11);
    for (int i = 0; i < 100; ++i) {
        const QSize size(random.bounded(1, 1400), random.bounded(1, 900));
        desktop_->place(window.id(), QRect(windowPlace.topLeft(), size));
        QTest::qWait(10);
    }
    const QSize lastSize(1000, 420);
    desktop_->place(window.id(), QRect(windowPlace.topLeft(), lastSize));
    QTest::qWait(700);
    QVERIFY2(scene.stopAndExit(), scene.story());

    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QVERIFY2(file.ptsMs.size() > 10, file.description());
    QCOMPARE(file.last.size(), QSize(640, 360));
    QVERIFY(showsTruth(file.last, lastSize));
    QVERIFY2(countLines(scene.log(), noImage) == 0, scene.story());
    QVERIFY2(countLines(scene.log(), QStringLiteral("Skipping frame with unexpected size")) == 0, scene.story());
}

void WindowLifeTest::minimisedAndRestored()
{
    PrivateXServer server; // of its own, for the window manager
    Desktop desktop(server.display());
    QVERIFY(desktop.isConnected());
    QProcess manager;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DISPLAY"), QString::fromLatin1(server.display()));
    manager.setProcessEnvironment(environment);
    manager.start(QStringLiteral("openbox"), {});
    QVERIFY2(manager.waitForStarted(), qPrintable(manager.errorString()));
    QTRY_VERIFY_WITH_TIMEOUT(desktop.windowManagerObeys(), hangLimitMs);

    TruthWindowProcess window(server.display(), windowPlace);
    QVERIFY2(window.id() != 0, qPrintable(window.errorString()));
    QTRY_VERIFY_WITH_TIMEOUT(desktop.isViewable(window.id()), hangLimitMs);
    RecordingScene scene(server.display(), window.id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(500), scene.story());
    desktop.iconify(window.id());
    QTRY_VERIFY_WITH_TIMEOUT(!desktop.isViewable(window.id()), hangLimitMs);
    QVERIFY2(scene.waitForLine(noImage), scene.story());
    QTest::qWait(1000);
    desktop.map(window.id());
    QTRY_VERIFY_WITH_TIMEOUT(desktop.isViewable(window.id()), hangLimitMs);
    QTest::qWait(700);
    QVERIFY2(scene.stopAndExit(), scene.story());
    QCOMPARE(countLines(scene.log(), noImage), 1);

    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    qsizetype gaps = 0;
    for (qsizetype i = 1; i < file.ptsMs.size(); ++i)
        gaps += file.ptsMs[i] - file.ptsMs[i - 1] >= 1000.0;
    QVERIFY2(gaps == 1, file.description()); // nothing was recorded meanwhile
    QVERIFY(showsTruth(file.last, windowPlace.size()));
    manager.terminate();
    QVERIFY(manager.waitForFinished());
}

void WindowLifeTest::destroyed()
{
    TruthWindowProcess window(server_.display(), windowPlace);
    RecordingScene scene(server_.display(), window.id());
    QVERIFY2(scene.startRecording(), scene.story());
    QVERIFY2(scene.waitUntilRecorded(500), scene.story());
    desktop_->destroy(window.id());
    QVERIFY2(scene.waitForLine(noImage + QString::number(window.id())), scene.story());
    QTest::qWait(500);
    const auto durationMs = scene.stop();
    QVERIFY2(durationMs && scene.exit(), scene.story());
    QCOMPARE(scene.recorder.exitCode(), 0);
    QCOMPARE(countLines(scene.log(), noImage), 1);
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QVERIFY2(file.ptsMs.last() + 500.0 <= double(*durationMs), file.description()); // its clock runs on
    QVERIFY(showsTruth(file.last, windowPlace.size()));
}

void WindowLifeTest::shownOnlyLater()
{
    const quint32 window = desktop_->create(windowPlace, 0x003060c0, false);
    RecordingScene scene(server_.display(), window);
    QVERIFY2(scene.start(), scene.story());
    QVERIFY2(scene.waitForLine(noImage + QString::number(window)), scene.story());
    QTest::qWait(300);
    QCOMPARE(scene.launcher.received(), "");
    desktop_->map(window);
    QVERIFY2(scene.launcher.waitForReceived(1, hangLimitMs), scene.story());
    QVERIFY2(scene.waitUntilRecorded(300), scene.story());
    QVERIFY2(scene.stopAndExit(), scene.story());
    QCOMPARE(countLines(scene.log(), noImage), 1);
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QVERIFY2(file.ptsMs.first() < 100.0, file.description());
    const QColor middle = file.last.pixelColor(file.last.rect().center());
    QVERIFY2(std::abs(middle.red() - 0x30) < 12 && std::abs(middle.green() - 0x60) < 12
            && std::abs(middle.blue() - 0xc0) < 12,
        qPrintable(middle.name()));
}

void WindowLifeTest::neverThere()
{
    const quint32 window = desktop_->create(windowPlace, 0, false);
    desktop_->destroy(window);
    RecordingScene scene(server_.display(), window);
    QVERIFY2(scene.start(), scene.story());
    QVERIFY2(scene.waitForLine(noImage), scene.story());
    QTest::qWait(300);
    QCOMPARE(scene.launcher.received(), "");
    // The file gets a black frame, which counts as readiness: the launcher hears both.
    QVERIFY(scene.launcher.send("{\"action\":\"stop\"}\n"));
    const QByteArray both = "1{\"duration\":41}\n";
    QVERIFY2(scene.launcher.waitForReceived(both.size(), hangLimitMs), scene.story());
    QVERIFY2(scene.exit(), scene.story());
    QCOMPARE(scene.launcher.received(), both);
    QCOMPARE(scene.recorder.exitCode(), 0);
    QCOMPARE(countLines(scene.log(), noImage), 1);
    const Playback file = playBack(scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
    QCOMPARE(file.ptsMs, QList<double>{0.0});
    QVERIFY(qGray(file.last.pixel(320, 180)) < 8);
}

ORVANTIS_TEST(WindowLifeTest)
#include "windowlife_test.moc"
