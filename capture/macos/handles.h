// Owners of the system's references. Objective-C++ only; references are counted by hand here, so the files that
// include this are built without automatic counting.
#pragma once

#import <CoreGraphics/CoreGraphics.h>
#import <Foundation/Foundation.h>

#include <memory>
#include <type_traits>
#include <utility>

#if __has_feature(objc_arc)
#error "References are counted by hand: build with -fno-objc-arc"
#endif

#pragma clang assume_nonnull begin

namespace macos {

/// Owns one reference to an Objective-C object, or nil. libdispatch's objects are such objects, too.
template <typename Object>
class Retained {
public:
    Retained() = default;
    /// Takes over the reference that alloc, new, copy or a create function gave.
    static Retained adopt(Object _Nullable object) { return Retained(object); }
    /// Takes a reference of its own.
    static Retained share(Object _Nullable object) { return Retained([object retain]); }

    Retained(Retained&& other) noexcept : object_(std::exchange(other.object_, nil)) { }
    Retained& operator=(Retained&& other) noexcept
    {
        std::swap(object_, other.object_);
        return *this;
    }
    Retained(const Retained&) = delete;
    Retained& operator=(const Retained&) = delete;
    ~Retained() { [object_ release]; }

    Object _Nullable get() const { return object_; }
    explicit operator bool() const { return object_ != nil; }

private:
    explicit Retained(Object _Nullable object) : object_(object) { }

    Object _Nullable object_ = nil;
};

// CFRelease() must not see null; unique_ptr calls no deleter for it.
struct CfDeleter {
    void operator()(CFTypeRef object) const { CFRelease(object); }
};
struct ImageDeleter {
    void operator()(CGImageRef image) const { CGImageRelease(image); }
};
struct ColorSpaceDeleter {
    void operator()(CGColorSpaceRef space) const { CGColorSpaceRelease(space); }
};
struct ContextDeleter {
    void operator()(CGContextRef context) const { CGContextRelease(context); }
};

/// Owns one reference to a CoreFoundation object of a type such as CFArrayRef.
template <typename Reference>
using CfHandle = std::unique_ptr<std::remove_pointer_t<Reference>, CfDeleter>;

using ImageHandle = std::unique_ptr<std::remove_pointer_t<CGImageRef>, ImageDeleter>;
using ColorSpaceHandle = std::unique_ptr<std::remove_pointer_t<CGColorSpaceRef>, ColorSpaceDeleter>;
using ContextHandle = std::unique_ptr<std::remove_pointer_t<CGContextRef>, ContextDeleter>;

}

#pragma clang assume_nonnull end
