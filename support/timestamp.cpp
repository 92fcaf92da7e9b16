#include "timestamp.h"

#include <QDateTime>

#include <chrono>

QString TimeStamp::RawUTC()
{
    using namespace std::chrono;
    constexpr int perMillisecond = 1000;
    const qint64 now = duration_cast<microseconds>(system_clock::now().time_since_epoch()).count();
    return QStringLiteral("%1%2Z")
        .arg(QDateTime::fromMSecsSinceEpoch(now / perMillisecond)
                 .toUTC()
                 .toString(QStringLiteral("yyyyMMdd'T'HHmmss.zzz")))
        .arg(now % perMillisecond, 3, 10, QLatin1Char('0'));
}
