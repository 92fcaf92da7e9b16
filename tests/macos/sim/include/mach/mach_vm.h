/* Of Mach's virtual memory, what capture/macos uses. */
#ifndef SIM_MACH_VM_H
#define SIM_MACH_VM_H

#include <mach/mach.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint64_t mach_vm_address_t;
typedef uint64_t mach_vm_size_t;
typedef uint64_t mach_vm_offset_t;

kern_return_t mach_vm_remap(mach_port_t targetTask, mach_vm_address_t* targetAddress, mach_vm_size_t size,
    mach_vm_offset_t mask, int flags, mach_port_t sourceTask, mach_vm_address_t sourceAddress, int copy,
    vm_prot_t* currentProtection, vm_prot_t* mostProtection, vm_inherit_t inheritance);

#ifdef __cplusplus
}
#endif

#endif
