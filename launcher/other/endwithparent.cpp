// This system does not tell a child of its parent's death: a recorder whose launcher was killed goes on.
#include "endwithparent.h"

void endWithParent(pid_t) { }
