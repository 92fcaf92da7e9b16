// Memory that can be seen at several addresses, on the Mac.
#include "platform/memory.h"

#include <mach/mach.h>
#include <mach/mach_vm.h>
#include <sys/mman.h>

namespace platform {

namespace {

uchar* map(std::size_t size, int protection, int flags)
{
    void* const memory = ::mmap(nullptr, size, protection, flags, -1, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<uchar*>(memory);
}

}

uchar* takeMemory(std::size_t size)
{
    return map(size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANON);
}

uchar* reserveAddresses(std::size_t size)
{
    return map(size, PROT_NONE, MAP_PRIVATE | MAP_ANON | MAP_NORESERVE);
}

bool mapAgain(const uchar* memory, uchar* address, std::size_t size)
{
    const mach_port_t self = ::mach_task_self();
    auto target = reinterpret_cast<mach_vm_address_t>(address);
    vm_prot_t current = VM_PROT_NONE;
    vm_prot_t most = VM_PROT_NONE;
    // Not a copy: the same pages, in place of what is reserved there.
    return ::mach_vm_remap(self, &target, size, 0, VM_FLAGS_FIXED | VM_FLAGS_OVERWRITE, self,
               reinterpret_cast<mach_vm_address_t>(memory), false, &current, &most, VM_INHERIT_NONE)
        == KERN_SUCCESS;
}

// A hint, which the system may leave at that.
void emptyMemory(uchar* memory, std::size_t size)
{
    ::madvise(memory, size, MADV_FREE);
}

void freeMemory(uchar* memory, std::size_t size)
{
    ::munmap(memory, size);
}

}
