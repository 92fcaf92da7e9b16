// The first pass finds the times and lets FFmpeg see where the key frames are, the second one goes to each frame.
#include "contactsheet.h"

#include "inputfile.h"
#include "plaintext.h"
#include "progress.h"
#include "smalldigits.h"

#include <QPainter>

#include <algorithm>
#include <vector>

namespace {

constexpr int columns = 4;
constexpr int mostFrames = 12;
constexpr int largestCell = 480; // pixels, in both directions
constexpr int gap = 8; // pixels between the cells, and around them
constexpr int dotSize = 2; // pixels
constexpr AVRational milliseconds{1, 1000};

struct Cell {
    QImage image;
    qint64 stamp = 0; // in the stream's time base
};

class SheetReader {
public:
    SheetReader(AVFormatContext& input, AVStream& stream) : input_(input), stream_(stream) { }

    /// The times of the frames to show, rising; empty when there are none.
    std::vector<qint64> chooseTimes();
    /// The last frame that is not after a time; a null image when none can be decoded.
    Cell frameAt(qint64 stamp);
    bool canDecode()
    {
        decoder_ = openDecoder(stream_);
        return decoder_ != nullptr;
    }
    qint64 sinceFirstMs(qint64 stamp) const { return av_rescale_q(stamp - first_, stream_.time_base, milliseconds); }

private:
    QImage imageOf(const AVFrame& frame) const;

