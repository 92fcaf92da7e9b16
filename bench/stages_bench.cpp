// stages-bench: what each stage of a frame costs: capture, composition, conversion, encoding. Every stage is
// the recorder's own code. Needs an X server: the one that DISPLAY names, or else a private one.
#include "benchrecorder.h"
#include "benchwindow.h"
#include "clickmarker.h"
#include "macwindowcapture.h"
#include "privatexserver.h"

#include <QCoreApplication>
#include <QDebug>
#include <QLoggingCategory>

#include <benchmark/benchmark.h>

#include <optional>
#include <vector>

namespace {

constexpr QSize fullHd(1920, 1080);
constexpr QSize ultraHd(3840, 2160);
constexpr int opaqueDepth = 24; // bits a pixel, of windows without an alpha channel
constexpr int alphaDepth = 32;
constexpr int repaintsPerSecond = 60; // of the window in the frames

bool anyFailed = false;

/// Ends a measurement whose conditions do not hold.
void fail(benchmark::State& state, const QString& reason)
{
    anyFailed = true;
    state.SkipWithError(qPrintable(reason));
}

/// Two arguments are a size in pixels, the first two or the next two.
QSize sizeArgument(const benchmark::State& state, int pair = 0)
{
    const auto first = std::size_t(pair) * 2;
    return QSize(int(state.range(first)), int(state.range(first + 1)));
}

/// A window of the size and depth that the arguments give, and its capture, warmed up.
class CapturedWindow {
public:
    explicit CapturedWindow(benchmark::State& state)
        : window_(sizeArgument(state), int(state.range(2))), capture_(QString::number(window_.id()))
    {
        if (!window_.errorString().isEmpty())
            fail(state, window_.errorString());
        else if (capture().isNull())
            fail(state, QStringLiteral("the window cannot be captured"));
    }

