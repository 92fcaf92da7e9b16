// Clicks are not watched on this system; --click still reports clicks.
#include "clickwatcher.h"

struct ClickWatcher::Impl { };

ClickWatcher::ClickWatcher(quint32, Watched, QObject* parent)
    : QObject(parent), errorString_(QStringLiteral("not supported on this system"))
{
}

ClickWatcher::~ClickWatcher() = default;