    AVFormatContext& input_;
    AVStream& stream_;
    AvCodecContextHandle decoder_;
    qint64 first_ = AV_NOPTS_VALUE;
};

std::vector<qint64> SheetReader::chooseTimes()
{
    qint64 last = AV_NOPTS_VALUE;
    qint64 frames = 0;
    const AvPacketHandle packet(av_packet_alloc());
    for (; av_read_frame(&input_, packet.get()) >= 0; av_packet_unref(packet.get())) {
        const qint64 stamp = packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts;
        if (packet->stream_index != stream_.index || stamp == AV_NOPTS_VALUE)
            continue;
        first_ = frames == 0 ? stamp : std::min(first_, stamp);
        last = frames == 0 ? stamp : std::max(last, stamp);
        ++frames;
    }
    std::vector<qint64> times;
    const qint64 wanted = std::min<qint64>(frames, mostFrames);
    for (qint64 i = 0; i < wanted; ++i)
        times.push_back(wanted == 1 ? first_ : first_ + av_rescale(last - first_, i, wanted - 1));
    return times;
}

Cell SheetReader::frameAt(qint64 stamp)
{
    av_seek_frame(&input_, stream_.index, stamp, AVSEEK_FLAG_BACKWARD);
    avcodec_flush_buffers(decoder_.get());
    const AvPacketHandle packet(av_packet_alloc());
    const AvFrameHandle frame(av_frame_alloc());
    AvFrameHandle best(av_frame_alloc());
    bool isOver = false;
    bool isFound = false;
    while (!isOver) {
        const bool isEnd = av_read_frame(&input_, packet.get()) < 0;
        if (!isEnd && packet->stream_index != stream_.index) {
            av_packet_unref(packet.get());
            continue;
        }
        avcodec_send_packet(decoder_.get(), isEnd ? nullptr : packet.get());
        av_packet_unref(packet.get());
        while (!isOver && avcodec_receive_frame(decoder_.get(), frame.get()) >= 0) {
            const bool isAfter = frame->best_effort_timestamp > stamp;
            if (!isAfter || !isFound) { // a frame that is too late is better than none
                av_frame_unref(best.get());
                av_frame_move_ref(best.get(), frame.get());
            }
            isFound = true;
            isOver = isAfter;
        }
        isOver = isOver || isEnd;
    }
    return isFound ? Cell{imageOf(*best), best->best_effort_timestamp} : Cell{};
}

QImage SheetReader::imageOf(const AVFrame& frame) const
{
    const QSize size
        = QSize(frame.width, frame.height)
              .scaled(std::min(frame.width, largestCell), std::min(frame.height, largestCell), Qt::KeepAspectRatio)
              .expandedTo(QSize(1, 1));
    QImage image(size, QImage::Format_RGB32);
    SwsContext* scaler = sws_getContext(frame.width, frame.height, AVPixelFormat(frame.format), size.width(),
        size.height(), AV_PIX_FMT_RGB32, SWS_AREA | SWS_ACCURATE_RND, nullptr, nullptr, nullptr);
    if (!scaler || image.isNull()) {
        sws_freeContext(scaler);
        return QImage();
    }
    const int* matrix = sws_getCoefficients(frame.colorspace == AVCOL_SPC_BT709 ? SWS_CS_ITU709 : SWS_CS_ITU601);
    constexpr int one = 1 << 16;
    sws_setColorspaceDetails(scaler, matrix, frame.color_range == AVCOL_RANGE_JPEG ? 1 : 0, matrix, 1, 0, one, one);
    uint8_t* const planes[] = {image.bits()};
    const int strides[] = {int(image.bytesPerLine())};
    sws_scale(scaler, frame.data, frame.linesize, 0, frame.height, planes, strides);
    sws_freeContext(scaler);
    return image;
}

/// "01:02.345", or "1:01:02.345" after an hour.
QString label(qint64 ms)
{
    constexpr qint64 perSecond = 1000;
    return QStringLiteral("%1.%2").arg(timeText(ms)).arg(ms % perSecond, 3, 10, QLatin1Char('0'));
}

QImage compose(const std::vector<Cell>& cells, const SheetReader& reader)
{
    const QSize cell = cells.front().image.size();
    const int across = std::min(int(cells.size()), columns);
    const int down = (int(cells.size()) + columns - 1) / columns;
    QImage sheet(
        QSize(gap + across * (cell.width() + gap), gap + down * (cell.height() + gap)), QImage::Format_RGB32);
    if (sheet.isNull())
        return sheet;
    sheet.fill(QColor(48, 48, 48));
    QPainter painter(&sheet);
    for (int i = 0; i < int(cells.size()); ++i) {
        const QPoint place(gap + i % columns * (cell.width() + gap), gap + i / columns * (cell.height() + gap));
        painter.drawImage(QRect(place, cell), cells[std::size_t(i)].image);
        const QString text = label(reader.sinceFirstMs(cells[std::size_t(i)].stamp));
        constexpr int margin = 2 * dotSize;
        const QSize box(
            smalldigits::textWidth(text) * dotSize + 2 * margin, smalldigits::height * dotSize + 2 * margin);
        const QPoint corner = place + QPoint(0, cell.height() - box.height());
        painter.setClipRect(QRect(place, cell)); // the label of a tiny frame is cut off
        painter.fillRect(QRect(corner, box), QColor(0, 0, 0, 192));
        smalldigits::draw(painter, corner + QPoint(margin, margin), dotSize, Qt::white, text);
        painter.setClipping(false);
    }
    return sheet;
}

}

ContactSheet drawContactSheet(const QString& recording)
{
    ContactSheet result;
    const InputHandle input = openInput(recording, &result.error);
    if (!input) {
        result.error = QStringLiteral("cannot read %1: %2").arg(plainText(recording), result.error);
        return result;
    }
    const int index = av_find_best_stream(input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0) {
        result.error = QStringLiteral("%1 holds no video").arg(plainText(recording));
        return result;
    }
    SheetReader reader(*input, *input->streams[index]);
    std::vector<Cell> cells;
    if (reader.canDecode()) {
        for (const qint64 time : reader.chooseTimes()) {
            Cell cell = reader.frameAt(time);
            if (!cell.image.isNull() && (cells.empty() || cell.stamp > cells.back().stamp))
                cells.push_back(std::move(cell));
        }
    }
    if (!cells.empty())
        result.image = compose(cells, reader);
    if (result.image.isNull())
        result.error = QStringLiteral("no frame of %1 can be decoded").arg(plainText(recording));
    return result;
}
