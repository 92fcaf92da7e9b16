// The seam between the images of windows and the system's memory. Each platform folder defines all of it; which one
// is used is decided at link time.
#pragma once

#include <QtGlobal>

#include <cstddef>

namespace platform {

/// Memory of the process, zeroed, that mapAgain() can show at further addresses. It takes room only where it has been
/// written to. size: bytes, a multiple of 64 KiB. Null when it cannot be had. freeMemory() gives it back.
uchar* takeMemory(std::size_t size);

/// Has the system put room under a part of memory that takeMemory() gave, which is quicker than with each first write
/// to a page of it. Aligned as for mapAgain(). False when it has no room; true also where it cannot be asked.
bool prepareMemory(uchar* memory, std::size_t size);

/// Addresses without memory, for mapAgain(). size: bytes, a multiple of 64 KiB. Null when there are none left.
/// freeMemory() gives them back, and with them what is mapped there.
uchar* reserveAddresses(std::size_t size);

/// Shows a part of memory that takeMemory() gave at reserved addresses as well. Both begin at a multiple of 64 KiB
/// from where their memory or addresses begin; size is one, too. The memory lives on until the last place where it is
/// shown has been given back. False when the system refuses; those addresses are then not to be given back.
bool mapAgain(const uchar* memory, uchar* address, std::size_t size);

/// Gives the system what is in a part of memory that takeMemory() gave, where it is able to. Its content is then
/// anything, and it can be written to as before. Aligned as for mapAgain().
void emptyMemory(uchar* memory, std::size_t size);

/// Gives back memory or addresses: all that one call took, or a part of addresses, aligned as for mapAgain().
void freeMemory(uchar* memory, std::size_t size);

}
