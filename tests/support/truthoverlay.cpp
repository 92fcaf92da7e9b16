// Pointer and click markers over the truth window's field.
#include "truthoverlay.h"

#include <QColor>
#include <QPainter>
#include <QPen>
#include <QPolygonF>
#include <QRectF>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <vector>

namespace truthoverlay {

namespace {

constexpr double lifetimeMs = 2000.0;
constexpr double fullAlpha = 180.0;
constexpr double leastAlpha = 60.0;
constexpr double fullRadius = 16.0; // pixels
constexpr double leastRadius = 2.0;
constexpr double markerRedness = 217.5; // of the opaque colour
constexpr QSizeF arrowSize(19, 27); // pixels at a scale of 1, without its rim

/// How much redder than grey a pixel is, -255 to 255. White, grey and black below a marker do not change it.
double redness(QRgb pixel)
{
    return qRed(pixel) - (qGreen(pixel) + qBlue(pixel)) / 2.0;
}

/// Encoder noise stays below these. Brightness and redness, in steps of 255.
constexpr double brightnessNoise = 8.0;
constexpr double rednessNoise = 6.0;
/// From here on a pixel certainly belongs to the arrow, or to a marker.
constexpr double certainBrightness = 40.0;
constexpr double certainRedness = 14.0;

/// The field's own brightness: the median, which small things on the field do not move.
double fieldBrightness(const QImage& frame, const QRect& field)
{
    constexpr int step = 7; // one pixel in 49 is plenty
    std::array<int, 256> histogram{};
    int count = 0;
    for (int y = field.top(); y <= field.bottom(); y += step) {
        const auto* const line = reinterpret_cast<const QRgb*>(frame.constScanLine(y));
        for (int x = field.left(); x <= field.right(); x += step, ++count)
            ++histogram[std::size_t(qGray(line[x]))];
    }
    int below = 0;
    for (std::size_t value = 0; value < histogram.size(); ++value) {
        below += histogram[value];
        if (2 * below >= count)
            return double(value);
    }
    return 0.0;
}

/// Weighted sums over pixels; positions are those of pixel centres.
struct Moments {
    double weight = 0.0;
    QPointF weighted;
    double weightedSquares = 0.0;

    void add(int x, int y, double value)
    {
        const QPointF centre(x + 0.5, y + 0.5);
        weight += value;
        weighted += value * centre;
        weightedSquares += value * QPointF::dotProduct(centre, centre);
    }
    QPointF centroid() const { return weighted / weight; }
    /// Sum of the variances along both axes.
    double variance() const { return weightedSquares / weight - QPointF::dotProduct(centroid(), centroid()); }
};

/// Brightness against the field's, over the neutral pixels of an area.
Moments brightnessMoments(const QImage& frame, const QRect& area, double background)
{
    Moments moments;
    for (int y = area.top(); y <= area.bottom(); ++y) {
        const auto* const line = reinterpret_cast<const QRgb*>(frame.constScanLine(y));
        for (int x = area.left(); x <= area.right(); ++x) {
            const double difference = qGray(line[x]) - background;
            if (std::abs(difference) > brightnessNoise && redness(line[x]) < certainRedness)
                moments.add(x, y, difference);
        }
    }
    return moments;
}

/// The middle of everything that is certainly not field: the median position, in pixels.
std::optional<QPoint> medianOfDisturbance(const QImage& frame, const QRect& field, double background)
{
    std::vector<int> columns;
    std::vector<int> lines;
    for (int y = field.top(); y <= field.bottom(); ++y) {
        const auto* const line = reinterpret_cast<const QRgb*>(frame.constScanLine(y));
        for (int x = field.left(); x <= field.right(); ++x) {
            if (std::abs(qGray(line[x]) - background) > certainBrightness && redness(line[x]) < certainRedness) {
                columns.push_back(x);
                lines.push_back(y);
            }
        }
    }
    if (columns.empty())
        return std::nullopt;
    const auto middle = std::ptrdiff_t(columns.size() / 2);
    std::nth_element(columns.begin(), columns.begin() + middle, columns.end());
    return QPoint(columns[std::size_t(middle)], lines[std::size_t(middle)]); // lines are in order already
}

/// Grows one red spot from a pixel to all that touch it. Each pixel of the field is visited once.
class RedSpots {
public:
    RedSpots(const QImage& frame, const QRect& field)
        : frame_(frame), field_(field), seen_(std::size_t(field.width()) * std::size_t(field.height()), false)
    {
    }

    /// Puts a pixel of the field on the list of the next flood; false when it was visited before.
    bool visit(QPoint point)
    {
        const QPoint inField = point - field_.topLeft();
        const auto index = std::size_t(inField.y()) * std::size_t(field_.width()) + std::size_t(inField.x());
        if (seen_[index])
            return false;
        seen_[index] = true;
        toMeasure_.push_back(point);
        return true;
    }

