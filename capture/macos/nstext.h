// The system's texts as UTF-8. Objective-C++ only.
#pragma once

#import <Foundation/Foundation.h>

#include <optional>
#include <string>

#pragma clang assume_nonnull begin

namespace macos {

/// Empty for nil.
inline std::string text(NSString* _Nullable string)
{
    const char* _Nullable utf8 = [string UTF8String];
    return utf8 ? std::string(utf8) : std::string();
}

/// What the error says to people; nothing when there is no error.
inline std::optional<std::string> errorText(NSError* _Nullable error)
{
    if (!error)
        return std::nullopt;
    return text([error localizedDescription]);
}

}

#pragma clang assume_nonnull end
