// The system's texts as Qt's. Objective-C++ only.
#pragma once

#import <Foundation/Foundation.h>

#include <QString>

#include <optional>

#pragma clang assume_nonnull begin

namespace macos {

/// Empty for nil.
inline QString text(NSString* _Nullable string)
{
    return QString::fromUtf8([string UTF8String]);
}

/// What the error says to people; nothing when there is no error.
inline std::optional<QString> errorText(NSError* _Nullable error)
{
    if (!error)
        return std::nullopt;
    return text([error localizedDescription]);
}

}

#pragma clang assume_nonnull end
