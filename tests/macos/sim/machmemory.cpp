// Mach's second view of memory, by what this system has for it.
#include <mach/mach_vm.h>

#include <sys/mman.h>

extern "C" {

mach_port_t mach_task_self()
{
    return 1;
}

kern_return_t mach_vm_remap(mach_port_t, mach_vm_address_t* targetAddress, mach_vm_size_t size, mach_vm_offset_t, int,
    mach_port_t, mach_vm_address_t sourceAddress, boolean_t, vm_prot_t* current, vm_prot_t* most, vm_inherit_t)
{
    void* const source = reinterpret_cast<void*>(sourceAddress);
    void* const target = reinterpret_cast<void*>(*targetAddress);
    if (::mremap(source, 0, size, MREMAP_MAYMOVE | MREMAP_FIXED, target) == MAP_FAILED)
        return KERN_INVALID_ADDRESS;
    *current = *most = PROT_READ | PROT_WRITE;
    return KERN_SUCCESS;
}
}
