// CoreGraphics: the permission, window images and descriptions, bitmap contexts, the pointer. The function that makes
// window images is missing on purpose: newer headers take it away, so it is looked up at run time.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

PLATFORM_BEGIN

typedef double CGFloat;

typedef struct CGPoint {
    CGFloat x;
    CGFloat y;
} CGPoint;

typedef struct CGSize {
    CGFloat width;
    CGFloat height;
} CGSize;

typedef struct CGRect {
    CGPoint origin;
    CGSize size;
} CGRect;

PLATFORM_C const CGRect CGRectNull;
PLATFORM_C bool CGRectMakeWithDictionaryRepresentation(CFDictionaryRef _Nullable dictionary, CGRect* _Nullable rect);

PLATFORM_C bool CGPreflightScreenCaptureAccess(void) PLATFORM_SINCE(10.15);
PLATFORM_C bool CGRequestScreenCaptureAccess(void) PLATFORM_SINCE(10.15);

typedef uint32_t CGWindowID;

typedef PLATFORM_OPTIONS(uint32_t, CGWindowListOption){
    kCGWindowListOptionIncludingWindow = 1U << 3,
};

PLATFORM_C const CFStringRef kCGWindowBounds;
PLATFORM_C const CFStringRef kCGWindowIsOnscreen;
PLATFORM_C CFArrayRef _Nullable CGWindowListCopyWindowInfo(CGWindowListOption option, CGWindowID relativeToWindow);

typedef struct CGImage* CGImageRef;
PLATFORM_C size_t CGImageGetWidth(CGImageRef _Nullable image);
PLATFORM_C size_t CGImageGetHeight(CGImageRef _Nullable image);
PLATFORM_C void CGImageRelease(CGImageRef _Nullable image);

typedef struct CGColorSpace* CGColorSpaceRef;
PLATFORM_C CGColorSpaceRef _Nullable CGColorSpaceCreateDeviceRGB(void);
PLATFORM_C void CGColorSpaceRelease(CGColorSpaceRef _Nullable space);

enum CGImageAlphaInfo : uint32_t {
    kCGImageAlphaPremultipliedFirst = 2,
};
typedef PLATFORM_OPTIONS(uint32_t, CGBitmapInfo){
    kCGBitmapByteOrder32Little = 2U << 12,
};

typedef struct CGContext* CGContextRef;
PLATFORM_C CGContextRef _Nullable CGBitmapContextCreate(void* _Nullable data, size_t width, size_t height,
    size_t bitsPerComponent, size_t bytesPerRow, CGColorSpaceRef _Nullable space, uint32_t bitmapInfo);
PLATFORM_C void CGContextDrawImage(CGContextRef _Nullable context, CGRect rect, CGImageRef _Nullable image);
PLATFORM_C void CGContextRelease(CGContextRef _Nullable context);

typedef struct __CGEvent* CGEventRef;
typedef struct __CGEventSource* CGEventSourceRef;
PLATFORM_C CGEventRef _Nullable CGEventCreate(CGEventSourceRef _Nullable source);
PLATFORM_C CGPoint CGEventGetLocation(CGEventRef _Nullable event);

PLATFORM_END
