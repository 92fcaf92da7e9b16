// expect: Potential leak of an object
#import <ScreenCaptureKit/ScreenCaptureKit.h>

void configure(size_t width)
{
    SCStreamConfiguration* configuration = [[SCStreamConfiguration alloc] init];
    [configuration setWidth:width];
}
