// expect: Nullable pointer is passed to a callee that requires a non-null
#import <CoreGraphics/CoreGraphics.h>

CFIndex windows()
{
    CFArrayRef list = CGWindowListCopyWindowInfo(kCGWindowListOptionIncludingWindow, 1);
    const CFIndex count = CFArrayGetCount(list);
    CFRelease(list);
    return count;
}
