// AppKit: this application and the running ones.
#pragma once

#include <Foundation/Foundation.h>

typedef PLATFORM_ENUM(NSInteger, NSApplicationActivationPolicy) {
    NSApplicationActivationPolicyAccessory = 1,
};

@interface NSApplication : NSObject
@property(class, readonly, strong, nonnull) __kindof NSApplication* sharedApplication;
- (BOOL)setActivationPolicy:(NSApplicationActivationPolicy)activationPolicy;
@end

@interface NSRunningApplication : NSObject
+ (nullable instancetype)runningApplicationWithProcessIdentifier:(pid_t)processId;
@property(readonly, copy, nullable) NSURL* executableURL;
@end
