/* Of Mach, what capture/macos uses: this task. */
#ifndef SIM_MACH_H
#define SIM_MACH_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef unsigned int mach_port_t;
typedef int kern_return_t;
typedef int boolean_t;
typedef int vm_prot_t;
typedef unsigned int vm_inherit_t;

#define KERN_SUCCESS 0
#define KERN_INVALID_ADDRESS 1
#define VM_PROT_NONE ((vm_prot_t)0x00)
#define VM_FLAGS_FIXED 0x0000
#define VM_FLAGS_OVERWRITE 0x4000
#define VM_INHERIT_NONE ((vm_inherit_t)2)

mach_port_t mach_task_self(void);

#ifdef __cplusplus
}
#endif

#endif
