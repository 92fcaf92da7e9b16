// Popups over the images of a window.
#include "popups.h"

#include <QPainter>
#include <QScopeGuard>

#include <algorithm>
#include <utility>

namespace x11 {

namespace {

/// Each takes a connection. A menu and its submenus are a handful.
constexpr std::size_t mostPopups = 16;

RowSet rowsOf(const QRegion& area)
{
    RowSet rows;
    for (const QRect& part : area)
        rows.add(part.top(), part.bottom() + 1);
    return rows;
}

}

PopupPainter::PopupPainter(quint32 windowId, WindowImages::Now now)
    : now_(std::move(now)), finder_(windowId, now_) { }

void PopupPainter::paint(platform::WindowSample& sample, const QRegion& unpainted)
{
    if (sample.image.isNull() || !sample.bounds)
        return;
    auto failure = qScopeGuard([this] { // after an exception all is painted anew
        layers_.clear();
        composed_.forget();
    });
    const QRect window = sample.bounds->toRect();
    followPopups(window, unpainted);
    std::vector<Layer> layers = takeLayers(window);
    const RowSet rows = changedRows(sample, layers);
    const bool wereThere = !layers_.empty();
    layers_ = std::move(layers);
    if (layers_.empty()) {
        composed_.forget();
        sample.changedRows = rows;
        if (wereThere)
            sample.ownBytes = sample.image.sizeInBytes();
        return;
    }
    const QImage& last = composed_.last();
    const bool fits = wereThere && last.size() == sample.image.size() && last.format() == sample.image.format();
    compose(sample.image, fits ? rows : RowSet(0, sample.image.height()));
    const SharedImages::Image taken = composed_.finish();
    if (taken.image.isNull()) { // no memory: the window alone
        sample.changedRows = RowSet(0, sample.image.height());
        sample.ownBytes = sample.image.sizeInBytes();
        return;
    }
    sample.image = taken.image;
    sample.changedRows = wereThere ? taken.changedRows : rows;
    sample.ownBytes = taken.ownBytes;
    failure.dismiss();
}

/// Reads the popups that are there now, and no longer those that are gone. A popup that is new may not have painted
/// yet: then it has the pixels of what was on the screen in its place. Where that was the window itself they are no
/// secret; elsewhere they have to be painted first.
void PopupPainter::followPopups(const QRect& window, const QRegion& unpainted)
{
    finder_.update();
    std::vector<Reader> readers;
    for (const Popup& popup : finder_.popups()) {
        if (!popup.area.intersects(window))
            continue;
        const auto known = std::find_if(readers_.begin(), readers_.end(), [&popup](const Reader& reader) {
            return reader.window == popup.window && reader.images && reader.images->isConnected();
        });
        readers.push_back({popup.window, known == readers_.end() ? nullptr : std::move(known->images)});
    }
    if (readers.size() > mostPopups)
        readers.erase(readers.begin(), readers.end() - mostPopups);
    readers_ = std::move(readers);
    const QRegion doubtful = finder_.others() + unpainted;
    for (const Popup& popup : finder_.popups()) {
        for (Reader& reader : readers_) {
            if (reader.window == popup.window && !reader.images)
                reader.images = std::make_unique<WindowImages>(
                    popup.window, now_, doubtful.translated(-popup.origin), noMemory_);
        }
    }
}

std::vector<PopupPainter::Layer> PopupPainter::takeLayers(const QRect& window)
{
    std::vector<Layer> layers;
    for (const Reader& reader : readers_) {
        const auto popup = std::find_if(finder_.popups().begin(), finder_.popups().end(),
            [&reader](const Popup& one) { return one.window == reader.window; });
        // Between the finding and the reading the id may have become another program's.
        if (popup == finder_.popups().end() || reader.images->clientProcessId() != finder_.process())
            continue;
        const platform::WindowSample sample = reader.images->sample();
        if (sample.image.isNull() || !sample.bounds)
            continue;
        const QRect bounds = sample.bounds->toRect();
        QRegion area = (QRegion(bounds) & window) - reader.images->blank();
        area &= popup->shape.translated(reader.images->origin());
        Layer layer{reader.window, sample.image, bounds.topLeft() - window.topLeft(),
            area.translated(-window.topLeft()), RowSet()};
        for (const RowSet::Range& range : sample.changedRows.ranges())
            layer.changedRows.add(range.top + layer.at.y(), range.end + layer.at.y());
        if (!layer.area.isEmpty())
            layers.push_back(std::move(layer));
    }
    return layers;
}

/// Rows of the image that may differ from the last one.
RowSet PopupPainter::changedRows(const platform::WindowSample& plain, const std::vector<Layer>& layers) const
{
    RowSet rows = plain.changedRows;
    const bool lieAsBefore = std::equal(layers.begin(), layers.end(), layers_.begin(), layers_.end(),
        [](const Layer& one, const Layer& other) { return one.liesAs(other); });
    if (lieAsBefore) {
        for (const Layer& layer : layers)
            rows.add(layer.changedRows);
    } else {
        for (const Layer& layer : layers_)
            rows.add(rowsOf(layer.area));
        for (const Layer& layer : layers)
            rows.add(rowsOf(layer.area));
    }
    return rows.within(0, plain.image.height());
}

void PopupPainter::compose(const QImage& plain, const RowSet& rows)
{
    const quint32 opaque = plain.hasAlphaChannel() ? 0 : 0xff000000u;
    composed_.update(plain.size(), plain.format());
    for (const RowSet::Range& range : rows.ranges()) {
        QImage band = plain.copy(0, range.top, plain.width(), range.count());
        if (band.isNull()) {
            composed_.abandon();
            return;
        }
        QPainter painter(&band);
        painter.translate(0, -range.top);
        for (const Layer& layer : layers_) {
            for (const QRect& part : layer.area)
                painter.drawImage(part.topLeft(), layer.image, part.translated(-layer.at));
        }
        painter.end();
        composed_.put(range.top, range.count(), reinterpret_cast<const quint32*>(band.constBits()), opaque);
    }
}

}