    Moments flood()
    {
        Moments moments;
        while (!toMeasure_.empty()) {
            const QPoint point = toMeasure_.back();
            toMeasure_.pop_back();
            moments.add(point.x(), point.y(), redness(frame_.pixel(point)));
            const QRect around = QRect(point - QPoint(1, 1), QSize(3, 3)) & field_;
            for (int y = around.top(); y <= around.bottom(); ++y) {
                for (int x = around.left(); x <= around.right(); ++x) {
                    if (redness(frame_.pixel(x, y)) > rednessNoise)
                        visit({x, y});
                }
            }
        }
        return moments;
    }

private:
    const QImage& frame_;
    const QRect field_;
    std::vector<bool> seen_;
    std::vector<QPoint> toMeasure_;
};

/// The arrow over a grey field, as the measurement sees it.
struct ArrowModel {
    QPointF centroidFromTip;
    double weight = 0.0;
};

ArrowModel modelArrow(double scale, int grey)
{
    const QPointF tip(std::floor(4 * scale), std::floor(4 * scale));
    QImage image((arrowSize * scale * 1.5).toSize(), QImage::Format_RGB32);
    image.fill(qRgb(grey, grey, grey));
    QPainter painter(&image);
    drawPointer(painter, tip, scale);
    painter.end();
    const Moments moments = brightnessMoments(image, image.rect(), grey);
    return {moments.centroid() - tip, moments.weight};
}

}

void drawPointer(QPainter& painter, const QPointF& tip, double scale)
{
    static const QPolygonF outline{{0, 0}, {0, 23}, {6, 17}, {10, 27}, {15, 25}, {11, 15}, {19, 15}};
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.translate(tip);
    painter.scale(scale, scale);
    painter.setBrush(Qt::white);
    for (const auto& [colour, width] : {std::pair(Qt::black, 3.0), std::pair(Qt::white, 1.0)}) {
        painter.setPen(QPen(colour, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.drawPolygon(outline);
    }
    painter.restore();
}

void drawMarker(QPainter& painter, const QPointF& centre, double ageMs)
{
    const double fade = 1.0 - std::min(ageMs / lifetimeMs, 1.0);
    const double radius = std::max(fullRadius * fade, leastRadius);
    const int alpha = int(std::max(std::round(fullAlpha * fade), leastAlpha));
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(230, 0, 25, alpha));
    painter.drawEllipse(centre, radius, radius);
    painter.restore();
}

std::optional<QPointF> findPointer(const QImage& frame, const QRect& field, double arrowScale)
{
    const double background = fieldBrightness(frame, field);
    const std::optional<QPoint> start = medianOfDisturbance(frame, field, background);
    if (!start)
        return std::nullopt;

    // The frame is drawn around the estimate, measured, and moved to what was measured, until it stays.
    const ArrowModel model = modelArrow(arrowScale, int(background));
    QPointF tip = QPointF(*start) - model.centroidFromTip;
    double weight = 0.0;
    constexpr int rounds = 6;
    for (int round = 0; round < rounds; ++round) {
        const double margin = 5 * arrowScale; // rim, blur and the error of the estimate
        const QRectF arrow(tip, arrowSize * arrowScale);
        const QRect area = arrow.adjusted(-margin, -margin, margin, margin).toAlignedRect();
        if (!field.contains(area))
            return std::nullopt;
        const Moments moments = brightnessMoments(frame, area, background);
        weight = moments.weight;
        if (weight < model.weight / 2)
            return std::nullopt;
        tip = moments.centroid() - model.centroidFromTip;
    }
    constexpr double tolerance = 0.2;
    if (std::abs(weight - model.weight) > tolerance * model.weight)
        return std::nullopt;
    return tip;
}

QList<Spot> findMarkers(const QImage& frame, const QRect& field)
{
    // Half of what the faintest marker adds up to: the rest may drown in the noise.
    constexpr double leastWeight
        = std::numbers::pi * leastRadius * leastRadius * markerRedness * leastAlpha / 255.0 / 2.0;
    RedSpots finder(frame, field);
    QList<Spot> spots;
    for (int y = field.top(); y <= field.bottom(); ++y) {
        const auto* const line = reinterpret_cast<const QRgb*>(frame.constScanLine(y));
        for (int x = field.left(); x <= field.right(); ++x) {
            if (redness(line[x]) < certainRedness || !finder.visit({x, y}))
                continue;
            const Moments moments = finder.flood();
            // An even disc spreads by a quarter of its squared radius along each axis.
            if (moments.weight >= leastWeight)
                spots.append({moments.centroid(), std::sqrt(2.0 * moments.variance())});
        }
    }
    return spots;
}

}
