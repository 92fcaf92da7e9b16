// audio-bench: what a recorded second of audio costs the worker: intake, resampling, encoding, writing. The
// recorder's own code; the audio comes from the fake platform. A time of 10 ms is 1 % of one processor while a
// recording runs.
#include "audiosampleintake.h"
#include "fakeaudio.h"
#include "launcherserver.h"
#include "privatetempdir.h"
#include "recorderprobe.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

namespace {

constexpr int rate = 48000; // hertz
constexpr int turnsPerSecond = 100; // the worker takes audio about every 10 ms
constexpr int framesPerTurn = rate / turnsPerSecond;

bool anyFailed = false;

/// A tone with two overtones, stereo.
std::vector<float> secondOfAudio()
{
    std::vector<float> samples;
    for (int i = 0; i < rate; ++i) {
        const double phase = 2.0 * M_PI * 440.0 * i / rate;
        const double value = 0.3 * std::sin(phase) + 0.1 * std::sin(2.0 * phase) + 0.05 * std::sin(5.0 * phase);
        samples.push_back(float(value));
        samples.push_back(float(0.5 * value));
    }
    return samples;
}

/// One turn's part of it, as a platform delivers it.
platform::AudioSampleBuffer bufferOf(const std::vector<float>& second, int turn)
{
    platform::AudioSampleBuffer buffer;
    buffer.description = platform::AudioStreamDescription{.formatFlags = platform::pcmIsFloat,
        .bytesPerFrame = 2 * sizeof(float),
        .channelsPerFrame = 2,
        .bitsPerChannel = 8 * sizeof(float)};
    buffer.frames = framesPerTurn;
    const float* first = second.data() + std::ptrdiff_t(turn) * framesPerTurn * 2;
    buffer.bufferList = [first] {
        return platform::AudioBufferList{{{first, framesPerTurn * 2 * sizeof(float)}}, nullptr};
    };
    return buffer;
}

void intake(benchmark::State& state)
{
    const std::vector<float> second = secondOfAudio();
    for (auto iteration : state) {
        for (int turn = 0; turn < turnsPerSecond; ++turn) {
            const auto buffer = bufferOf(second, turn);
            const auto list = buffer.bufferList();
            benchmark::DoNotOptimize(audiointake::toChunk(*buffer.description, buffer.frames, list->buffers));
        }
    }
}

// The recording clock does not run, so nothing is placed by it: the audio comes faster than real time here.
void record(benchmark::State& state)
{
    fakeplatform::audio().lookup = fakeplatform::contentOf({});
    const PrivateTempDir directory;
    const LauncherServer launcher;
    GstRecorder recorder(QStringLiteral("qt-window-capture"), directory.filePath(QStringLiteral("out.mp4")),
        QStringLiteral("0"), 0, 0, 160, 96, 1.0, QString(), nullptr);
    RecorderProbe probe(recorder);
    probe.waitForWorker();
    if (!probe.openOutput() || !probe.audioCodecContext()) {
        anyFailed = true;
        state.SkipWithError("the output cannot be opened with audio");
        return;
    }
    probe.audioStarted() = probe.audioCapture()->start();
    const std::vector<float> second = secondOfAudio();
    for (auto iteration : state) {
        for (int turn = 0; turn < turnsPerSecond; ++turn) {
            const auto buffer = bufferOf(second, turn);
            fakeplatform::deliver(&buffer);
            probe.encodePendingAudio();
        }
    }
    if (probe.audioSamplesWritten() < state.iterations() * qint64(rate) * 9 / 10) {
        anyFailed = true;
        state.SkipWithError("audio was lost");
    }
}

void perSecond(benchmark::internal::Benchmark* stage)
{
    stage->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()->UseRealTime()->MinWarmUpTime(0.5)->MinTime(1.0);
}

BENCHMARK(intake)->Apply(perSecond);
BENCHMARK(record)->Apply(perSecond);

}

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(
        QStringLiteral("*.debug=false\n*.warning=false\n*.critical=false")); // no window: known
    av_log_set_level(AV_LOG_ERROR);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    const std::size_t measured = benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return measured > 0 && !anyFailed ? 0 : 1;
}
