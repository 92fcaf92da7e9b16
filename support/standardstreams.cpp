// A file that is opened through /proc has its own status flags.
#include "standardstreams.h"

#include "descriptor.h"

#include <fcntl.h>
#include <initializer_list>
#include <sys/stat.h>
#include <unistd.h>

void standardstreams::openMissing()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) < 0)
            ::open("/dev/null", O_RDWR); // it takes the lowest number that is free: this one
    }
}

void standardstreams::keepErrorOutputFromBlocking()
{
    struct stat status = {};
    if (::fstat(STDERR_FILENO, &status) != 0 || !(S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode)))
        return;
    const Descriptor own(::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (own.isValid())
        ::dup2(own.number(), STDERR_FILENO);
}
