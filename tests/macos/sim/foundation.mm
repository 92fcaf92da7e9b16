// NSObject and the values: every reference is counted (ledger.h).
#import <Foundation/Foundation.h>

#include "blocks.h"
#include "objects.h"
#include "runtime.h"
#include "system.h"

#include <algorithm>
#include <cstdlib>

namespace {

/// The pools of a thread, the innermost last, each with the objects that it will release.
thread_local std::vector<std::pair<id, std::vector<id>>> pools;

id answerOfTheDead(id, SEL, ...)
{
    return nil;
}

IMP messageToTheDead(id object, SEL selector)
{
    macsim::ledger::fault(
        "message to a " + macsim::ledger::className(object) + " that is gone: " + sel_getName(selector));
    return reinterpret_cast<IMP>(answerOfTheDead);
}

void retainCaptured(const void* object)
{
    macsim::ledger::retain(object);
}

void releaseCaptured(const void* object)
{
    [macsim::objectAt(object) release];
}

/// The runtime asks for a method that an object does not have: only those that are gone have none.
const bool prepared = [] {
    __objc_msg_forward2 = messageToTheDead;
    macsim::countCapturedObjects(retainCaptured, releaseCaptured);
    return true;
}();

}

/// What an object becomes at its end: it understands nothing.
__attribute__((objc_root_class))
@interface SimGone {
    Class isa;
}
@end

@implementation SimGone
+ (void)initialize
{
}
@end

@implementation NSObject

+ (void)initialize
{
}

+ (instancetype)alloc
{
    id object = class_createInstance(self, 0);
    macsim::ledger::born(object, class_getName(self));
    return object;
}

+ (instancetype)new
{
    return [[self alloc] init];
}

- (instancetype)init
{
    return self;
}

- (instancetype)retain
{
    macsim::ledger::retain(self);
    return self;
}

- (oneway void)release
{
    if (macsim::ledger::release(self))
        [self dealloc];
}

- (instancetype)autorelease
{
    if (pools.empty())
        macsim::ledger::fault("autoreleased without a pool: " + macsim::ledger::className(self));
    else
        pools.back().second.push_back(self);
    return self;
}

- (void)dealloc
{
    object_setClass(self, objc_getClass("SimGone"));
    macsim::ledger::gone(self);
}

- (NSUInteger)retainCount
{
    return NSUInteger(macsim::ledger::references(self));
}

- (Class)class
{
    return macsim::classOf(self);
}

- (id)performSelector:(SEL)selector
{
    using Method = id (*)(id, SEL);
    return reinterpret_cast<Method>(objc_msg_lookup(self, selector))(self, selector);
}

- (BOOL)respondsToSelector:(SEL)selector
{
    const auto& hidden = macsim::answers().hiddenSelectors;
    return class_respondsToSelector(macsim::classOf(self), selector) != 0
        && std::find(hidden.begin(), hidden.end(), sel_getName(selector)) == hidden.end();
}

- (BOOL)conformsToProtocol:(Protocol*)protocol
{
    for (Class one = macsim::classOf(self); one; one = class_getSuperclass(one)) {
        if (class_conformsToProtocol(one, protocol))
            return YES;
    }
    return NO;
}

@end

/// References to pools are not counted.
@implementation NSAutoreleasePool

+ (instancetype)alloc
{
    return class_createInstance(self, 0);
}

- (instancetype)init
{
    pools.emplace_back(self, std::vector<id>());
    return self;
}

- (void)drain
{
    if (pools.empty() || pools.back().first != self) {
        macsim::ledger::fault("pools were drained out of order");
        return;
    }
    const auto objects = std::move(pools.back().second);
    pools.pop_back();
    for (id object : objects)
        [object release];
    std::free(self);
}

@end

// ---- values -----------------------------------------------------------------------------------------------------

namespace {

struct ErrorBody : macsim::ledger::Body {
    macsim::Error error;
};

}

namespace macsim {

NSString* makeText(const std::optional<std::string>& text)
{
    if (!text)
        return nil;
    NSString* object = [NSString alloc];
    bodyOf<TextBody>(object)->text = *text;
    return [object autorelease];
}

NSArray* makeArray(std::vector<Strong> items)
{
    NSArray* object = [NSArray alloc];
    bodyOf<ArrayBody>(object)->items = std::move(items);
    return [object autorelease];
}

NSError* makeError(const Outcome& outcome)
{
    if (!outcome)
        return nil;
    NSError* object = [NSError alloc];
    bodyOf<ErrorBody>(object)->error = *outcome;
    return [object autorelease];
}

void reset()
{
    forgetHeld();
    settle();
    ledger::reset([](const void* object) { std::free(const_cast<void*>(object)); });
    system::note([](Record& record) { record = Record(); });
    answers() = Answers();
    system::resetClocks();
    system::resetApplication();
}

}

@implementation NSString

+ (instancetype)stringWithUTF8String:(const char*)text
{
    return macsim::makeText(std::string(text));
}

- (const char*)UTF8String
{
    return macsim::bodyOf<macsim::TextBody>(self)->text.c_str();
}

@end

@implementation NSArray

+ (instancetype)array
{
    return [[[self alloc] init] autorelease];
}

- (NSUInteger)count
{
    return macsim::bodyOf<macsim::ArrayBody>(self)->items.size();
}

- (id)objectAtIndex:(NSUInteger)index
{
    const auto body = macsim::bodyOf<macsim::ArrayBody>(self);
    if (index < body->items.size())
        return body->items[index].get();
    macsim::ledger::fault("an array was read beyond its end");
    return nil;
}

@end

@implementation NSMutableArray

- (void)addObject:(id)object
{
    if (object)
        macsim::bodyOf<macsim::ArrayBody>(self)->items.emplace_back(object);
    else
        macsim::ledger::fault("nil was put into an array");
}

@end

@implementation NSError

- (NSString*)localizedDescription
{
    return macsim::makeText(macsim::bodyOf<ErrorBody>(self)->error);
}

@end

@implementation NSBundle

+ (NSBundle*)mainBundle
{
    static NSBundle* const bundle = macsim::makeForEver(self);
    return macsim::answers().noBundle ? nil : bundle;
}

- (NSString*)bundleIdentifier
{
    return macsim::makeText(macsim::answers().bundleIdentifier);
}

- (NSString*)bundlePath
{
    return macsim::makeText(macsim::answers().bundlePath);
}

- (NSString*)executablePath
{
    return macsim::makeText(macsim::answers().executablePath);
}

@end