    QImage capture() const
    {
        QRect bounds;
        return capture_.capture(&bounds);
    }
    void paint(int changedPercent = 100) { window_.paint(changedPercent); }

private:
    BenchWindow window_;
    MacWindowCapture capture_;
};

// A changed window is read and copied; one with an alpha channel is also brought to straight alpha. The X server's
// share counts in the time, not in this process's processor time.
void captureChanged(benchmark::State& state)
{
    CapturedWindow window(state);
    QImage last;
    for (auto iteration : state) {
        state.PauseTiming();
        window.paint();
        state.ResumeTiming();
        const QImage image = window.capture();
        if (image.isNull() || image.cacheKey() == last.cacheKey()) {
            fail(state, QStringLiteral("the change was not captured"));
            break;
        }
        last = image;
    }
}

// The window is painted whole, and only a part of its pixels becomes another one.
void capturePresented(benchmark::State& state)
{
    CapturedWindow window(state);
    for (auto iteration : state) {
        state.PauseTiming();
        window.paint(int(state.range(3)));
        state.ResumeTiming();
        if (window.capture().isNull()) {
            fail(state, QStringLiteral("the window was not captured"));
            break;
        }
    }
}

void captureUnchanged(benchmark::State& state)
{
    const CapturedWindow window(state);
    const QImage first = window.capture();
    for (auto iteration : state) {
        if (window.capture().cacheKey() != first.cacheKey()) {
            fail(state, QStringLiteral("an unchanged window was captured anew"));
            break;
        }
    }
}

/// A capture of a window of that size, with the pointer on it.
RecorderProbe::CapturedFrame capturedFrame(QSize window)
{
    RecorderProbe::CapturedFrame frame;
    frame.image = WindowImages(window, repaintsPerSecond).at(0);
    frame.windowBounds = QRect(QPoint(0, 0), window);
    frame.cursorX = window.width() / 2.0;
    frame.cursorY = window.height() * 0.75;
    frame.hasCursor = true;
    return frame;
}

/// Clicks spread over the window and over the life of a marker, all alive at the last one's time, which is returned.
qint64 addClicks(RecorderProbe& probe, QSize window, qint64 count)
{
    const qint64 step = clickmarker::lifetimeMs / (count + 1);
    for (qint64 i = 1; i <= count; ++i) {
        const double fraction = double(i) / double(count + 1);
        probe.clicks().insert(
            i * step, {window.width() * fraction, window.height() * fraction, fraction, fraction, true});
    }
    return count * step;
}

void compose(benchmark::State& state)
{
    const QSize window = sizeArgument(state);
    BenchRecorder recorder(sizeArgument(state, 1));
    RecorderProbe::CapturedFrame frame = capturedFrame(window);
    frame.opaque = state.range(5) == opaqueDepth;
    const qint64 timeMs = addClicks(recorder.probe(), window, state.range(4));
    for (auto iteration : state) {
        frame.cursorX = frame.cursorX > 0.0 ? 0.0 : 1.0; // a frame like the last one would not be painted
        QImage canvas = recorder.probe().composeFrame(frame, timeMs);
        benchmark::DoNotOptimize(canvas);
    }
}

/// Composed images of successive frames, few enough for the memory.
std::vector<QImage> composedImages(BenchRecorder& recorder, QSize window)
{
    constexpr int count = 12;
    WindowImages frames(window, repaintsPerSecond);
    RecorderProbe::CapturedFrame frame = capturedFrame(window);
    std::vector<QImage> composed;
    for (int i = 0; i < count; ++i) {
        frame.image = frames.at(i);
        composed.push_back(recorder.probe().composeFrame(frame, 0));
    }
    return composed;
}

void convertPixels(benchmark::State& state)
{
    const QSize size = sizeArgument(state);
    BenchRecorder recorder(size);
    if (!recorder.openOutput()) {
        fail(state, QStringLiteral("the output cannot be opened"));
        return;
    }
    const std::vector<QImage> frames = composedImages(recorder, size);
    std::size_t next = 0;
    for (auto iteration : state) {
        if (!recorder.probe().transferPixels(frames[next++ % frames.size()])) {
            fail(state, QStringLiteral("the frame was not converted"));
            break;
        }
    }
}

/// Conversion, encoding and writing to the file, as one call does them.
void encodeFrames(benchmark::State& state, BenchRecorder& recorder, bool opened)
{
    if (!opened) {
        fail(state, QStringLiteral("the output cannot be opened"));
        return;
    }
    const std::vector<QImage> frames = composedImages(recorder, sizeArgument(state));
    int next = 0;
    for (auto iteration : state) {
        if (!recorder.probe().encodeImage(frames[std::size_t(next) % frames.size()], frameTimeMs(next))) {
            fail(state, QStringLiteral("the frame was not encoded"));
            break;
        }
        ++next;
    }
    recorder.probe().drainEncoder();
    recorder.probe().closeOutput();
}

void encodeMpeg4(benchmark::State& state)
{
    BenchRecorder recorder(sizeArgument(state));
    const bool opened = recorder.openOutput();
    encodeFrames(state, recorder, opened);
}

void encodeFfv1(benchmark::State& state)
{
    BenchRecorder recorder(sizeArgument(state));
    const bool opened = recorder.openFallbackOutput();
    encodeFrames(state, recorder, opened);
}

void bothSizes(benchmark::internal::Benchmark* stage)
{
    stage->ArgNames({"w", "h"});
    for (const QSize size : {fullHd, ultraHd})
        stage->Args({size.width(), size.height()});
}

void bothSizesAndDepths(benchmark::internal::Benchmark* stage)
{
    stage->ArgNames({"w", "h", "depth"});
    for (const int depth : {opaqueDepth, alphaDepth}) {
        for (const QSize size : {fullHd, ultraHd})
            stage->Args({size.width(), size.height(), depth});
    }
}

void changedParts(benchmark::internal::Benchmark* stage)
{
    stage->ArgNames({"w", "h", "depth", "changed_percent"});
    for (const int changed : {0, 25, 100}) {
        for (const QSize size : {fullHd, ultraHd})
            stage->Args({size.width(), size.height(), opaqueDepth, changed});
    }
}

void compositions(benchmark::internal::Benchmark* stage)
{
    stage->ArgNames({"w", "h", "canvas_w", "canvas_h", "clicks", "depth"});
    const auto add = [stage](QSize window, QSize canvas, int clicks, int depth) {
        stage->Args({window.width(), window.height(), canvas.width(), canvas.height(), clicks, depth});
    };
    for (const int depth : {opaqueDepth, alphaDepth}) {
        add(fullHd, fullHd, 0, depth);
        add(ultraHd, ultraHd, 0, depth);
        add(ultraHd, fullHd, 0, depth);
        add(fullHd, ultraHd, 0, depth);
    }
    add(fullHd, fullHd, 10, opaqueDepth);
}

// Painting and encoders use threads of their own, so the processor time is the whole process's.
void reportMilliseconds(benchmark::internal::Benchmark* stage)
{
    stage->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime();
}

/// A stage runs for a while before it is measured: memory that was never touched is slow.
void warmedUp(benchmark::internal::Benchmark* stage)
{
    reportMilliseconds(stage);
    stage->MinWarmUpTime(0.5)->MinTime(1.0);
}

/// The lossless encoder's first frame takes as long as several others; this many make two seconds of a recording.
void twoSeconds(benchmark::internal::Benchmark* stage)
{
    reportMilliseconds(stage);
    stage->Iterations(48);
}

BENCHMARK(captureChanged)->Apply(bothSizesAndDepths)->Apply(warmedUp);
BENCHMARK(capturePresented)->Apply(changedParts)->Apply(warmedUp);
BENCHMARK(captureUnchanged)->Apply(bothSizesAndDepths)->Apply(warmedUp);
BENCHMARK(compose)->Apply(compositions)->Apply(warmedUp);
BENCHMARK(convertPixels)->Apply(bothSizes)->Apply(warmedUp);
BENCHMARK(encodeMpeg4)->Apply(bothSizes)->Apply(warmedUp);
BENCHMARK(encodeFfv1)->Apply(bothSizes)->Apply(twoSeconds);

}

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false\n*.warning=false")); // no audio, lossless: known
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    std::optional<PrivateXServer> server;
    if (qEnvironmentVariableIsEmpty("DISPLAY")) {
        server.emplace(ultraHd);
        if (!server->isRunning()) {
            qCritical() << "No X server:" << server->errorString();
            return 1;
        }
        qputenv("DISPLAY", server->display());
    }
    const std::size_t measured = benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return measured > 0 && !anyFailed ? 0 : 1;
}
