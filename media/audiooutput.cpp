// The file's audio stream. There is no audio source yet, so every recording takes the road of a source that
// cannot be set up: video only, and a line that says so. Worker thread.
#include "gstrecorder.h"

#include <QDebug>

bool GstRecorder::openAudioOutput()
{
    qWarning() << "Continuing video recording without audio.";
    return false;
}
