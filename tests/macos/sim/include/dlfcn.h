// The C library's header, but for one function: the simulated system can lack what is looked up by its name.
#pragma once

#include_next <dlfcn.h>

extern "C" void* macsim_dlsym(void* handle, const char* name);

#define dlsym macsim_dlsym
