// expect: Incorrect decrement of the reference count
#import <CoreGraphics/CoreGraphics.h>

void release(CFArrayRef windows)
{
    CFRelease(CFArrayGetValueAtIndex(windows, 0));
}
