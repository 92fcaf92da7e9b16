// Conversion in bands of rows.
#include "bandconversion.h"

#include <QThread>

#include <algorithm>
#include <cstring>
#include <map>
#include <new>
#include <span>
#include <utility>
#include <vector>

namespace {

constexpr int bandRows = 64; // even: two rows share their colours
constexpr int margin = 2; // rows above and below that the converter looks at for the outer ones

/// How many bands an image has. The last one is larger than the others by what is left: the converter works
/// differently on images of a few rows.
int bandCount(int imageHeight)
{
    return std::max(imageHeight / bandRows, 1);
}

/// One band of an image, and the rows around it that are converted with it.
struct BandPlace {
    BandPlace(int index, int imageHeight)
        : top(index * bandRows), end(index + 1 == bandCount(imageHeight) ? imageHeight : top + bandRows),
          firstRead(std::max(top - margin, 0)), endRead(std::min(end + margin, imageHeight))
    {
    }
    int top;
    int end;
    int firstRead;
    int endRead;
};

/// Rows of one plane from the band's frame to their place.
void copyPlane(const AVFrame& from, AVFrame& to, int plane, int width, const BandPlace& place, int shift)
{
    const int rows = (place.end - place.top) >> shift;
    const int skipped = (place.top - place.firstRead) >> shift;
    for (int row = 0; row < rows; ++row) {
        std::memcpy(to.data[plane] + std::ptrdiff_t((place.top >> shift) + row) * to.linesize[plane],
            from.data[plane] + std::ptrdiff_t(skipped + row) * from.linesize[plane], std::size_t(width));
    }
}

void copyBand(const AVFrame& from, AVFrame& to, const BandPlace& place)
{
    const AVPixFmtDescriptor& format = *av_pix_fmt_desc_get(AVPixelFormat(to.format));
    for (int plane = 0; plane < av_pix_fmt_count_planes(AVPixelFormat(to.format)); ++plane) {
        const bool isColour = plane == 1 || plane == 2;
        const int width = av_image_get_linesize(AVPixelFormat(to.format), to.width, plane);
        copyPlane(from, to, plane, width, place, isColour ? format.log2_chroma_h : 0);
    }
}

bool isSupported(const AVFrame& frame)
{
    const AVPixFmtDescriptor* const format = av_pix_fmt_desc_get(AVPixelFormat(frame.format));
    return format && format->log2_chroma_h <= 1 && frame.height % 2 == 0;
}

std::vector<BandPlace> bandsWith(const RowSet& rows, int height)
{
    std::vector<BandPlace> places;
    for (int index = 0; index < bandCount(height); ++index) {
        const BandPlace place(index, height);
        if (rows.intersects(place.top, place.end))
            places.push_back(place);
    }
    return places;
}

}

/// Converts bands, on one thread at a time.
class BandConversion::Converter {
public:
    /// Makes ready for bands; false when there is no memory.
    bool prepare(std::span<const BandPlace> places, const AVFrame& like)
    {
        try {
            return std::all_of(places.begin(), places.end(),
                [&](const BandPlace& place) { return ensureBand(place.endRead - place.firstRead, like); });
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    /// False when FFmpeg could not; a part of the rows is in the frame then.
    bool convert(std::span<const BandPlace> places, const QImage& image, AVFrame& frame) const noexcept
    {
        for (const BandPlace& place : places) {
            const int rowCount = place.endRead - place.firstRead;
            const Band& band = bands_.at(rowCount);
            const uint8_t* const planes[] = {image.constScanLine(place.firstRead)};
            const int strides[] = {int(image.bytesPerLine())};
            const int status
                = sws_scale(band.context.get(), planes, strides, 0, rowCount, band.frame->data, band.frame->linesize);
            if (status < 0)
                return false;
            copyBand(*band.frame, frame, place);
        }
        return true;
    }

    void release() { bands_.clear(); }

private:
    /// A conversion of so many rows, and where it puts them.
    struct Band {
        SwsContextHandle context;
        AvFrameHandle frame;
    };

    bool ensureBand(int rowCount, const AVFrame& like);

    std::map<int, Band> bands_; // by their rows
};

bool BandConversion::Converter::ensureBand(int rowCount, const AVFrame& like)
{
    if (bands_.contains(rowCount))
        return true;
    const auto format = AVPixelFormat(like.format);
    Band band{SwsContextHandle(sws_getContext(like.width, rowCount, AV_PIX_FMT_BGRA, like.width, rowCount, format,
                  SWS_BILINEAR, nullptr, nullptr, nullptr)),
        AvFrameHandle(av_frame_alloc())};
    if (!band.context || !band.frame)
        return false;
    band.frame->format = like.format;
    band.frame->width = like.width;
    band.frame->height = rowCount;
    if (av_frame_get_buffer(band.frame.get(), videoBufferAlignment) < 0)
        return false;
    bands_.emplace(rowCount, std::move(band));
    return true;
}

BandConversion::BandConversion() : own_(std::make_unique<Converter>()), other_(std::make_unique<Converter>()) { }

BandConversion::~BandConversion() = default;

bool BandConversion::convert(const QImage& image, const RowSet& rows, AVFrame& frame, Haste haste)
{
    // What lies at the edge of a band's outer rows shows in the neighbour's colours, too.
    RowSet reached;
    for (const RowSet::Range& range : rows.ranges())
        reached.add(std::max(range.top - margin, 0), std::min(range.end + margin, frame.height));
    const std::vector<BandPlace> places = bandsWith(reached, frame.height);
    const bool isHurried = haste == Haste::Hurry && places.size() > 1 && QThread::idealThreadCount() > 1;
    constexpr int mostEighths = 7; // of the whole
    const bool isWorthIt = isHurried || int(places.size()) * 8 <= bandCount(frame.height) * mostEighths;
    if (!isSupported(frame) || !isWorthIt)
        return false;

    const std::span all(places);
    const auto others = all.last(isHurried ? places.size() / 2 : 0);
    const auto mine = all.first(places.size() - others.size());
    if (!own_->prepare(mine, frame) || !other_->prepare(others, frame)) // before anything is written
        return false;
    bool othersAreDone = false;
    const auto convertOthers = [&] { othersAreDone = other_->convert(others, image, frame); };
    if (!isHurried || !thread_.start(convertOthers))
        convertOthers();
    const bool mineAreDone = own_->convert(mine, image, frame);
    thread_.wait();
    return mineAreDone && othersAreDone;
}

void BandConversion::release()
{
    own_->release();
    other_->release();
}
