// Clicks are not watched on this system; reports can still be ordered on the command line.
#include "clickwatcher.h"

struct ClickWatcher::Impl { };

ClickWatcher::ClickWatcher(quint32, QObject* parent)
    : QObject(parent), errorString_(QStringLiteral("not supported on this system"))
{
}

ClickWatcher::~ClickWatcher() = default;
