// The functions of the Objective-C runtime that the adapter calls, for the simulated system: the GNU runtime's header
// brings another BOOL.
#pragma once

#include <Foundation/Foundation.h>

#pragma clang assume_nonnull begin

extern "C" {

/// The simulated system's, which can hide a class.
Class _Nullable objc_getClass(const char* name) __asm__("macsim_getClass");
SEL sel_registerName(const char* name);
}

#pragma clang assume_nonnull end
