// One encoded packet on its way into the file, whatever stream it belongs to, and what becomes of a file that takes
// nothing for a while.
#include "packetwriting.h"

#include "outputfile.h"

#include <algorithm>

int writePacket(AVPacket& packet, const AVCodecContext& encoder, AVFormatContext& container, const AVStream& stream,
    int64_t missingDuration, WrittenBytes& written)
{
    resumeWriting(container, written);
    packet.stream_index = stream.index;
    av_packet_rescale_ts(&packet, encoder.time_base, stream.time_base);
    if (packet.duration < 1)
        packet.duration = std::max<int64_t>(av_rescale_q(missingDuration, encoder.time_base, stream.time_base), 1);
    const int size = packet.size;
    int status = av_interleaved_write_frame(&container, &packet);
    if (container.pb) {
        avio_flush(container.pb);
        if (container.pb->error >= 0) {
            written.whole = avio_tell(container.pb);
        } else {
            written.someLost = true;
            status = status < 0 ? status : container.pb->error;
        }
    }
    av_packet_unref(&packet);
    written.inPackets += status < 0 ? 0 : size;
    return status;
}

void resumeWriting(AVFormatContext& container, WrittenBytes& written)
{
    if (container.pb && container.pb->error < 0 && written.whole > 0)
        outputfile::returnTo(container, written.whole);
}
