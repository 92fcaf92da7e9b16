// CoreFoundation: arrays, dictionaries, and letting go of what was created or copied.
#pragma once

#include "../Base.h"

PLATFORM_BEGIN

typedef const void* CFTypeRef;
typedef signed long CFIndex;
typedef unsigned char Boolean;
typedef int32_t OSStatus;

typedef const struct __CFAllocator* CFAllocatorRef;
typedef const struct __attribute__((objc_bridge(NSArray))) __CFArray* CFArrayRef;
typedef const struct __attribute__((objc_bridge(NSDictionary))) __CFDictionary* CFDictionaryRef;
typedef const struct __attribute__((objc_bridge(NSString))) __CFString* CFStringRef;

typedef const struct __CFBoolean* CFBooleanRef;
PLATFORM_C Boolean CFBooleanGetValue(CFBooleanRef boolean);

PLATFORM_C const CFAllocatorRef _Nullable kCFAllocatorDefault;

PLATFORM_C void CFRelease(CFTypeRef object);
PLATFORM_C CFIndex CFArrayGetCount(CFArrayRef array);
PLATFORM_C const void* _Nullable CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index);
PLATFORM_C const void* _Nullable CFDictionaryGetValue(CFDictionaryRef dictionary, const void* _Nullable key);

PLATFORM_END
