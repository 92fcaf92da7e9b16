// What is behind a ShareableContent. Objective-C++ only.
#pragma once

#include "handles.h"

#import <ScreenCaptureKit/ScreenCaptureKit.h>

namespace macos {

/// The lists are asked for once, so that an index names the same object for as long as the snapshot lives.
struct NativeContent {
    Retained<SCShareableContent*> content;
    Retained<NSArray<SCDisplay*>*> displays;
    Retained<NSArray<SCRunningApplication*>*> applications;
};

}
