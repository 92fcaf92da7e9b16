// The part of libdispatch that the adapter uses, for the simulated system: Linux has none, and the Mac its own.
// Queues and semaphores are objects, as they are there.
#pragma once

#include <Foundation/Foundation.h>

#include <stdint.h>

#pragma clang assume_nonnull begin

@protocol OS_dispatch_object <NSObject>
@end
@protocol OS_dispatch_semaphore <OS_dispatch_object>
@end
@protocol OS_dispatch_queue <OS_dispatch_object>
@end
@protocol OS_dispatch_queue_attr <OS_dispatch_object>
@end

typedef NSObject<OS_dispatch_semaphore>* dispatch_semaphore_t;
typedef NSObject<OS_dispatch_queue>* dispatch_queue_t;
typedef NSObject<OS_dispatch_queue_attr>* dispatch_queue_attr_t;
typedef uint64_t dispatch_time_t;
typedef void (*dispatch_function_t)(void* _Nullable);

#define DISPATCH_TIME_NOW 0ULL
#define DISPATCH_QUEUE_SERIAL nullptr

extern "C" {

dispatch_semaphore_t dispatch_semaphore_create(intptr_t value);
intptr_t dispatch_semaphore_wait(dispatch_semaphore_t semaphore, dispatch_time_t until);
intptr_t dispatch_semaphore_signal(dispatch_semaphore_t semaphore);
dispatch_time_t dispatch_time(dispatch_time_t from, int64_t nanoseconds);

dispatch_queue_t dispatch_queue_create(const char* _Nullable label, dispatch_queue_attr_t _Nullable attributes);
void dispatch_async_f(dispatch_queue_t queue, void* _Nullable context, dispatch_function_t work);
}

#pragma clang assume_nonnull end
