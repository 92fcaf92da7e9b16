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

id<NSApplicationDelegate> delegate = nil; // not kept
bool called = false;
int activities = 0;

struct UrlBody : macsim::ledger::Body {
    std::optional<std::string> path;
};

}

@interface SimActivity : NSObject
@end
@implementation SimActivity
@end

@interface SimDelegate : NSObject <NSApplicationDelegate>
+ (SimDelegate*)theOne;
@end

@implementation SimDelegate

+ (SimDelegate*)theOne
{
    static SimDelegate* const one = macsim::makeForEver(self);
    return one;
}

- (NSApplicationTerminateReply)applicationShouldTerminate:(NSApplication*)sender
{
    return NSTerminateCancel;
}

- (void)applicationIsCalled
{
    called = true;
}

@end

@interface NSObject (Forwarding)
- (id)forwardingTargetForSelector:(SEL)selector;
@end

namespace macsim {

long askToTerminate()
{
    @autoreleasepool {
        if (![delegate respondsToSelector:@selector(applicationShouldTerminate:)])
            return -1;
        return long([delegate applicationShouldTerminate:[NSApplication sharedApplication]]);
    }
}

void setCancellingDelegate()
{
    delegate = [SimDelegate theOne];
}

bool callDelegate()
{
    @autoreleasepool {
        called = false;
        id target = delegate;
        if ([target respondsToSelector:@selector(applicationIsCalled)] && target != id([SimDelegate theOne]))
            target = [target forwardingTargetForSelector:@selector(applicationIsCalled)];
        [target performSelector:@selector(applicationIsCalled)];
        return called;
    }
}

int runningActivities()
{
    return activities;
}

void system::resetApplication()
{
    delegate = nil;
    activities = 0;
}

}

@implementation NSApplication

- (id<NSApplicationDelegate>)delegate
{
    macsim::leaveToPool();
    return delegate;
}

- (void)setDelegate:(id<NSApplicationDelegate>)given
{
    delegate = given;
}

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

@implementation NSProcessInfo

+ (NSProcessInfo*)processInfo
{
    static NSProcessInfo* const info = macsim::makeForEver(self);
    return info;
}

- (id<NSObject>)beginActivityWithOptions:(NSActivityOptions)options reason:(NSString*)reason
{
    macsim::system::note([options](macsim::Record& record) { record.activities.push_back(options); });
    if (!reason)
        macsim::ledger::fault("an activity without a reason");
    ++activities;
    return [[SimActivity alloc] autorelease];
}

- (void)endActivity:(id<NSObject>)activity
{
    if (!macsim::ledger::isAlive(activity))
        macsim::ledger::fault("the end of an activity that is gone");
    --activities;
}

@end

@implementation NSURL

- (NSString*)path
{
    return macsim::makeText(bodyOf<UrlBody>(self)->path);
}

@end
