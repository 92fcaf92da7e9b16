// The other end of a local socket, as Linux tells of it, or another user.
#include "macsim.h"

#include <sys/socket.h>
#include <unistd.h>

extern "C" int getpeereid(int socket, uid_t* user, gid_t* group)
{
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0)
        return -1;
    *user = macsim::answers().peerUser.value_or(credentials.uid);
    *group = credentials.gid;
    return 0;
}
