// ScreenCaptureKit: what can be captured, and streams of it.
#pragma once

#include <CoreGraphics/CoreGraphics.h>
#include <CoreMedia/CoreMedia.h>
#include <Foundation/Foundation.h>
#include <dispatch/dispatch.h>

PLATFORM_BEGIN

typedef PLATFORM_ENUM(NSInteger, SCStreamOutputType){
    SCStreamOutputTypeScreen = 0,
    SCStreamOutputTypeAudio PLATFORM_SINCE(13.0) = 1,
};

PLATFORM_SINCE(12.3) @interface SCRunningApplication : NSObject
@property (nonatomic, readonly) NSString* bundleIdentifier;
@property (nonatomic, readonly) NSString* applicationName;
@property (nonatomic, readonly) pid_t processID;
@end

PLATFORM_SINCE(12.3) @interface SCWindow : NSObject
@end

PLATFORM_SINCE(12.3) @interface SCDisplay : NSObject
@end

PLATFORM_SINCE(12.3) @interface SCShareableContent : NSObject
+ (void)getShareableContentExcludingDesktopWindows:(BOOL)excludeDesktopWindows
                               onScreenWindowsOnly:(BOOL)onScreenWindowsOnly
                                 completionHandler:(void (^)(SCShareableContent* _Nullable content,
                                                       NSError* _Nullable error))completionHandler;
@property (nonatomic, readonly) NSArray<SCDisplay*>* displays;
@property (nonatomic, readonly) NSArray<SCRunningApplication*>* applications;
- (instancetype)init __attribute__((unavailable));
+ (instancetype)new __attribute__((unavailable));
@end

PLATFORM_SINCE(12.3) @interface SCContentFilter : NSObject
- (instancetype)initWithDisplay:(SCDisplay*)display excludingWindows:(NSArray<SCWindow*>*)excluded;
- (instancetype)initWithDisplay:(SCDisplay*)display
          excludingApplications:(NSArray<SCRunningApplication*>*)applications
               exceptingWindows:(NSArray<SCWindow*>*)exceptingWindows;
@end

PLATFORM_SINCE(12.3) @interface SCStreamConfiguration : NSObject
@property (nonatomic, assign) size_t width;
@property (nonatomic, assign) size_t height;
@property (nonatomic, assign) CMTime minimumFrameInterval;
@property (nonatomic, assign) NSInteger queueDepth;
@property (nonatomic, assign) BOOL showsCursor;
@property (nonatomic, assign) BOOL capturesAudio PLATFORM_SINCE(13.0);
@property (nonatomic, assign) NSInteger sampleRate PLATFORM_SINCE(13.0);
@property (nonatomic, assign) NSInteger channelCount PLATFORM_SINCE(13.0);
@property (nonatomic, assign) BOOL excludesCurrentProcessAudio PLATFORM_SINCE(13.0);
@end

@class SCStream;

PLATFORM_SINCE(12.3) @protocol SCStreamOutput<NSObject>
@optional
- (void)stream:(SCStream*)stream
    didOutputSampleBuffer:(CMSampleBufferRef)sampleBuffer
                   ofType:(SCStreamOutputType)type;
@end

PLATFORM_SINCE(12.3) @protocol SCStreamDelegate<NSObject>
@optional
- (void)stream:(SCStream*)stream didStopWithError:(NSError*)error;
@end

PLATFORM_SINCE(12.3) @interface SCStream : NSObject
- (instancetype)initWithFilter:(SCContentFilter*)contentFilter
                 configuration:(SCStreamConfiguration*)streamConfiguration
                      delegate:(nullable id<SCStreamDelegate>)delegate;
- (BOOL)addStreamOutput:(id<SCStreamOutput>)output
                   type:(SCStreamOutputType)type
     sampleHandlerQueue:(nullable dispatch_queue_t)sampleHandlerQueue
                  error:(NSError* _Nullable* _Nullable)error;
- (void)startCaptureWithCompletionHandler:(nullable void (^)(NSError* _Nullable error))completionHandler;
- (void)stopCaptureWithCompletionHandler:(nullable void (^)(NSError* _Nullable error))completionHandler;
- (instancetype)init __attribute__((unavailable));
+ (instancetype)new __attribute__((unavailable));
@end

PLATFORM_END
