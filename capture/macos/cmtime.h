// CoreMedia's rational time as a number. Objective-C++ only.
#pragma once

#import <CoreMedia/CoreMedia.h>

#include <cstdint>
#include <limits>
#include <optional>

namespace macos {

/// Nothing for a time that is not valid, is infinite or indefinite, or is beyond 64 bits.
inline std::optional<std::int64_t> nanoseconds(CMTime time)
{
    constexpr std::int64_t perSecond = 1000000000;
    constexpr std::int64_t mostSeconds = std::numeric_limits<std::int64_t>::max() / perSecond - 1;
    constexpr std::uint32_t kinds = kCMTimeFlags_Valid | kCMTimeFlags_ImpliedValueFlagsMask;
    if ((time.flags & kinds) != kCMTimeFlags_Valid || time.timescale <= 0)
        return std::nullopt;
    const std::int64_t seconds = time.value / time.timescale;
    if (seconds > mostSeconds || seconds < -mostSeconds)
        return std::nullopt;
    return seconds * perSecond + time.value % time.timescale * perSecond / time.timescale;
}

}
