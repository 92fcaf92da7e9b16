// Time as text for file names.
#pragma once

#include <QString>

namespace TimeStamp {

/**
 * The current UTC time as text that is safe inside a file name on every platform: ISO 8601 basic format with
 * microseconds, for example "20260131T235959.042871Z" (no colons, no path separators, sorts by time). Two programs
 * that are started together often ask in the same millisecond. Thread-safe.
 */
QString RawUTC();

}
