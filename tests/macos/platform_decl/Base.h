// What the declarations in this folder share. They stand in for the system's own headers where there are none: each
// declares the calls that capture/macos makes, no more, in the words of the public documentation. A call that is not
// declared here does not compile in scripts/mac-check; on a Mac nobody sees this folder.
#pragma once

#ifndef ORVANTIS_PLATFORM_DECLARATIONS
#error "These declarations are for checks on other systems; a build on a Mac uses the system's headers."
#endif

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __APPLE__
// The Objective-C runtime and its root class have headers of their own, which are public.
#include <objc/NSObject.h>
#else
typedef bool BOOL; // as on the Mac's processors of today
typedef long NSInteger;
typedef unsigned long NSUInteger;
#define YES __objc_yes
#define NO __objc_no
#define nil nullptr
#endif

#define PLATFORM_C extern "C"
// As the frameworks' headers: a pointer that is not marked is never null, and what a function of Core Foundation's
// kind gives is named after what it gives ("create" and "copy": a reference).
#define PLATFORM_BEGIN _Pragma("clang assume_nonnull begin") _Pragma("clang arc_cf_code_audited begin")
#define PLATFORM_END _Pragma("clang arc_cf_code_audited end") _Pragma("clang assume_nonnull end")
#define PLATFORM_RETURNS_RETAINED __attribute__((cf_returns_retained))
#define PLATFORM_SINCE(version) __attribute__((availability(macos, introduced = version)))
#define PLATFORM_ENUM(type, name)                                                                                    \
    enum name : type name;                                                                                           \
    enum name : type
#define PLATFORM_OPTIONS(type, name)                                                                                 \
    typedef type name;                                                                                               \
    enum : type
