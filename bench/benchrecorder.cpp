#include "benchrecorder.h"

#include "logcapture.h"
#include "pacing.h"

namespace {

/// Without a window its worker logs that, and ends at once.
std::unique_ptr<GstRecorder> makeWindowlessRecorder(const QString& output, QSize canvas)
{
    const LogCapture hidden; // these warnings are expected
    auto recorder = std::make_unique<GstRecorder>(QStringLiteral("qt-window-capture"), output, QStringLiteral("0"), 0,
        0, canvas.width(), canvas.height(), 1.0, QString(), nullptr);
    RecorderProbe(*recorder).waitForWorker();
    return recorder;
}

}

BenchRecorder::BenchRecorder(QSize canvas)
    : recorder_(makeWindowlessRecorder(directory_.filePath(QStringLiteral("bench.mp4")), canvas)), probe_(*recorder_)
{
}

bool BenchRecorder::openFallbackOutput()
{
    return probe_.allocateContainer() && probe_.openFallbackVideoEncoder() && probe_.createVideoStream()
        && probe_.openFileAndWriteHeader() && probe_.allocateVideoFrame();
}

qint64 frameTimeMs(int frameIndex)
{
    return frameIndex * pacing::frameIntervalMs;
}

WindowImages::WindowImages(QSize window, int repaintsPerSecond, std::optional<truthscene::Presented> presented)
    : painting_(truthscene::paintStill(window)), repaintsPerSecond_(repaintsPerSecond), presented_(presented)
{
}

QImage WindowImages::at(int frameIndex)
{
    const qint64 timeMs = repaintsPerSecond_ > 0 ? frameTimeMs(frameIndex) : 0;
    const auto painting = quint32(timeMs * repaintsPerSecond_ / 1000);
    if (presented_) {
        const QRect area = truthscene::changingArea(painting_.size(), *presented_);
        truthscene::paintPhase(painting_, area, int(painting % truthscene::phaseCount));
    } else {
        const qint64 startedAtMs = 1'700'000'000'000; // some clock: the barcode shows it
        truthscene::paintAnimated(painting_, {painting & 0xffffff, quint32(startedAtMs + timeMs)});
    }
    return painting_.convertToFormat(QImage::Format_ARGB32);
}
