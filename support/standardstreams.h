// The descriptors 0, 1 and 2 that a process was started with.
#pragma once

namespace standardstreams {

/// Opens /dev/null at each of the three that is closed. Otherwise the next file would get its number, and with it
/// what libraries print. The first thing in main().
void openMissing();

}
