// Work for the program's queues.
#pragma once

#import <Foundation/Foundation.h>

#include <functional>

namespace macsim {

/// Appends it to a dispatch queue. It runs in an autorelease pool, after all that was appended before.
void runOnQueue(id queue, std::function<void()> work);

}
