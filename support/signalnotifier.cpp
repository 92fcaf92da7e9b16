// A self-pipe carries the signal from its handler to the event loop.
#include "signalnotifier.h"

#include <QSocketNotifier>

#include <array>
#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

std::atomic<int> writeEnd{-1};
std::atomic<bool> repetitionEnds{false};
std::atomic<bool> reportedBefore{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void handleSignal(int number)
{
    const auto byte = static_cast<unsigned char>(number);
    if (reportedBefore.exchange(true) && repetitionEnds.load())
        ::_exit(SignalNotifier::exitCode(number));
    if (::write(writeEnd.load(), &byte, 1) != 1)
        ::_exit(SignalNotifier::exitCode(number));
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

SignalNotifier::SignalNotifier(std::initializer_list<int> numbers, Repeated repeated)
{
    std::array<int, 2> ends{};
    if (!openPipe(ends))
        return;
    writeEnd.store(ends[1]);
    reportedBefore.store(false);
    repetitionEnds.store(repeated == Repeated::EndsProcess);
    notifier = new QSocketNotifier(ends[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, &SignalNotifier::readSignal);
    for (const int number : numbers) {
        if (isIgnored(number))
            continue;
        setHandler(number, handleSignal);
        handled.append(number);
    }
}

SignalNotifier::~SignalNotifier()
{
    for (const int number : std::as_const(handled))
        setHandler(number, SIG_DFL);
    if (!notifier)
        return;
    notifier->setEnabled(false);
    ::close(int(notifier->socket()));
    ::close(writeEnd.exchange(-1));
}

void SignalNotifier::ignore(int number)
{
    setHandler(number, SIG_IGN);
}

void SignalNotifier::readSignal()
{
    unsigned char number = 0;
    if (::read(int(notifier->socket()), &number, 1) == 1)
        Q_EMIT received(number);
}
