// This system does not signal the end of a parent: a recorder whose launcher was killed goes on.
#include "endwithparent.h"

void endWithParent(pid_t) { }
