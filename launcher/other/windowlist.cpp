// Windows are not listed on this system yet.
#include "windowlist.h"

namespace {

WindowAnswer notAvailable()
{
    return {{}, QStringLiteral("windows cannot be looked up on this system; give --window")};
}

}

WindowAnswer windowlist::all()
{
    return notAvailable();
}

WindowAnswer windowlist::withId(quint32)
{
    return notAvailable();
}

WindowAnswer windowlist::active()
{
    return notAvailable();
}

WindowAnswer windowlist::picked()
{
    return notAvailable();
}
