// expect: instance method '-startCaptureWithHandler:' not found
#import <ScreenCaptureKit/ScreenCaptureKit.h>

void start(SCStream* stream)
{
    [stream startCaptureWithHandler:nil];
}
