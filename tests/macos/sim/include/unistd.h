// The C library's header, and a function of the Mac's that it lacks.
#pragma once

#include_next <unistd.h>

#include <sys/types.h>

/// The effective user and group at the other end of a connected local socket. 0, or -1 with errno.
extern "C" int getpeereid(int socket, uid_t* user, gid_t* group);
