// The simulated pace of audio, the recorder's alignment, and the judgement of a tone.
#include "simulatedaudio.h"

#include "audioalignment.h"

#include <QtEndian>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <utility>

namespace {

constexpr int framesPerMs = 48;
constexpr int rate = 48000;
constexpr int period = 48; // of the tone: 1 kHz
constexpr double nsPerMs = 1e6;
constexpr qint64 hourNs = 3600000000000;

/// Left a tone of half the full scale, right a triangle that tells the milliseconds of the device.
constexpr int triangleMs = 15000;

double toneAt(qint64 frame)
{
    static const auto wave = [] {
        std::array<double, period> made{};
        for (int i = 0; i < period; ++i)
            made[std::size_t(i)] = 0.5 * std::sin(2 * M_PI * i / period);
        return made;
    }();
    return wave[std::size_t(frame % period)];
}

double triangleAt(double ms)
{
    const double place = std::fmod(ms, 2 * triangleMs);
    return place < triangleMs ? place : 2 * triangleMs - place;
}

/// Makes the blocks and tells when each comes.
class Device {
public:
    Device(const AudioSchedule& schedule, double startMs) : schedule_(schedule), startMs_(startMs) { prepare(); }

    double arrivalMs() const { return arrivalMs_; }

    void deliver(double hostBehindMs)
    {
        macsim::Audio audio = samples();
        if (schedule_.timed) {
            audio.timeNs = std::int64_t((timeMs(next_) - hostBehindMs) * nsPerMs);
            audio.timeFlags = 1;
        } else {
            audio.timeNs = schedule_.wrongTimeNs;
            audio.timeFlags = schedule_.wrongTimeFlags;
            audio.timeScale = schedule_.wrongTimeScale;
        }
        macsim::deliver(audio);
        next_ += schedule_.blockFrames;
        prepare();
    }

    /// On the steady clock, had the machine not slept.
    double timeMs(qint64 frame) const
    {
        return startMs_ + schedule_.lateStartMs + double(frame) / framesPerMs * (1 + schedule_.driftPpm * 1e-6);
    }

private:
    void prepare()
    {
        std::uniform_real_distribution<double> jitter(0, schedule_.jitterMs);
        double at = timeMs(next_ + schedule_.blockFrames) + schedule_.latencyMs + jitter(random_);
        if (schedule_.stallEveryMs > 0) {
            const double inPeriod = std::fmod(at - startMs_, schedule_.stallEveryMs);
            const double stallFrom = schedule_.stallEveryMs - schedule_.stallMs;
            if (inPeriod > stallFrom)
                at += schedule_.stallEveryMs - inPeriod;
        }
        arrivalMs_ = std::max(arrivalMs_, at);
    }

    macsim::Audio samples() const
    {
        const auto frames = std::size_t(schedule_.blockFrames);
        std::vector<float> left(frames);
        std::vector<float> right(frames);
        for (std::size_t i = 0; i < frames; ++i) {
            const qint64 frame = next_ + qint64(i);
            left[i] = float(toneAt(frame));
            right[i] = float(triangleAt(double(frame) / framesPerMs) / 32768.0);
        }
        macsim::Audio audio;
        audio.formatFlags = 1 | 8 | (schedule_.planar ? 32U : 0U);
        audio.bytesPerFrame = schedule_.planar ? 4 : 8;
        audio.channels = 2;
        audio.bitsPerChannel = 32;
        audio.frames = schedule_.blockFrames;
        const auto bytes = [](const std::vector<float>& values) {
            std::vector<std::uint8_t> made(values.size() * sizeof(float));
            std::memcpy(made.data(), values.data(), made.size());
            return made;
        };
        if (schedule_.planar) {
            audio.buffers = {bytes(left), bytes(right)};
            return audio;
        }
        std::vector<float> both;
        for (std::size_t i = 0; i < frames; ++i)
            both.insert(both.end(), {left[i], right[i]});
        audio.buffers = {bytes(both)};
        return audio;
    }

    AudioSchedule schedule_;
    double startMs_;
    qint64 next_ = 0; // frame
    double arrivalMs_ = 0;
    std::mt19937 random_{7};
};

/// Finds where a sine stops being one: there each sample follows from the two before it.
class PhaseWatch {
public:
    void add(int sample)
    {
        const double twoCos = 2 * std::cos(2 * M_PI / period);
        const double off = std::abs(sample + before_[1] - twoCos * before_[0]);
        before_ = {double(sample), before_[0]};
        ++count_;
        if (off > most && count_ - lastOff_ > apart)
            ++breaks;
        if (off > most)
            lastOff_ = count_;
    }
    /// The onset is none.
    void forgive() { breaks = 0; }
    int breaks = 0;

private:
    static constexpr double most = 60; // of 32768: what rounding and a slow change of speed leave is below 10
    static constexpr qint64 apart = 10 * framesPerMs;

