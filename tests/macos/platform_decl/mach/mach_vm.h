// Mach's virtual memory: a second view of memory of a task. Darwin's other headers of Mach are public, and so there.
#pragma once

#include <mach/mach.h>

#ifndef __APPLE__
#include <stdint.h>

typedef uint64_t mach_vm_address_t;
typedef uint64_t mach_vm_size_t;
typedef uint64_t mach_vm_offset_t;
#endif

extern "C" kern_return_t mach_vm_remap(mach_port_t targetTask, mach_vm_address_t* targetAddress, mach_vm_size_t size,
    mach_vm_offset_t mask, int flags, mach_port_t sourceTask, mach_vm_address_t sourceAddress, boolean_t copy,
    vm_prot_t* currentProtection, vm_prot_t* mostProtection, vm_inherit_t inheritance);
