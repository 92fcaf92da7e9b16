// The rules of encoder selection.
#include "encoderchoice.h"

#include "avcompat.h"

#include <algorithm>
#include <array>

namespace encoderchoice {

namespace {

constexpr std::array preferredFormats{
    AV_PIX_FMT_YUV420P, AV_PIX_FMT_NV12, avcompat::thirdInputFormat, AV_PIX_FMT_YUV444P, AV_PIX_FMT_BGRA};

bool isSoftwareFormat(AVPixelFormat format)
{
    const AVPixFmtDescriptor* description = av_pix_fmt_desc_get(format);
    return description && !(description->flags & AV_PIX_FMT_FLAG_HWACCEL);
}

}

bool isForbidden(AVCodecID id, const QString& requestedName)
{
    if (id == AV_CODEC_ID_H264 || id == AV_CODEC_ID_HEVC)
        return true;
    constexpr std::array forbidden{"h264", "h265", "hevc", "openh264", "x264", "x265"};
    const QString name = requestedName.toLower();
    return std::any_of(
        forbidden.begin(), forbidden.end(), [&name](const char* part) { return name.contains(QLatin1String(part)); });
}

std::optional<AVPixelFormat> inputPixelFormat(const std::optional<std::span<const AVPixelFormat>>& formats)
{
    for (const AVPixelFormat candidate : preferredFormats) {
        const bool accepted = !formats || std::find(formats->begin(), formats->end(), candidate) != formats->end();
        if (accepted && isSoftwareFormat(candidate))
            return candidate;
    }
    if (!formats)
        return AV_PIX_FMT_YUV420P;
    const auto first = std::find_if(formats->begin(), formats->end(), isSoftwareFormat);
    return first != formats->end() ? std::optional(*first) : std::nullopt;
}

qint64 bitRate(const QSize& canvas)
{
    constexpr qint64 lowest = 6000000;
    constexpr qint64 highest = 18000000;
    constexpr qint64 bitsPerPixel = 6;
    const qint64 area = qint64(canvas.width()) * canvas.height();
    if (area < 1000000)
        return lowest;
    return std::min(std::min(area, highest) * bitsPerPixel, highest);
}

int threadCount(int idealThreadCount)
{
    return std::max(idealThreadCount, 2) - 1;
}

}
