// A self-pipe carries the signal from its handler to the event loop.
#include "signalnotifier.h"

#include <QSocketNotifier>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace {

constexpr qint64 insistingAfterMs = 1000;
constexpr unsigned char insistingBit = 0x80; // of a byte in the pipe; the numbers are below

std::atomic<int> writeEnd{-1};
std::atomic<bool> insistingEnds{false};
std::array<std::atomic<qint64>, NSIG> firstAtMs{}; // by signal, monotonic; 0 when it has not come yet
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<qint64>::is_always_lock_free);

qint64 nowMs()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return qint64(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

/// Notes that a signal has come.
bool insists(int number)
{
    const qint64 now = nowMs();
    qint64 first = 0;
    if (firstAtMs[std::size_t(number)].compare_exchange_strong(first, now))
        return false;
    return number == SIGINT || now - first >= insistingAfterMs;
}

void handleSignal(int number)
{
    const int errorBefore = errno;
    const bool insisting = insists(number);
    const auto byte = static_cast<unsigned char>(number | (insisting ? insistingBit : 0));
    if ((insisting && insistingEnds.load()) || ::write(writeEnd.load(), &byte, 1) != 1)
        ::_exit(SignalNotifier::exitCode(number));
    errno = errorBefore;
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

SignalNotifier::SignalNotifier(std::initializer_list<int> numbers, Insisting insisting)
{
    std::array<int, 2> ends{};
    if (!openPipe(ends))
        return;
    writeEnd.store(ends[1]);
    insistingEnds.store(insisting == Insisting::EndsProcess);
    for (std::atomic<qint64>& first : firstAtMs)
        first.store(0);
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

void SignalNotifier::restore(int number)
{
    setHandler(number, SIG_DFL);
}

void SignalNotifier::readSignal()
{
    unsigned char byte = 0;
    if (::read(int(notifier->socket()), &byte, 1) != 1)
        return;
    if ((byte & insistingBit) != 0)
        Q_EMIT insisted(byte & ~insistingBit);
    else
        Q_EMIT received(byte);
}
