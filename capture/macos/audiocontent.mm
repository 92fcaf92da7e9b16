// What can be captured on the Mac, as ScreenCaptureKit tells of it, and the executables of running applications.
#include "containment.h"
#include "nativecontent.h"
#include "nstext.h"
#include "platform/audio.h"

#import <AppKit/AppKit.h>

#include <sys/types.h>

namespace platform {

using macos::NativeContent;
using macos::Retained;

namespace {

std::vector<AudioApplication> applicationsOf(NSArray<SCRunningApplication*>* list)
{
    const NSUInteger count = [list count];
    std::vector<AudioApplication> applications;
    applications.reserve(count);
    for (NSUInteger i = 0; i < count; ++i) {
        SCRunningApplication* application = [list objectAtIndex:i];
        applications.push_back({[application processID],
            macos::text([application bundleIdentifier]),
            macos::text([application applicationName])});
    }
    return applications;
}

/// Of nil: that there is nothing.
std::shared_ptr<const AudioContent> snapshot(SCShareableContent* content)
{
    const auto native = std::make_shared<NativeContent>();
    native->content = Retained<SCShareableContent*>::share(content);
    native->displays = Retained<NSArray<SCDisplay*>*>::share([content displays]);
    native->applications = Retained<NSArray<SCRunningApplication*>*>::share([content applications]);

    const auto result = std::make_shared<AudioContent>();
    result->displays = [native->displays.get() count];
    result->applications = applicationsOf(native->applications.get());
    result->native = native;
    return result;
}

}

void requestAudioContent(bool excludeDesktopWindows, bool onScreenWindowsOnly, AudioContentCompletion completion)
{
    @autoreleasepool {
        // The block's copy, which the system keeps, has a copy of the completion.
        [SCShareableContent
            getShareableContentExcludingDesktopWindows:excludeDesktopWindows
                                   onScreenWindowsOnly:onScreenWindowsOnly
                                     completionHandler:^(SCShareableContent* content, NSError* error) {
                                         @autoreleasepool {
                                             macos::contain([&] {
                                                 if (error)
                                                     completion(nullptr, macos::errorText(error));
                                                 else
                                                     completion(snapshot(content), std::nullopt);
                                             });
                                         }
                                     }];
    }
}

QString executablePath(qint64 processId)
{
    const auto id = pid_t(processId);
    if (id != processId)
        return QString();
    @autoreleasepool {
        NSRunningApplication* application = [NSRunningApplication runningApplicationWithProcessIdentifier:id];
        return macos::text([[application executableURL] path]);
    }
}

}
