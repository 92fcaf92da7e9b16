// The log sink: every Qt message as one line in the run's log file and on stderr.
#pragma once

#include <QtGlobal>

#include <cstdio>

class QMessageLogContext;
class QString;

/// The log file, open for writing; null until main opens it, and when it could not be opened. Closed by the
/// end of the process. Set before the handler is installed, never changed afterwards.
extern std::FILE* logFilePtr;

/// For qInstallMessageHandler(). Any thread; a line is written by one call, so lines do not mix. The log file
/// is flushed after every message, so that a crash loses nothing. stderr never holds up the caller: what it does not
/// take at once is dropped there (stderrlines.h), and a line in both outputs says how much, once it takes lines
/// again.
void MessageHandlerImpl(QtMsgType type, const QMessageLogContext& context, const QString& message);
