// The other end of a local socket, as Linux tells of it.
#include <sys/socket.h>
#include <unistd.h>

extern "C" int getpeereid(int socket, uid_t* user, gid_t* group)
{
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return -1;
    *user = credentials.uid;
    *group = credentials.gid;
    return 0;
}
