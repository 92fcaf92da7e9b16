// The ten arguments of a recording, as the launcher gives them.
#pragma once

#include <QString>

struct RecordingArguments {
    static constexpr int neededCount = 11; ///< the executable and ten arguments

    QString command;
    QString output;
    QString window;
    int screenOriginX = 0; ///< what is no whole number is 0, here and below
    int screenOriginY = 0;
    int canvasWidth = 0; ///< pixels
    int canvasHeight = 0;
    double scale = 0.0;
    QString audioSource;

    /// argv has neededCount entries. The log's directory, the first argument, is not among these.
    static RecordingArguments read(const char* const* argv);
};
