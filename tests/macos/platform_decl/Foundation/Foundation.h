// Foundation: texts, arrays, errors, addresses, bundles. Elsewhere than on the Mac also the root class.
#pragma once

#include <CoreFoundation/CoreFoundation.h>

PLATFORM_BEGIN

@class NSString;

#ifndef __APPLE__
@protocol NSObject
- (Class)class;
- (id)performSelector:(SEL)selector;
- (BOOL)respondsToSelector:(SEL)selector;
- (BOOL)conformsToProtocol:(Protocol*)protocol;
- (instancetype)retain;
- (oneway void)release;
- (instancetype)autorelease;
- (NSUInteger)retainCount;
@end

__attribute__((objc_root_class))
@interface NSObject<NSObject> {
    Class isa;
}
+ (instancetype)alloc;
+ (instancetype)new;
- (instancetype)init;
- (void)dealloc;
@end

// What @autoreleasepool is made of.
@interface NSAutoreleasePool : NSObject
- (void)drain;
@end
#endif

@interface NSString : NSObject
+ (nullable instancetype)stringWithUTF8String:(const char*)text;
@property (readonly, nullable) const char* UTF8String __attribute__((objc_returns_inner_pointer));
@end

@interface NSArray<__covariant ObjectType> : NSObject
+ (instancetype)array;
@property (readonly) NSUInteger count;
- (ObjectType)objectAtIndex:(NSUInteger)index;
@end

@interface NSMutableArray<ObjectType> : NSArray <ObjectType>
- (void)addObject:(ObjectType)object;
@end

@interface NSError : NSObject
@property (readonly, copy) NSString* localizedDescription;
@end

@interface NSURL : NSObject
@property (readonly, copy, nullable) NSString* path;
@end

typedef PLATFORM_OPTIONS(uint64_t, NSActivityOptions){
    NSActivityUserInitiatedAllowingIdleSystemSleep = 0x00efffffULL,
    NSActivityLatencyCritical = 0xff00000000ULL,
};

@interface NSProcessInfo : NSObject
@property (class, readonly, strong) NSProcessInfo* processInfo;
- (id<NSObject>)beginActivityWithOptions:(NSActivityOptions)options reason:(NSString*)reason;
- (void)endActivity:(id<NSObject>)activity;
@end

@interface NSBundle : NSObject
@property (class, readonly, strong) NSBundle* mainBundle;
@property (readonly, copy) NSString* bundlePath;
@property (readonly, copy, nullable) NSString* bundleIdentifier;
@property (readonly, copy, nullable) NSString* executablePath;
@end

PLATFORM_END
