// ScreenCaptureKit: what can be captured, and streams of it.
#pragma once

#include <CoreGraphics/CoreGraphics.h>
#include <CoreMedia/CoreMedia.h>
#include <Foundation/Foundation.h>
#include <dispatch/dispatch.h>

typedef PLATFORM_ENUM(NSInteger, SCStreamOutputType) {
    SCStreamOutputTypeScreen = 0,
    SCStreamOutputTypeAudio PLATFORM_SINCE(13.0) = 1,
};

PLATFORM_SINCE(12.3) @interface SCRunningApplication : NSObject
@property(nonatomic, readonly, nonnull) NSString* bundleIdentifier;
@property(nonatomic, readonly, nonnull) NSString* applicationName;
@property(nonatomic, readonly) pid_t processID;
@end

PLATFORM_SINCE(12.3) @interface SCWindow : NSObject
@end

PLATFORM_SINCE(12.3) @interface SCDisplay : NSObject
@end

PLATFORM_SINCE(12.3) @interface SCShareableContent : NSObject
+ (void)getShareableContentExcludingDesktopWindows:(BOOL)excludeDesktopWindows
                               onScreenWindowsOnly:(BOOL)onScreenWindowsOnly
                                 completionHandler:(void (^_Nonnull)(SCShareableContent* _Nullable content,
                                                       NSError* _Nullable error))completionHandler;
@property(nonatomic, readonly, nonnull) NSArray<SCDisplay*>* displays;
@property(nonatomic, readonly, nonnull) NSArray<SCRunningApplication*>* applications;
- (nonnull instancetype)init __attribute__((unavailable));
+ (nonnull instancetype)new __attribute__((unavailable));
@end

PLATFORM_SINCE(12.3) @interface SCContentFilter : NSObject
- (nonnull instancetype)initWithDisplay:(nonnull SCDisplay*)display
                       excludingWindows:(nonnull NSArray<SCWindow*>*)excluded;
- (nonnull instancetype)initWithDisplay:(nonnull SCDisplay*)display
                  excludingApplications:(nonnull NSArray<SCRunningApplication*>*)applications
                       exceptingWindows:(nonnull NSArray<SCWindow*>*)exceptingWindows;
@end

PLATFORM_SINCE(12.3) @interface SCStreamConfiguration : NSObject
@property(nonatomic, assign) size_t width;
@property(nonatomic, assign) size_t height;
@property(nonatomic, assign) CMTime minimumFrameInterval;
@property(nonatomic, assign) NSInteger queueDepth;
@property(nonatomic, assign) BOOL showsCursor;
@property(nonatomic, assign) BOOL capturesAudio PLATFORM_SINCE(13.0);
@property(nonatomic, assign) NSInteger sampleRate PLATFORM_SINCE(13.0);
@property(nonatomic, assign) NSInteger channelCount PLATFORM_SINCE(13.0);
@property(nonatomic, assign) BOOL excludesCurrentProcessAudio PLATFORM_SINCE(13.0);
@end

@class SCStream;

PLATFORM_SINCE(12.3) @protocol SCStreamOutput <NSObject>
@optional
- (void)stream:(nonnull SCStream*)stream
    didOutputSampleBuffer:(nonnull CMSampleBufferRef)sampleBuffer
                   ofType:(SCStreamOutputType)type;
@end

PLATFORM_SINCE(12.3) @protocol SCStreamDelegate <NSObject>
@optional
- (void)stream:(nonnull SCStream*)stream didStopWithError:(nonnull NSError*)error;
@end

PLATFORM_SINCE(12.3) @interface SCStream : NSObject
- (nonnull instancetype)initWithFilter:(nonnull SCContentFilter*)contentFilter
                         configuration:(nonnull SCStreamConfiguration*)streamConfiguration
                              delegate:(nullable id<SCStreamDelegate>)delegate;
- (BOOL)addStreamOutput:(nonnull id<SCStreamOutput>)output
                   type:(SCStreamOutputType)type
     sampleHandlerQueue:(nullable dispatch_queue_t)sampleHandlerQueue
                  error:(NSError* _Nullable* _Nullable)error;
- (void)startCaptureWithCompletionHandler:(nullable void (^)(NSError* _Nullable error))completionHandler;
- (void)stopCaptureWithCompletionHandler:(nullable void (^)(NSError* _Nullable error))completionHandler;
- (nonnull instancetype)init __attribute__((unavailable));
+ (nonnull instancetype)new __attribute__((unavailable));
@end
