// The queue behind a SerialQueue. Objective-C++ only.
#pragma once

#include "dispatch.h"
#include "handles.h"

#include <dispatch/dispatch.h>

namespace macos {

struct SerialQueue::Impl {
    Retained<dispatch_queue_t> queue;
};

}
