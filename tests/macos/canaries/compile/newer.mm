// expect: is only available on macOS 15.0 or newer
#import <ScreenCaptureKit/ScreenCaptureKit.h>

@interface SCStreamConfiguration (Newer)
@property (nonatomic, assign) BOOL captureMicrophone PLATFORM_SINCE(15.0);
@end

void configure(SCStreamConfiguration* configuration)
{
    [configuration setCaptureMicrophone:YES];
}
