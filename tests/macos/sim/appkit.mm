// This application, and the running ones.
#import <AppKit/AppKit.h>

#include "objects.h"
#include "runtime.h"
#include "system.h"

#include <algorithm>

namespace {

using macsim::answers;
using macsim::bodyOf;

struct RunningBody : macsim::ledger::Body {
    macsim::Application application;
};

struct UrlBody : macsim::ledger::Body {
    std::optional<std::string> path;
};

}

@implementation NSApplication

+ (NSApplication*)sharedApplication
{
    macsim::leaveToPool();
    static NSApplication* const application = macsim::makeForEver(self);
    return answers().noApplicationObject ? nil : application;
}

- (BOOL)setActivationPolicy:(NSApplicationActivationPolicy)policy
{
    macsim::system::note([policy](macsim::Record& record) { record.activationPolicies.push_back(long(policy)); });
    return YES;
}

@end

@implementation NSRunningApplication

+ (instancetype)runningApplicationWithProcessIdentifier:(pid_t)processId
{
    macsim::system::note([processId](macsim::Record& record) { record.executablesAsked.push_back(processId); });
    const auto& all = answers().applications;
    const auto found
        = std::find_if(all.begin(), all.end(), [processId](const auto& one) { return one.processId == processId; });
    if (found == all.end() || found->executable == macsim::Executable::NoSuchProcess)
        return nil;
    NSRunningApplication* object = [self alloc];
    bodyOf<RunningBody>(object)->application = *found;
    return [object autorelease];
}

- (NSURL*)executableURL
{
    const auto& application = bodyOf<RunningBody>(self)->application;
    if (application.executable == macsim::Executable::NoUrl)
        return nil;
    NSURL* url = [NSURL alloc];
    if (application.executable != macsim::Executable::NoPath)
        bodyOf<UrlBody>(url)->path = application.path;
    return [url autorelease];
}

@end

@implementation NSURL

- (NSString*)path
{
    return macsim::makeText(bodyOf<UrlBody>(self)->path);
}

@end
