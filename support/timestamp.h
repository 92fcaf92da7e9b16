// Time as text for file names.
#pragma once

#include <QString>

namespace TimeStamp {

/**
 * The current UTC time as text that is safe inside a file name on every platform: ISO 8601 basic format with
 * milliseconds, for example "20260131T235959.042Z" (no colons, no path separators, sorts by time).
 * Thread-safe.
 */
QString RawUTC();

}
