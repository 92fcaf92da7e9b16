// What the worker does while it has nothing to do: nothing.
#include "fakeaudio.h"
#include "fakeplatform.h"
#include "ffmpegfaults.h"
#include "launcherserver.h"
#include "logcapture.h"
#include "privatetempdir.h"
#include "recorderprobe.h"
#include "testregistry.h"

#include <QTest>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <utility>

using namespace std::chrono_literals;

class IdleWorkerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void sleepsBesideAFrameThatIsPrepared();
};

/// The encoder ends shortly before the next capture, while the frame behind its own is prepared. Every turn of the
/// loop asks for audio.
void IdleWorkerTest::sleepsBesideAFrameThatIsPrepared()
{
    constexpr int patienceMs = 20000;
    constexpr int mostTurns = 50; // for an image; 10 ms apart there are some eight
    const PrivateTempDir directory;
    const LogCapture log;
    fakeplatform::reset();
    ffmpegfaults::reset();
    std::atomic<int> images{0};
    std::atomic<int> turns{0};
    std::atomic<std::chrono::steady_clock::time_point> lastImage{};
    fakeplatform::state().image = [&](int number) {
        ++images;
        lastImage = std::chrono::steady_clock::now();
        return fakeplatform::solidImage(160, 96, qRgb(number % 256, 120, 150));
    };
    fakeplatform::audio().lookup = fakeplatform::contentOf({});
    fakeplatform::audio().deliverUntil = [&](qint64) { ++turns; };
    ffmpegfaults::surroundings().processors = 2; // the encoder has a thread of its own
    // Until shortly before the next image is due, 41 ms after this one. The first time one image longer, so that from
    // then on there is always a frame behind the encoder's.
    ffmpegfaults::surroundings().atSendFrame = [&, isFirst = true]() mutable {
        std::this_thread::sleep_until(lastImage.load() + (std::exchange(isFirst, false) ? 78ms : 37ms));
    };
    LauncherServer launcher;
    const auto recorder = std::make_unique<GstRecorder>(QStringLiteral("qt-window-capture"),
        directory.filePath(QStringLiteral("out.mp4")), QStringLiteral("42"), 0, 0, 160, 96, 1.0, QString(), nullptr);
    RecorderProbe probe(*recorder);
    QTRY_VERIFY_WITH_TIMEOUT(ffmpegfaults::calls(ffmpegfaults::Call::SendFrame) > 3, patienceMs);
    const int imagesBefore = images;
    const int turnsBefore = turns;
    QTRY_VERIFY_WITH_TIMEOUT(images - imagesBefore >= 25, patienceMs);
    const double turnsAnImage = double(turns - turnsBefore) / (images - imagesBefore);
    QVERIFY(turnsAnImage > 1);
    QVERIFY2(turnsAnImage < mostTurns, qPrintable(QString::number(turnsAnImage)));
    recorder->stop();
    QVERIFY(probe.finalized().load());
    ffmpegfaults::reset();
}

ORVANTIS_TEST(IdleWorkerTest)
#include "idleworker_test.moc"
