// One encoded packet on its way into the file, whatever stream it belongs to.
#pragma once

#include "avhandles.h"

/**
 * Brings the packet's times from the encoder's time base to the stream's, writes it, and flushes, so that the file on
 * disk stays current while the recording runs. A packet without a duration lasts missingDuration, in the encoder's
 * time base. The packet is empty afterwards. wholeBytes becomes the length of the file unless a write has failed.
 * Returns FFmpeg's status. Worker thread.
 */
int writePacket(AVPacket& packet, const AVCodecContext& encoder, AVFormatContext& container, const AVStream& stream,
    int64_t missingDuration, int64_t& wholeBytes);
