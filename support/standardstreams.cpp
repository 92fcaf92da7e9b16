// A file gets the lowest descriptor that is free.
#include "standardstreams.h"

#include <fcntl.h>
#include <initializer_list>
#include <unistd.h>

void standardstreams::openMissing()
{
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(descriptor, F_GETFD) < 0)
            ::open("/dev/null", O_RDWR);
    }
}
