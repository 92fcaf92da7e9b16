// RecorderWithAudio: an idle recorder on a platform that has audio, and a recording clock that the test sets.
#pragma once

#include "fakeaudio.h"
#include "ffmpegfaults.h"
#include "idlerecorder.h"
#include "setclock.h"

#include <QByteArray>

#include <vector>

namespace testaudio {

inline constexpr int rate = 48000; ///< of the capture, hertz

/// So many frames, left and right alike: sample i has the value at(i).
template <typename Values>
std::vector<qint16> frames(qint64 first, qint64 count, Values at)
{
    std::vector<qint16> samples;
    samples.reserve(std::size_t(count) * 2);
    for (qint64 i = first; i < first + count; ++i)
        samples.insert(samples.end(), 2, at(i));
    return samples;
}

/// Never 0, never the same twice in a row, and the same for the same place.
inline qint16 noiseAt(qint64 place)
{
    const quint32 mixed = (quint32(place) * 2654435761u) ^ 0x9e3779b9u;
    return qint16(1 + ((mixed ^ (mixed >> 15)) % 20000u));
}

inline std::vector<qint16> noise(qint64 first, qint64 count)
{
    return frames(first, count, noiseAt);
}

inline std::vector<qint16> constant(qint64 count, qint16 value)
{
    return frames(0, count, [value](qint64) { return value; });
}

}

class RecorderWithAudio : public IdleRecorder {
public:
    using IdleRecorder::IdleRecorder;
    ~RecorderWithAudio() { setclock::elapsedMs().reset(); }

    /// Opens the output. True when it is open and has audio.
    bool openAudio()
    {
        giveAudio();
        return (**this).openOutput() && (**this).audioCodecContext();
    }

    /// From now on the platform has audio to offer.
    static void giveAudio() { fakeplatform::audio().lookup = fakeplatform::contentOf({}); }

    /// Starts clock and capture, as the recording loop does with the first frame.
    bool startAudio()
    {
        setTime(0);
        (**this).recordingClock().start();
        (**this).audioStarted() = (**this).audioCapture()->start();
        return (**this).audioStarted();
    }

    /// An open output with running audio. record() makes it: the name says what the file is to hold.
    bool openAndStart() { return openAudio() && startAudio(); }

    static void setTime(qint64 elapsedMs) { setclock::elapsedMs() = elapsedMs; }

    /// The recording loop's turn at this time.
    bool turn(qint64 elapsedMs)
    {
        setTime(elapsedMs);
        return (**this).encodePendingAudio();
    }

    /// The same with this audio having arrived before.
    bool turn(qint64 elapsedMs, const std::vector<qint16>& samples)
    {
        return fakeplatform::deliverStereo(samples) && turn(elapsedMs);
    }

    int queued() { return av_audio_fifo_size((**this).audioFifo()); }
    qint64 present() { return (**this).audioSamplesWritten() + queued(); }

    /// The end of a recording with audio, as the recording loop makes it.
    bool finishAudio()
    {
        (**this).stopAudioCapture();
        const bool drained = (**this).drainAudioEncoder();
        return finish() && drained;
    }

    /// An encoder for the one that is looked for first.
    static bool useEncoder(const char* name)
    {
        ffmpegfaults::surroundings().replacedEncoder.clear();
        ffmpegfaults::surroundings().replacement = avcodec_find_encoder_by_name(name);
        ffmpegfaults::surroundings().replacedEncoder = "aac";
        return ffmpegfaults::surroundings().replacement;
    }
};
