// A self-pipe carries the signal from its handler to the event loop.
#include "terminationsignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <array>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr std::array endingSignals{SIGTERM, SIGINT, SIGHUP};
constexpr int exitCodeBase = 128;

std::atomic<int> writeEnd{-1};
std::atomic<bool> endRequested{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void handleSignal(int number)
{
    const auto byte = static_cast<unsigned char>(number);
    if (endRequested.exchange(true) || ::write(writeEnd.load(), &byte, 1) != 1)
        ::_exit(exitCodeBase + number);
}

void setHandler(int number, void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    ::sigaction(number, &action, nullptr);
}

bool isIgnored(int number)
{
    struct sigaction action = {};
    return ::sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

bool openPipe(std::array<int, 2>& ends)
{
    if (::pipe(ends.data()) != 0)
        return false;
    for (const int end : ends)
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
    return true;
}

}

TerminationSignals::TerminationSignals()
{
    setHandler(SIGPIPE, SIG_IGN);
    setHandler(SIGXFSZ, SIG_IGN);
    std::array<int, 2> ends{};
    if (!openPipe(ends))
        return;
    writeEnd.store(ends[1]);
    notifier = new QSocketNotifier(ends[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &TerminationSignals::onSignal);
    for (const int number : endingSignals) {
        if (!isIgnored(number))
            setHandler(number, handleSignal);
    }
}

TerminationSignals::~TerminationSignals()
{
    if (!notifier)
        return;
    for (const int number : endingSignals) {
        if (!isIgnored(number))
            setHandler(number, SIG_DFL);
    }
    notifier->setEnabled(false);
    ::close(int(notifier->socket()));
    ::close(writeEnd.exchange(-1));
}

void TerminationSignals::onSignal()
{
    unsigned char number = 0;
    if (::read(int(notifier->socket()), &number, 1) == 1)
        QCoreApplication::exit(exitCodeBase + number);
}
