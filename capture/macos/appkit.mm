#include "appkit.h"

#include "nstext.h"

#import <AppKit/AppKit.h>
#import <objc/runtime.h>

#include <sys/types.h>

namespace macos {

void becomeAccessory()
{
    @autoreleasepool {
        const Class type = objc_getClass("NSApplication");
        if (![type respondsToSelector:@selector(sharedApplication)])
            return;
        NSApplication* application = [type sharedApplication];
        if ([application respondsToSelector:@selector(setActivationPolicy:)])
            [application setActivationPolicy:NSApplicationActivationPolicyAccessory];
    }
}

std::string mainBundleString(const char* selectorName)
{
    @autoreleasepool {
        const Class type = objc_getClass("NSBundle");
        const SEL selector = sel_registerName(selectorName);
        if (!selector || ![type respondsToSelector:@selector(mainBundle)])
            return std::string();
        NSBundle* bundle = [type mainBundle];
        if (![bundle respondsToSelector:selector])
            return std::string();
        const id value = [bundle performSelector:selector];
        return [value respondsToSelector:@selector(UTF8String)] ? text(value) : std::string();
    }
}

std::string executablePath(std::int64_t processId)
{
    const auto id = pid_t(processId);
    if (id != processId)
        return std::string();
    @autoreleasepool {
        NSRunningApplication* application = [NSRunningApplication runningApplicationWithProcessIdentifier:id];
        return text([[application executableURL] path]);
    }
}

}
