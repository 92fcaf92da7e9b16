// The functions of the GNU Objective-C runtime that the simulated system uses. Its own headers bring another BOOL.
#pragma once

#import <Foundation/Foundation.h>

#include "ledger.h"

#include <cstddef>

using IMP = id (*)(id, SEL, ...);

extern "C" {

id class_createInstance(Class of, std::size_t extraBytes);
Class object_setClass(id object, Class newClass);
Class objc_getClass(const char* name);
const char* class_getName(Class of);
/// @protocol() is no way to it: the compiler leaves that unset in a file whose classes do not adopt the protocol.
Protocol* objc_getProtocol(const char* name);
char class_respondsToSelector(Class of, SEL selector);
char class_conformsToProtocol(Class of, Protocol* protocol);
Class class_getSuperclass(Class of);
const char* sel_getName(SEL selector);
IMP objc_msg_lookup(id object, SEL selector);
/// Called for a message that the receiver has no method for; gives the function to call instead.
extern IMP (*__objc_msg_forward2)(id object, SEL selector);
}

namespace macsim {

/// The first word of an object; a function of the runtime's header only.
inline Class classOf(id object)
{
    return *reinterpret_cast<Class*>(object);
}

inline id objectAt(const void* address)
{
    return reinterpret_cast<id>(const_cast<void*>(address));
}

/// An object that the system keeps for ever.
inline id makeForEver(Class of)
{
    id object = class_createInstance(of, 0);
    ledger::bornForever(object, class_getName(of));
    return object;
}

}
