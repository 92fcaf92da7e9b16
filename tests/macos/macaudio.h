// What the tests of an audio stream's life share.
#pragma once

#include "macbench.h"
#include "recorderaudiocapture.h"

#include <memory>

inline const macsim::Audio twoFrames = macsim::stereoAudio({1, 2, 3, 4});

/// A capture of the display, configured and started.
inline std::unique_ptr<RecorderAudioCapture> startedCapture(const MacBench& bench)
{
    auto capture = std::make_unique<RecorderAudioCapture>(QString());
    if (!capture->start())
        qFatal("not started: %s", qUtf8Printable(bench.log.messages().join(QLatin1Char('\n'))));
    return capture;
}
