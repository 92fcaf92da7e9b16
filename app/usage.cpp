// The texts of --help and --version.
#include "usage.h"

#include <cstring>

namespace {

constexpr const char* help = R"(Usage: orvantis-recorder LOGDIR COMMAND OUTPUT WINDOW X Y WIDTH HEIGHT SCALE AUDIO
       orvantis-recorder --request-permissions
       orvantis-recorder --help | --version

Records one window for a launcher, which steers it over a local socket.
To record a window by hand, use record-window.

  LOGDIR         directory for the log file; must exist and be writable
  COMMAND        capture command; qt-window-capture
  OUTPUT         the file; its suffix becomes .mp4
  WINDOW         window id, decimal
  X Y            screen origin, whole numbers
  WIDTH HEIGHT   size of the video in pixels, whole numbers
  SCALE          a number
  AUDIO          app-pid: and a process id records that application, anything
                 else what the display plays

--request-permissions checks, and where the system has one requests, the
permission to capture windows.

Environment:
  TMPDIR                        where the launcher's socket orvantis-recorder is
  ORVANTIS_END_WITH_LAUNCHER=1  end, with the file finished, when the launcher
                                is not there or hangs up
  ORVANTIS_POPUPS=1             record the menus of the window's program, too,
                                where they are over the window (X11)
  ORVANTIS_WINDOW_SOURCE=pipewire
                                the window is the id of a PipeWire node (Linux)
  ORVANTIS_PIPEWIRE_FD          the number of an open connection to PipeWire

Exit codes:
  0        the launcher said "exit"; the permission is held; too few arguments
  1        memory was refused; the file is finished first, where there is one
  2        the window capture could not be set up; the system has no thread for
           the recording; the permission is not held
  3        the launcher is gone, and ORVANTIS_END_WITH_LAUNCHER=1 was set
  128 + n  ended by signal n
)";

}

QByteArray usage::text(int argc, char** argv)
{
    if (argc != 2)
        return QByteArray();
    if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)
        return QByteArray(help);
    if (std::strcmp(argv[1], "--version") == 0)
        return QByteArrayLiteral("orvantis-recorder " ORVANTIS_VERSION "\n");
    return QByteArray();
}
