#include "nativecontent.h"
#include "nstext.h"
#include "screencapturekit.h"

namespace macos {

namespace {

std::vector<Application> applicationsOf(NSArray<SCRunningApplication*>* list)
{
    const NSUInteger count = [list count];
    std::vector<Application> applications;
    applications.reserve(count);
    for (NSUInteger i = 0; i < count; ++i) {
        SCRunningApplication* application = [list objectAtIndex:i];
        applications.push_back(
            {[application processID], text([application bundleIdentifier]), text([application applicationName])});
    }
    return applications;
}

/// Of nil: that there is nothing.
std::shared_ptr<const ShareableContent> snapshot(SCShareableContent* content)
{
    const auto native = std::make_shared<NativeContent>();
    native->content = Retained<SCShareableContent*>::share(content);
    native->displays = Retained<NSArray<SCDisplay*>*>::share([content displays]);
    native->applications = Retained<NSArray<SCRunningApplication*>*>::share([content applications]);

    const auto result = std::make_shared<ShareableContent>();
    result->displays = [native->displays.get() count];
    result->applications = applicationsOf(native->applications.get());
    result->native = native;
    return result;
}

}

void requestShareableContent(bool excludeDesktopWindows, bool onScreenWindowsOnly, ContentCompletion completion)
{
    @autoreleasepool {
        // The block's copy, which the system keeps, has a copy of the completion.
        [SCShareableContent
            getShareableContentExcludingDesktopWindows:excludeDesktopWindows
                                   onScreenWindowsOnly:onScreenWindowsOnly
                                     completionHandler:^(SCShareableContent* content, NSError* error) {
                                         @autoreleasepool {
                                             if (error)
                                                 completion(nullptr, errorText(error));
                                             else
                                                 completion(snapshot(content), std::nullopt);
                                         }
                                     }];
    }
}

}
