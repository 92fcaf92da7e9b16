// How record-window ends, as its callers see it. optiontable.cpp puts these codes into words for --help.
#pragma once

enum class ExitCode {
    Recorded = 0, ///< as asked
    BadUsage = 2, ///< also a window or a file that cannot be had; nothing was started
    NotStarted = 3, ///< no socket, or no recorder process
    EndedBeforeReady = 4, ///< the recorder ended, or could not record, before its window gave an image
    NoImage = 5, ///< the recording was stopped before its window gave an image
    NoDuration = 6, ///< the recorder never confirmed the end of the recording
    BadEnd = 7, ///< confirmed, but there is no file or the recorder's exit code is not 0
    NotAsAsked = 8, ///< recorded, but Outcome::warnings has something
    Killed = 130, ///< SignalNotifier::insisted(), or interrupted in the countdown
};
