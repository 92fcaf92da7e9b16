// One block of audio, as CoreMedia hands it out. Plain C++: no Objective-C, no Qt.
#pragma once

#include "platform/audioformat.h"

#include <cstdint>
#include <optional>

namespace macos {

/// A view of a buffer that belongs to the system: valid during the call that delivers it.
class SampleBuffer {
public:
    /// Made of a CMSampleBufferRef, which must not be null.
    explicit SampleBuffer(void* native) : native_(native) { }

    bool isValid() const;
    /// Nothing when the buffer tells no format of audio.
    std::optional<platform::AudioStreamDescription> description() const;
    /// When the first sample is heard, in nanoseconds of CoreMedia's host clock; nothing when that is not known.
    std::optional<std::int64_t> hostTimeNs() const;
    /// One sample of every channel each.
    std::int64_t frames() const;
    /// Nothing when the system fails to hand the samples out.
    std::optional<platform::AudioBufferList> bytes() const;

private:
    void* native_;
};

}
