// The barcode of the truth window.
#include "truthcode.h"

#include <QColor>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <vector>

namespace truthcode {

namespace {

constexpr int bitCount = columns * rows;
constexpr int counterBits = 24;
constexpr int clockBits = 32;
constexpr int checksumBits = 16;
static_assert(counterBits + clockBits + checksumBits == bitCount);

/// A cell's mean brightness (0 to 255) counts as black or white up to this far from it.
constexpr double blackBelow = 96.0;
constexpr double whiteAbove = 160.0;

using Bits = std::array<bool, bitCount>;

/// CRC-16 with polynomial 0x1021; the start value keeps an all-white and an all-black block from being right.
std::uint16_t checksum(std::uint64_t value)
{
    std::uint16_t crc = 0xffff;
    for (int bit = counterBits + clockBits - 1; bit >= 0; --bit) {
        const bool carry = ((crc >> 15) ^ (value >> bit)) & 1;
        crc = std::uint16_t(crc << 1);
        if (carry)
            crc ^= 0x1021;
    }
    return crc;
}

Bits bitsOf(const TruthStamp& stamp)
{
    const std::uint64_t value = std::uint64_t(stamp.counter & 0xffffff) << clockBits | stamp.clockMs;
    const std::uint16_t check = checksum(value);
    Bits bits{};
    for (int i = 0; i < counterBits + clockBits; ++i)
        bits[std::size_t(i)] = (value >> (counterBits + clockBits - 1 - i)) & 1;
    for (int i = 0; i < checksumBits; ++i)
        bits[std::size_t(counterBits + clockBits + i)] = (check >> (checksumBits - 1 - i)) & 1;
    return bits;
}

std::uint64_t number(const Bits& bits, int first, int count)
{
    std::uint64_t value = 0;
    for (int i = first; i < first + count; ++i)
        value = value << 1 | std::uint64_t(bits[std::size_t(i)]);
    return value;
}

/// The mean brightness of a rectangle's pixels; nothing when it is not wholly in the frame or holds no
/// pixel.
std::optional<double> meanBrightness(const QImage& frame, const QRectF& area)
{
    const int left = int(std::ceil(area.left()));
    const int top = int(std::ceil(area.top()));
    const int right = int(std::floor(area.right())); // one past the last column
    const int bottom = int(std::floor(area.bottom()));
    if (left < 0 || top < 0 || right > frame.width() || bottom > frame.height() || left >= right || top >= bottom)
        return std::nullopt;
    double sum = 0.0;
    for (int y = top; y < bottom; ++y) {
        for (int x = left; x < right; ++x)
            sum += qGray(frame.pixel(x, y));
    }
    return sum / ((right - left) * (bottom - top));
}

}

void paint(QImage& window, const TruthStamp& stamp)
{
    const double cell = window.width() / cellsAcrossWindow;
    const Bits bits = bitsOf(stamp);
    const int height = std::min(int(std::lround(blockInCells.height() * cell)), window.height());
    std::vector<QRgb> line(std::size_t(std::lround(blockInCells.width() * cell)), qRgb(255, 255, 255));
    int paintedRow = -1; // what the line holds; the rim is row -1, and row 3
    for (int y = 0; y < height; ++y) {
        const int row = int(std::floor((y + 0.5) / cell)) - 1;
        for (std::size_t x = 0; row != paintedRow && x < line.size(); ++x) {
            const int column = int(std::floor((double(x) + 0.5) / cell)) - 1;
            const bool inside = row < rows && column >= 0 && column < columns;
            line[x] = inside && bits[std::size_t(row * columns + column)] ? qRgb(0, 0, 0) : qRgb(255, 255, 255);
        }
        paintedRow = row;
        std::copy(line.cbegin(), line.cend(), reinterpret_cast<QRgb*>(window.scanLine(y)));
    }
}

std::optional<TruthStamp> decode(const QImage& canvas, const QRectF& whereTheWindowIs)
{
    const double cell = whereTheWindowIs.width() / cellsAcrossWindow;
    Bits bits{};
    for (int i = 0; i < bitCount; ++i) {
        // The middle half of a cell: its rims are blurred by scaling and by the encoder.
        const QRectF middle(whereTheWindowIs.left() + (i % columns + 1.25) * cell,
            whereTheWindowIs.top() + (i / columns + 1.25) * cell, cell / 2, cell / 2);
        const std::optional<double> brightness = meanBrightness(canvas, middle);
        if (!brightness || (*brightness > blackBelow && *brightness < whiteAbove))
            return std::nullopt;
        bits[std::size_t(i)] = *brightness <= blackBelow;
    }
    const std::uint64_t value = number(bits, 0, counterBits + clockBits);
    if (checksum(value) != number(bits, counterBits + clockBits, checksumBits))
        return std::nullopt;
    return TruthStamp{quint32(value >> clockBits), quint32(value)};
}

}
