// One block of audio, as CoreMedia hands it out. Plain C++: no Objective-C, no Qt.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

namespace macos {

/// How the samples lie in memory. Identifiers and flags are CoreAudio's own numbers.
struct StreamDescription {
    std::uint32_t formatId = 0;
    std::uint32_t formatFlags = 0;
    std::uint32_t bytesPerFrame = 0;
    std::uint32_t channelsPerFrame = 0;
    std::uint32_t bitsPerChannel = 0;
};

struct SampleBytes {
    const void* data = nullptr; ///< may be null
    std::size_t bytes = 0; ///< readable at data
};

struct SampleBytesList {
    std::vector<SampleBytes> buffers;
    std::shared_ptr<const void> owner; ///< keeps their memory
};

/// A view of a buffer that belongs to the system: valid during the call that delivers it.
class SampleBuffer {
public:
    /// Made of a CMSampleBufferRef, which must not be null.
    explicit SampleBuffer(void* native) : native_(native) { }

    bool isValid() const;
    /// Nothing when the buffer tells no format of audio.
    std::optional<StreamDescription> description() const;
    /// When the first sample is heard, in nanoseconds of CoreMedia's host clock; nothing when that is not known.
    std::optional<std::int64_t> hostTimeNs() const;
    /// One sample of every channel each.
    std::int64_t frames() const;
    /// Nothing when the system fails to hand the samples out.
    std::optional<SampleBytesList> bytes() const;

private:
    void* native_;
};

}
