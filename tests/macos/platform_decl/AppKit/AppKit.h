// AppKit: this application and the running ones.
#pragma once

#include <Foundation/Foundation.h>

PLATFORM_BEGIN

typedef PLATFORM_ENUM(NSInteger, NSApplicationActivationPolicy){
    NSApplicationActivationPolicyAccessory = 1,
};

typedef PLATFORM_ENUM(NSUInteger, NSApplicationTerminateReply){
    NSTerminateCancel = 0,
    NSTerminateNow = 1,
};

@class NSApplication;

@protocol NSApplicationDelegate <NSObject>
@optional
- (NSApplicationTerminateReply)applicationShouldTerminate:(NSApplication*)sender;
@end

@interface NSApplication : NSObject
- (nullable id<NSApplicationDelegate>)delegate;
- (void)setDelegate:(nullable id<NSApplicationDelegate>)delegate;
@property (class, readonly, strong) __kindof NSApplication* sharedApplication;
- (BOOL)setActivationPolicy:(NSApplicationActivationPolicy)activationPolicy;
@end

@interface NSRunningApplication : NSObject
+ (nullable instancetype)runningApplicationWithProcessIdentifier:(pid_t)processId;
@property (readonly, copy, nullable) NSURL* executableURL;
@end

PLATFORM_END
