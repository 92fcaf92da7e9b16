// The object that ScreenCaptureKit calls. Objective-C++ only.
#pragma once

#include "handles.h"
#include "screencapturekit.h"

#import <ScreenCaptureKit/ScreenCaptureKit.h>

#pragma clang assume_nonnull begin

@interface MacScreenAudioOutput : NSObject <SCStreamOutput, SCStreamDelegate> {
@public
    /// Not owned; null when no more calls are made. Read and written with the object's lock held (@synchronized),
    /// which is also held during a call of the owner: after null was set no call runs on another thread.
    const macos::OutputOwner* _Nullable _owner;
}
- (nullable instancetype)initWithOwner:(const macos::OutputOwner*)owner;
@end

namespace macos {

/// From now on the object, which may be nil, makes no call. Waits for a call that runs on another thread.
void disown(MacScreenAudioOutput* _Nullable output);

struct AudioOutput::Impl {
    explicit Impl(OutputOwner owner);

    const OutputOwner owner;
    const Retained<MacScreenAudioOutput*> object;
};

}

#pragma clang assume_nonnull end
