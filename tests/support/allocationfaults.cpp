#include "allocationfaults.h"

#include <new>
#include <thread>

namespace allocationfaults {

namespace {

std::atomic<std::size_t> refusedBytes{0};
std::atomic<std::thread::id> spared;
std::atomic<int> refusals{0};
thread_local int allocationsLeft = -1; // before the one that is refused; below 0: none is
thread_local std::size_t leastRefusedBytes = 0;

}

Refusal::Refusal(std::size_t bytes)
{
    spared = std::this_thread::get_id();
    refusals = 0;
    refusedBytes = bytes;
}

Refusal::~Refusal()
{
    refusedBytes = 0;
}

int Refusal::count() const
{
    return refusals;
}

RefusedOnce::RefusedOnce(int nth, std::size_t leastBytes)
{
    leastRefusedBytes = leastBytes;
    allocationsLeft = nth;
}

RefusedOnce::~RefusedOnce()
{
    allocationsLeft = -1;
}

bool RefusedOnce::happened() const
{
    return allocationsLeft < 0;
}

}

// operator new(std::size_t) under its name for the linker.
extern "C" {
void* __real__Znwm(std::size_t bytes);
void* __wrap__Znwm(std::size_t bytes);
void* __wrap__Znwm(std::size_t bytes)
{
    using namespace allocationfaults;
    if (bytes != 0 && bytes == refusedBytes.load() && std::this_thread::get_id() != spared.load()) {
        ++refusals;
        throw std::bad_alloc();
    }
    if (allocationsLeft >= 0 && bytes >= leastRefusedBytes && allocationsLeft-- == 0)
        throw std::bad_alloc();
    return __real__Znwm(bytes);
}
}
