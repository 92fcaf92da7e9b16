// What the desktop gave to ask for the same window again: kept in a file of the user's alone.
#pragma once

#include <QString>

namespace rememberedchoice {

/// $XDG_STATE_HOME/orvantis-recorder/window-token, or below ~/.local/state.
QString path();

/// The token; empty when there is none, or its file is not only the user's.
QString load();

/// An empty one removes what is there. False when it cannot be written.
bool store(const QString& token);

}
