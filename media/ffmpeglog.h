// What FFmpeg tells by itself.
#pragma once

namespace ffmpeglog {

/// From now on FFmpeg tells of errors only, on stderr and not in the log, and never waits for a reader: it tells on
/// the threads that record. Any thread, any number of times.
void tellErrors();

}
