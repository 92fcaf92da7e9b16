// What the tests of an audio stream's life share.
#pragma once

#include "macbench.h"
#include "recorderaudiocapture.h"

#include <algorithm>
#include <chrono>
#include <memory>

/// 20 ms of a constant value.
inline const macsim::Audio loudAudio = macsim::stereoAudio(std::vector<std::int16_t>(2 * 960, 1000));

/// Asks for all that has been delivered, as if the recording ended, and tells whether it is more than silence.
inline bool isHeard(RecorderAudioCapture& capture)
{
    constexpr qint64 laterMs = 1000; // than the end of what is delivered now
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    capture.deliverUntil(std::chrono::duration_cast<std::chrono::milliseconds>(now).count() + laterMs, true);
    const auto chunks = capture.readAvailable();
    return std::any_of(chunks.begin(), chunks.end(),
        [](const RecorderAudioCapture::Chunk& chunk) { return chunk.pcm.count('\0') != chunk.pcm.size(); });
}

/// A capture of the display, configured and started.
inline std::unique_ptr<RecorderAudioCapture> startedCapture(const MacBench& bench)
{
    auto capture = std::make_unique<RecorderAudioCapture>(QString());
    if (!capture->start())
        qFatal("not started: %s", qUtf8Printable(bench.log.messages().join(QLatin1Char('\n'))));
    return capture;
}
