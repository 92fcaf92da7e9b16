// Memory that can be seen at several addresses, on Linux; what other systems do alike is in posixmemory.cpp.
#include "platform/memory.h"

#include <sys/mman.h>

#include <cerrno>

namespace platform {

// An old size of 0 leaves the old place as it is (mremap(2)).
bool mapAgain(const uchar* memory, uchar* address, std::size_t size)
{
    return ::mremap(const_cast<uchar*>(memory), 0, size, MREMAP_MAYMOVE | MREMAP_FIXED, address) != MAP_FAILED;
}

// Kernels before 5.14 refuse the advice itself.
bool prepareMemory(uchar* memory, std::size_t size)
{
    return ::madvise(memory, size, MADV_POPULATE_WRITE) == 0 || (errno != ENOMEM && errno != EFAULT);
}

void emptyMemory(uchar* memory, std::size_t size)
{
    ::madvise(memory, size, MADV_REMOVE);
}

}
