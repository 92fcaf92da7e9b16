// What the definition sets of Linux and macOS share of the seam of the memory.
#include "platform/memory.h"

#include <sys/mman.h>

namespace platform {

namespace {

uchar* map(std::size_t size, int protection, int flags)
{
    void* const memory = ::mmap(nullptr, size, protection, flags, -1, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<uchar*>(memory);
}

}

// Anonymous: no descriptor, no file size that a limit could forbid, no room taken from /dev/shm.
uchar* takeMemory(std::size_t size)
{
    return map(size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANON);
}

uchar* reserveAddresses(std::size_t size)
{
    return map(size, PROT_NONE, MAP_PRIVATE | MAP_ANON | MAP_NORESERVE);
}

void freeMemory(uchar* memory, std::size_t size)
{
    ::munmap(memory, size);
}

}