    std::array<double, 2> before_{};
    qint64 count_ = 0;
    qint64 lastOff_ = -apart;
};

/// The recorder's audio on its clock, as it aligns it.
class Recording {
public:
    explicit Recording(const AudioSchedule& schedule) : schedule_(schedule) { }

    void take(const QList<RecorderAudioCapture::Chunk>& chunks, qint64 elapsedMs)
    {
        if (chunks.isEmpty())
            return;
        qint64 batch = 0;
        for (const auto& chunk : chunks)
            batch += audioalignment::msFromSamples(chunk.frames, rate);
        qint64 cursor = audioalignment::batchStartMs(elapsedMs, batch);
        for (const auto& chunk : chunks) {
            pad(cursor);
            const auto part = audioalignment::usedPart(cursor, chunk.frames, present_, rate);
            cursor += audioalignment::msFromSamples(chunk.frames, rate);
            report.cutFrames += isJudged() ? chunk.frames - part.keep : 0;
            for (qint64 i = part.drop; i < part.drop + part.keep; ++i)
                put(sampleAt(chunk, i, 0), sampleAt(chunk, i, 1));
        }
        pad(elapsedMs);
    }

    AudioReport report;

private:
    static int sampleAt(const RecorderAudioCapture::Chunk& chunk, qint64 frame, int channel)
    {
        return qFromLittleEndian<qint16>(chunk.pcm.constData() + frame * 4 + channel * 2);
    }

    bool isJudged() const { return double(present_) / framesPerMs > schedule_.lateStartMs + 1000; }

    void pad(qint64 untilMs)
    {
        const qint64 missing = audioalignment::missingSamples(untilMs, present_, rate);
        report.paddedFrames += isJudged() ? std::max<qint64>(missing, 0) : 0;
        for (qint64 i = 0; i < missing; ++i)
            put(0, 0);
    }

    void put(int left, int right)
    {
        watch_.add(left);
        ++present_;
        if (!isJudged()) {
            watch_.forgive();
            return;
        }
        report.breaks = watch_.breaks;
        // On the triangle's way up, away from its tips.
        const double playedMs = double(present_) / framesPerMs - schedule_.lateStartMs;
        const bool slept = schedule_.sleepAtMs > 0 && playedMs > schedule_.sleepAtMs + schedule_.sleepMs;
        const double deviceMs = (playedMs - (slept ? schedule_.sleepMs : 0)) / (1 + schedule_.driftPpm * 1e-6);
        const double rising = std::fmod(deviceMs, 2 * triangleMs);
        if (rising < 500 || rising > triangleMs - 500)
            return;
        const double delay = rising - right;
        report.lastDelayMs = delay;
        if (!delayKnown_)
            report.firstDelayMs = delay;
        delayKnown_ = true;
    }

    AudioSchedule schedule_;
    qint64 present_ = 0; // frames
    PhaseWatch watch_;
    bool delayKnown_ = false;
};

}

AudioReport recordSimulatedAudio(RecorderAudioCapture& capture, const AudioSchedule& schedule, double durationMs)
{
    constexpr double startMs = 7200000; // any instant
    constexpr double hostBehindMs = double(hourNs) / nsPerMs; // the machine has slept before
    double sleptMs = 0;
    const auto setClocks = [&sleptMs](double atMs) {
        macsim::setClocks(std::int64_t((atMs + sleptMs) * nsPerMs), std::int64_t((atMs - hostBehindMs) * nsPerMs));
    };
    setClocks(startMs);
    if (!capture.start())
        qFatal("not started");
    Device device(schedule, startMs);
    Recording recording(schedule);
    std::mt19937 random{11};
    std::uniform_real_distribution<double> turn(1, 10); // between two turns of the recorder's worker
    double readMs = startMs;
    int blocks = 0;
    std::function<void()> interruption; // the next one
    macsim::setHostClockRead([&interruption] {
        if (const auto happens = std::exchange(interruption, nullptr))
            happens();
    });
    while (readMs < startMs + durationMs) {
        if (schedule.sleepAtMs > 0 && readMs > startMs + schedule.sleepAtMs)
            sleptMs = schedule.sleepMs;
        if (device.arrivalMs() <= readMs) {
            setClocks(device.arrivalMs());
            if (++blocks % 10 == 0)
                interruption = [&, now = device.arrivalMs()] { setClocks(now + schedule.interruptedMs); };
            device.deliver(hostBehindMs);
            continue;
        }
        setClocks(readMs);
        const auto nowMs = qint64(readMs + sleptMs);
        capture.deliverUntil(nowMs);
        recording.take(capture.readAvailable(), nowMs - qint64(startMs));
        readMs += turn(random);
    }
    macsim::setHostClockRead(nullptr);
    return recording.report;
}
