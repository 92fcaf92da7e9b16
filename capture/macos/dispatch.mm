#include "dispatchhandles.h"

namespace platform {

using macos::Retained;

struct Semaphore::Impl {
    ~Impl() { [semaphore release]; }

    const dispatch_semaphore_t semaphore = dispatch_semaphore_create(0);
};

Semaphore::Semaphore() : impl_(std::make_unique<Impl>()) { }

Semaphore::~Semaphore() = default;

void Semaphore::signal()
{
    dispatch_semaphore_signal(impl_->semaphore);
}

bool Semaphore::wait(std::int64_t nanoseconds)
{
    return dispatch_semaphore_wait(impl_->semaphore, dispatch_time(DISPATCH_TIME_NOW, nanoseconds)) == 0;
}

AudioQueue::AudioQueue(const char* label)
    : impl_(std::make_unique<Impl>(
        Impl{Retained<dispatch_queue_t>::adopt(dispatch_queue_create(label, DISPATCH_QUEUE_SERIAL))}))
{
}

AudioQueue::~AudioQueue() = default;

}
