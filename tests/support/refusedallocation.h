// RefusedAllocation: one large allocation of C++ code finds no memory. To be included by one file of a program, whose
// operator new it replaces.
#pragma once

#include <atomic>
#include <cstddef>
#include <dlfcn.h>
#include <new>

/// While it lives, the allocation of this number, counted from 1 among those of at least `least` bytes on all
/// threads, throws std::bad_alloc. One at a time.
class RefusedAllocation {
public:
    RefusedAllocation(std::size_t least, int number)
    {
        least_ = least;
        left_ = number;
    }
    ~RefusedAllocation() { left_ = 0; }
    RefusedAllocation(const RefusedAllocation&) = delete;
    RefusedAllocation& operator=(const RefusedAllocation&) = delete;

    /// It has come to it.
    static bool happened() { return left_ <= 0; }
    /// For operator new.
    static bool isRefused(std::size_t size) { return left_ > 0 && size >= least_ && --left_ == 0; }

private:
    static inline std::atomic<std::size_t> least_{0};
    static inline std::atomic<int> left_{0};
};

/// The library's own one gives the memory, so that a sanitizer finds it given back as it was had.
void* operator new(std::size_t size)
{
    using Allocate = void*(std::size_t);
    static auto* const allocate = reinterpret_cast<Allocate*>(::dlsym(RTLD_NEXT, "_Znwm"));
    if (RefusedAllocation::isRefused(size))
        throw std::bad_alloc();
    return allocate(size);
}
