// The functions that replace QElapsedTimer's at link time.
#include "setclock.h"

#include <QElapsedTimer>

namespace setclock {

std::optional<qint64>& elapsedMs()
{
    static std::optional<qint64> instance;
    return instance;
}

}

// Member functions under their names for the linker.
extern "C" {

qint64 __real__ZNK13QElapsedTimer7elapsedEv(const QElapsedTimer* timer);
qint64 __wrap__ZNK13QElapsedTimer7elapsedEv(const QElapsedTimer* timer);
qint64 __wrap__ZNK13QElapsedTimer7elapsedEv(const QElapsedTimer* timer)
{
    return setclock::elapsedMs() ? *setclock::elapsedMs() : __real__ZNK13QElapsedTimer7elapsedEv(timer);
}

qint64 __real__ZNK13QElapsedTimer19msecsSinceReferenceEv(const QElapsedTimer* timer);
qint64 __wrap__ZNK13QElapsedTimer19msecsSinceReferenceEv(const QElapsedTimer* timer);
qint64 __wrap__ZNK13QElapsedTimer19msecsSinceReferenceEv(const QElapsedTimer* timer)
{
    return setclock::elapsedMs() ? setclock::referenceMs : __real__ZNK13QElapsedTimer19msecsSinceReferenceEv(timer);
}
}
