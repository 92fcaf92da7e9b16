// One encoded packet on its way into the file, whatever stream it belongs to, and what becomes of a file that takes
// nothing for a while.
#pragma once

#include "avhandles.h"

/// What has reached the file.
struct WrittenBytes {
    int64_t whole = 0; ///< of the file, up to the end of what succeeded as a whole: a write, a fragment of an MP4
    int64_t inPackets = 0; ///< that the container has taken without an error
    bool someLost = false; ///< a write has failed since the header
};

/// Writes the header, and sees to it that the file has taken it: without it nobody could play what follows. From then
/// on each packet goes to the file by itself, also when one call writes several, so that each fragment of an MP4
/// begins a write of its own. Takes and replaces the muxer's options. Returns FFmpeg's status; nothing is left in the
/// file when the disk refused some of it. Worker thread.
int beginContainer(AVFormatContext& container, AVDictionary** options, WrittenBytes& written);

/**
 * Brings the packet's times from the encoder's time base to the stream's, writes it, and flushes, so that the file on
 * disk stays current while the recording runs. A packet without a duration lasts missingDuration, in the encoder's
 * time base. The packet is empty afterwards. Returns FFmpeg's status; an error is that of this write, and costs what
 * was written by it (of an MP4 the fragment that failed, and what of this write comes behind it). What follows is
 * written all the same; frames up to the next key frame may have lost what they build upon. Worker thread.
 */
int writePacket(AVPacket& packet, const AVCodecContext& encoder, AVFormatContext& container, const AVStream& stream,
    int64_t missingDuration, WrittenBytes& written);

/// Has the container write what it still gathers, of an MP4 the last fragment, so that a trailer that fails
/// afterwards takes nothing along. Returns FFmpeg's status, as writePacket() does. Worker thread.
int writeGathered(AVFormatContext& container, WrittenBytes& written);

/// Writes the trailer, by which the container is finished. Returns FFmpeg's status, also when the file has refused
/// what the container believes to be written: the mp4 muxer calls a trailer on a full disk a success. Worker thread.
int finishContainer(AVFormatContext& container, WrittenBytes& written);
