// The audio of the fake platform: every answer is the test's, and every call is on record. fakeplatform::reset()
// resets it too.
#pragma once

#include "platform/audio.h"

#include <QByteArray>
#include <QString>

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace fakeplatform {

/// What the fake answers, and what it was asked. Set it before the capture is made; the functions run on whatever
/// thread asks.
struct AudioState {
    // ---- answers ----

    /// Answers a lookup. Unset: it fails with noAudioError.
    std::function<void(platform::AudioContentCompletion)> lookup;
    std::map<qint64, QString> executables; ///< by process id; none for the others
    /// Nothing: adding the output succeeds. Else it fails with that error, or without one.
    std::optional<std::optional<QString>> addOutputFailure;
    std::function<void(platform::AudioCompletion)> start; ///< unset: succeeds at once
    std::function<void(platform::AudioCompletion)> stop; ///< unset: succeeds at once
    /// Called with the instant; it may call deliver().
    std::function<void(qint64)> deliverUntil;
    /// What it is told then. Unset: that all of it was delivered.
    std::function<platform::AudioDelivery(qint64)> delivery;
    /// No wait is longer than this, whatever is asked for.
    std::chrono::milliseconds longestWait{100};

    // ---- record ----

    struct Lookup {
        bool excludeDesktopWindows;
        bool onScreenWindowsOnly;
    };
    std::vector<Lookup> lookups;
    std::vector<qint64> waits; ///< nanoseconds asked for, in order
    std::vector<qint64> executablesAsked; ///< process ids, in order
    std::vector<QByteArray> queueLabels;
    struct Stream {
        platform::AudioFilter filter;
        platform::AudioStreamConfiguration configuration;
    };
    std::vector<Stream> streams; ///< in the order of making
    int outputsAdded = 0;
    int starts = 0;
    int stops = 0;
    int lastDeliveries = 0; ///< calls of deliverUntil() that were to be the last
    int liveStreams = 0; ///< made and not yet destroyed
    int liveOutputs = 0;
    int liveQueues = 0;
};

inline const QString noAudioError = QStringLiteral("the fake platform has no audio");

AudioState& audio();

/// An answer for AudioState::lookup: one display and these applications, at once.
std::function<void(platform::AudioContentCompletion)> contentOf(
    std::vector<platform::AudioApplication> applications, std::size_t displays = 1);

/// Delivers a buffer to the output that was made last, as the system does. False when there is none. Any thread; the
/// output's destructor waits for it.
bool deliver(const platform::AudioSampleBuffer* buffer);
/// Delivers interleaved signed 16-bit stereo.
bool deliverStereo(const std::vector<qint16>& samples);
/// Tells that output that the stream stopped by itself.
bool stopStream(const std::optional<QString>& error);

}
