// Memory that can be seen at several addresses, on the Mac; what other systems do alike is in posixmemory.cpp.
#include "platform/memory.h"

#include <mach/mach.h>
#include <mach/mach_vm.h>
#include <sys/mman.h>

namespace platform {

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

// Nothing asks the system for that; each page gets its room when it is written to.
bool prepareMemory(uchar*, std::size_t)
{
    return true;
}

// A hint, which the system may leave at that.
void emptyMemory(uchar* memory, std::size_t size)
{
    ::madvise(memory, size, MADV_FREE);
}

}
