// The descriptors 0, 1 and 2 that a process was started with.
#pragma once

namespace standardstreams {

/// Opens /dev/null at each of the three that is closed. Otherwise the next file would get its number, and with it
/// what libraries print. The first thing in main().
void openMissing();

/// Gives descriptor 2 an open file description of its own, which leads to the same pipe or terminal and never blocks.
/// The shared one (of a shell, of the launcher) stays as it is. Does nothing for sockets, for a terminal that this
/// user may not open, and on systems without /proc; regular files need none. Call it before there are threads.
void keepErrorOutputFromBlocking();

}
