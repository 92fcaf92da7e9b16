// expect: conflicting parameter types in implementation
#import <ScreenCaptureKit/ScreenCaptureKit.h>

@interface Receiver : NSObject <SCStreamOutput>
@end

@implementation Receiver
- (void)stream:(SCStream*)stream didOutputSampleBuffer:(CMSampleBufferRef)buffer ofType:(int)type
{
    (void)stream, (void)buffer, (void)type;
}
@end
