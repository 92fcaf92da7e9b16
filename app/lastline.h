// The last line of a run that ends by a fault: of the program, or of a library that has no other answer to memory
// that is refused than to end the process.
#pragma once

namespace lastline {

/**
 * From now on a signal of a fault (SIGSEGV, SIGABRT and their kind) first writes one line to stderr, and to the log
 * file when that was open at the last call, and then ends the process as it would have done; neither waits for a
 * reader. A signal that somebody handles already, as a sanitizer does, is left alone. A stack that is exhausted
 * leaves no room for the line.
 */
void tellFaults();

/// Writes that line and ends the process at once: what was being made is not in a state to be destroyed.
[[noreturn]] void endNow(int exitCode);

/// Logs an exception that nobody has caught, and what follows. Never throws.
void tellException(const char* what) noexcept;

}
