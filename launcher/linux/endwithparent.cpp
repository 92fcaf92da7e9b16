// The kernel signals the end of a parent to its child.
#include "endwithparent.h"

#include <csignal>
#include <sys/prctl.h>
#include <unistd.h>

void endWithParent(pid_t parent)
{
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent)
        ::raise(SIGTERM); // the parent ended before the line above
}
