// The system's texts as UTF-8. Objective-C++ only.
#pragma once

#import <Foundation/Foundation.h>

#include <optional>
#include <string>

namespace macos {

/// Empty for nil.
inline std::string text(NSString* string)
{
    const char* utf8 = [string UTF8String];
    return utf8 ? std::string(utf8) : std::string();
}

/// What the error says to people; nothing when there is no error.
inline std::optional<std::string> errorText(NSError* error)
{
    if (!error)
        return std::nullopt;
    return text([error localizedDescription]);
}

}
