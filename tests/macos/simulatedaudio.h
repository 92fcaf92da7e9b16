// A tone that the simulated system delivers as ScreenCaptureKit may: in blocks, at a pace of its own. All of it in
// simulated time. And what a recorder that reads it gets.
#pragma once

#include "macsim.h"
#include "recorderaudiocapture.h"

#include <QtGlobal>

#include <random>

/// How the blocks come.
struct AudioSchedule {
    int blockFrames = 480;
    bool planar = false;
    bool timed = true; ///< the blocks have a valid time; otherwise this one:
    qint64 wrongTimeNs = 1;
    quint32 wrongTimeFlags = 0;
    int wrongTimeScale = 1000000000;
    double latencyMs = 5; ///< from the end of a block until it comes, at least
    double jitterMs = 1; ///< by which it may come later
    double lateStartMs = 0; ///< after the start, until the audio begins
    double stallEveryMs = 0; ///< 0: never
    double stallMs = 0; ///< in which no block comes; they all come at its end
    double driftPpm = 0; ///< by which the device's clock is slower than the host's
    double interruptedMs = 0; ///< the program, every tenth block, while it reads the clocks
    double sleepAtMs = 0; ///< 0: never
    double sleepMs = 0;
};

/// What the tone has become.
struct AudioReport {
    int breaks = 0; ///< places where its phase jumps, or where it stops or begins
    qint64 paddedFrames = 0; ///< silence that the alignment put in after the tone began
    qint64 cutFrames = 0; ///< that the alignment left out
    double firstDelayMs
        = 0; ///< by which a sample lies later in the recording than its time, some time after the start
    double lastDelayMs = 0;
};

/// Plays so much time of it to the capture, which is started here, reads as the recorder's worker does and puts what
/// comes on the recording clock with its arithmetic.
AudioReport recordSimulatedAudio(RecorderAudioCapture& capture, const AudioSchedule& schedule, double durationMs);
