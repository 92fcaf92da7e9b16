// The C library's header, and a function of the Mac's that it lacks.
#pragma once

#include_next <time.h>

#include <stdint.h>

#ifdef __cplusplus
/// The clock's time in nanoseconds.
extern "C" uint64_t clock_gettime_nsec_np(clockid_t clock);
#endif
