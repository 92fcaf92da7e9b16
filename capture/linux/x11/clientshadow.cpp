// Bounds for what an application says about its shadow.
#include "clientshadow.h"

#include "xcbreplies.h"

#include <QDebug>

#include <algorithm>
#include <utility>

namespace x11 {

namespace {

constexpr quint32 widestShadow = 128; // pixels

bool leavesMost(quint32 shadows, int length)
{
    return qint64(shadows) * 2 < length;
}

}

QMargins boundedShadow(quint32 left, quint32 right, quint32 top, quint32 bottom, QSize window)
{
    if (std::max({left, right, top, bottom}) > widestShadow || !leavesMost(left + right, window.width())
        || !leavesMost(top + bottom, window.height()))
        return QMargins();
    return QMargins(int(left), int(top), int(right), int(bottom));
}

QMargins clientShadow(const xcb_get_property_reply_t* property, QSize window)
{
    const auto values = propertyValues(property);
    if (values.size() != 4 || property->bytes_after != 0)
        return QMargins();
    return boundedShadow(values[0], values[1], values[2], values[3], window);
}

void ShadowLog::note(const QMargins& shadow, TimePoint now)
{
    const std::optional<QMargins> before = std::exchange(last_, shadow);
    if (!before || *before == shadow)
        return;
    if (loggedAt_ && now - *loggedAt_ < pause) {
        ++unlogged_;
        return;
    }
    qWarning()
        << "Captured window has changed what it counts as its shadow, which is cut off; left, right, top, bottom:"
        << shadow.left() << shadow.right() << shadow.top() << shadow.bottom()
        << "changes not logged before:" << std::exchange(unlogged_, 0);
    loggedAt_ = now;
}

}
