// The steps of main() that need no recorder: plug-in path, log file, identity lines, permission mode.
#pragma once

#include <QString>
#include <QStringList>

namespace startup {

/// From now on no rule for log lines that Qt finds (QT_LOGGING_RULES, QT_LOGGING_CONF, qtlogging.ini) takes a line of
/// this program away, and no warning ends the process (QT_FATAL_WARNINGS, QT_FATAL_CRITICALS). Rules for other
/// libraries' categories hold. Before the first line is logged.
void keepEveryLogLine();

/// Has Qt use its own event loops, not those of GLib, which ends the process when there is no memory. Before the
/// application object exists.
void useQtEventLoops();

/// Puts the application's own plug-in directory ("../PlugIns" beside the executable's directory, else
/// "../../../../PlugIns" for an executable deeper in a bundle) in front of QT_PLUGIN_PATH; leaves the
/// variable alone when neither exists. One that another user can change does not count. Before the application object
/// exists. Returns those that did not count.
QStringList extendPluginPath(const char* executable);

/// Qt also searches the directory that the executable lies in. When that is everybody's, as /tmp, it does so no more:
/// returned are the directories that are left out. Before the application object exists, behind extendPluginPath().
QStringList leaveOutSharedDirectory();

/// Names whom Qt takes for the program's maker. Behind the application object.
void setOrganization();

/// The name of this run's log file in a directory (argument 1, UTF-8; may be null for a missing argument).
QString logFilePath(const char* directory);

/// Opens the log file and sends every message there and to stderr from now on. When the file cannot be
/// opened, the run goes on with stderr alone and says so there.
void startLogging(const QString& path);

/// Sends every message to stderr alone from now on.
void startLoggingWithoutFile();

/// Logs the arguments, the process identity, the environment and the library paths. A line feed in an argument is
/// shown as "\n": it must not look like a line of the log.
void logIdentity(int argc, char** argv);

/// Has Qt make what it keeps for painting. It cannot be made later when memory was refused for it once: Qt's library
/// for images knows no exceptions, and leaves what it was making locked for ever. Behind the application object.
void preparePainting();

/// Logs the places that plug-ins are not loaded from, if there are any.
void logRefusedPlugIns(const QStringList& directories);

/// Checks, and if need be requests, the screen-recording permission; the exit code of permission mode: 0 when
/// it is held, 2 when not; then the system's settings name the program afterwards, as far as they can.
int requestPermissions();

}
