// expect: Potential leak of an object
#import <CoreGraphics/CoreGraphics.h>

CGPoint location()
{
    return CGEventGetLocation(CGEventCreate(nullptr));
}
