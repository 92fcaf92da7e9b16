// What a signal handler may do: write bytes that were there before.
#include "lastline.h"

#include "messagehandler.h"

#include <QDebug>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <poll.h>
#include <unistd.h>

namespace {

/// A line of the log, whose form is that of a line without a place.
constexpr char text[] = "Fatal: recorder is ended by a fault of the program or for want of memory; what the file has"
                        " up to its last whole fragment can be played (:0, )\n";

volatile std::sig_atomic_t logDescriptor = -1;

/// What a reader keeps waiting gets nothing: the process has to end.
void writeText(int descriptor)
{
    pollfd state{descriptor, POLLOUT, 0};
    if (descriptor < 0 || ::poll(&state, 1, 0) != 1)
        return;
    if (::write(descriptor, text, std::strlen(text)) < 0)
        return; // there is nobody left to tell
}

void writeEverywhere()
{
    writeText(logDescriptor);
    writeText(STDERR_FILENO);
}

/// The signal has got back its usual effect before this is called.
void tellFault(int number)
{
    writeEverywhere();
    std::raise(number);
}

}

void lastline::tellFaults()
{
    logDescriptor = logFilePtr ? ::fileno(logFilePtr) : -1;
    for (const int number : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTRAP}) {
        struct sigaction before = {};
        if (::sigaction(number, nullptr, &before) != 0 || before.sa_handler != SIG_DFL)
            continue;
        struct sigaction action = {};
        action.sa_handler = tellFault;
        action.sa_flags = SA_RESETHAND | SA_NODEFER;
        ::sigaction(number, &action, nullptr);
    }
}

void lastline::endNow(int exitCode)
{
    writeEverywhere();
    std::_Exit(exitCode);
}

void lastline::tellException(const char* what) noexcept
{
    try {
        qCritical() << "Recorder was interrupted by an exception; finishing the file and ending:" << what;
    } catch (const std::exception&) { // no memory for the line; this one needs none
        writeEverywhere();
    }
}
