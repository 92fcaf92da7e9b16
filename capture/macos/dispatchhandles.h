// The queue behind an AudioQueue. Objective-C++ only.
#pragma once

#include "handles.h"
#include "platform/waiting.h"

#include <dispatch/dispatch.h>

namespace platform {

struct AudioQueue::Impl {
    macos::Retained<dispatch_queue_t> queue;
};

}
