// expect: undefined symbol: _CGWindowListCreateImage
#import <CoreGraphics/CoreGraphics.h>

extern "C" CGImageRef CGWindowListCreateImage(CGRect, uint32_t, CGWindowID, uint32_t);

CGImageRef image(CGWindowID window)
{
    return CGWindowListCreateImage(CGRectNull, 8, window, 1);
}
