// Which kind of window the window argument names, as whoever starts the recorder says it in the environment.
#pragma once

#include <QString>

namespace wayland {

/// ORVANTIS_WINDOW_SOURCE. Numbers of nodes and of X11 windows look alike, so it is never guessed.
enum class SourceKind {
    X11, ///< also when the variable is not there, or empty
    PipeWire, ///< the window argument is the id of a node
    Unknown, ///< a value that this program does not know: nothing is captured
};
SourceKind chosenSource();

/// ORVANTIS_PIPEWIRE_FD: the descriptor of a connection to PipeWire that was inherited.
struct InheritedConnection {
    int descriptor = -1; ///< below 0: none was named, or error says what is wrong with it
    QString error;
};
/// It is closed in programs that are started from here on. Nothing else happens to it.
InheritedConnection inheritedConnection();

}
