#include "platform/recordinghold.h"

#include "handles.h"

#import <AppKit/AppKit.h>
#import <objc/runtime.h>

#pragma clang assume_nonnull begin

/// Answers for the application's delegate, which is Qt's, when the system wants the process to end. Qt's own answer
/// is "cancel" while its event loop runs, with which a log-out may be given up.
@interface MacQuitDelegate : NSObject <NSApplicationDelegate> {
@public
    const std::function<void()>* _finish; ///< not owned
    id _Nullable _previous; ///< not owned, as no delegate is
}
@end

#pragma clang assume_nonnull end

@implementation MacQuitDelegate

- (NSApplicationTerminateReply)applicationShouldTerminate:(NSApplication*)sender
{
    (*_finish)();
    return NSTerminateNow;
}

- (BOOL)respondsToSelector:(SEL)selector
{
    return [super respondsToSelector:selector] || [_previous respondsToSelector:selector];
}

- (id)forwardingTargetForSelector:(SEL)selector
{
    return _previous;
}

@end

namespace platform {

using macos::Retained;

namespace {

NSApplication* application()
{
    const Class type = objc_getClass("NSApplication");
    return [type respondsToSelector:@selector(sharedApplication)] ? [type sharedApplication] : nil;
}

// The user has asked for it, so it is neither throttled nor ended as unused; its timers are not put together. The Mac
// may still go to sleep.
constexpr NSActivityOptions options = NSActivityUserInitiatedAllowingIdleSystemSleep | NSActivityLatencyCritical;

}

struct RecordingHold::Impl {
    const std::function<void()> finish;
    Retained<id> activity;
    Retained<MacQuitDelegate*> delegate;
};

RecordingHold::RecordingHold(const std::function<void()>& finish) : impl_(new Impl{finish, {}, {}})
{
    @autoreleasepool {
        NSProcessInfo* process = [NSProcessInfo processInfo];
        if (NSString* reason = [NSString stringWithUTF8String:"A window is being recorded"])
            impl_->activity = Retained<id>::share([process beginActivityWithOptions:options reason:reason]);
        impl_->delegate = Retained<MacQuitDelegate*>::adopt([[MacQuitDelegate alloc] init]);
        MacQuitDelegate* delegate = impl_->delegate.get();
        delegate->_finish = &impl_->finish;
        delegate->_previous = [application() delegate];
        [application() setDelegate:delegate];
    }
}

RecordingHold::~RecordingHold()
{
    @autoreleasepool {
        if (id(impl_->delegate.get()) == id([application() delegate]))
            [application() setDelegate:impl_->delegate.get()->_previous];
        if (id activity = impl_->activity.get())
            [[NSProcessInfo processInfo] endActivity:activity];
    }
}

}
