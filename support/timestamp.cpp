#include "timestamp.h"

#include <QDateTime>

QString TimeStamp::RawUTC()
{
    return QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmss.zzz'Z'"));
}
