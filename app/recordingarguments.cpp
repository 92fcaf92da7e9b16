// The places of the arguments.
#include "recordingarguments.h"

RecordingArguments RecordingArguments::read(const char* const* argv)
{
    const auto text = [argv](int position) { return QString::fromUtf8(argv[position]); };
    RecordingArguments arguments;
    arguments.command = text(2);
    arguments.output = text(3);
    arguments.window = text(4);
    arguments.screenOriginX = text(5).toInt();
    arguments.screenOriginY = text(6).toInt();
    arguments.canvasWidth = text(7).toInt();
    arguments.canvasHeight = text(8).toInt();
    arguments.scale = text(9).toDouble();
    arguments.audioSource = text(10);
    return arguments;
}
