// Memory that can be seen at several addresses, on Linux.
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
    return map(size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS);
}

uchar* reserveAddresses(std::size_t size)
{
    return map(size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE);
}

// An old size of 0 leaves the old place as it is (mremap(2)).
bool mapAgain(const uchar* memory, uchar* address, std::size_t size)
{
    return ::mremap(const_cast<uchar*>(memory), 0, size, MREMAP_MAYMOVE | MREMAP_FIXED, address) != MAP_FAILED;
}

void emptyMemory(uchar* memory, std::size_t size)
{
    ::madvise(memory, size, MADV_REMOVE);
}

void freeMemory(uchar* memory, std::size_t size)
{
    ::munmap(memory, size);
}

}
