// expect: cannot initialize a parameter of type
#import <ScreenCaptureKit/ScreenCaptureKit.h>

void start(SCStream* stream)
{
    [stream startCaptureWithCompletionHandler:^(int){}];
}
