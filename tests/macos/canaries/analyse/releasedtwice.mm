// expect: Reference-counted object is used after it is released
#import <ScreenCaptureKit/ScreenCaptureKit.h>

void configure()
{
    SCStreamConfiguration* configuration = [[SCStreamConfiguration alloc] init];
    [configuration release];
    [configuration setWidth:2];
}
