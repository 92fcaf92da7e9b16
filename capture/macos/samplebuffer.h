// One block of audio, as CoreMedia hands it out, in the seam's terms. Objective-C++ only.
#pragma once

#include "platform/audio.h"

#import <CoreMedia/CoreMedia.h>

#pragma clang assume_nonnull begin

namespace macos {

/// A view of the block, which belongs to the system: valid during the call that delivers it.
platform::AudioSampleBuffer sampleBuffer(CMSampleBufferRef block);

/// When the first sample is heard, in nanoseconds of CoreMedia's host clock; nothing when that is not known.
std::optional<std::int64_t> hostTimeNs(CMSampleBufferRef block);

}

#pragma clang assume_nonnull end
