// One encoded packet on its way into the file, whatever stream it belongs to, and what becomes of a file that takes
// nothing for a while.
#pragma once

#include "avhandles.h"

/// What has reached the file.
struct WrittenBytes {
    int64_t whole = 0; ///< of the file, up to the end of the last write that succeeded as a whole
    int64_t inPackets = 0; ///< that the container has taken without an error
    bool someLost = false; ///< a write has failed since the header
};

/**
 * Brings the packet's times from the encoder's time base to the stream's, writes it, and flushes, so that the file on
 * disk stays current while the recording runs. A packet without a duration lasts missingDuration, in the encoder's
 * time base. The packet is empty afterwards. Returns FFmpeg's status; an error is that of this write, and costs what
 * was written by it (of an MP4 a fragment), not what follows. Worker thread.
 */
int writePacket(AVPacket& packet, const AVCodecContext& encoder, AVFormatContext& container, const AVStream& stream,
    int64_t missingDuration, WrittenBytes& written);

/// A write that failed left a part of something in the file, and FFmpeg drops everything from then on. Goes back to
/// the last whole place, so that what follows is tried in its stead. Does nothing while all is well, and when not
/// even the header is in the file.
void resumeWriting(AVFormatContext& container, WrittenBytes& written);
