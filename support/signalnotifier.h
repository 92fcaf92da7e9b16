// Unix signals as events of the main thread.
#pragma once

#include <QList>
#include <QObject>

#include <initializer_list>

class QSocketNotifier;

/**
 * While it lives, the named signals do not end the process but are reported by received(). A signal that was ignored
 * before (nohup) stays ignored. One object a process, on the thread with the event loop.
 *
 * A signal insists when it is SIGINT and has come before (a second Ctrl-C), or when it is another one that came first
 * at least a second ago. Nothing else insists: at the end of a session different signals come at the same time.
 */
class SignalNotifier : public QObject {
    Q_OBJECT

public:
    /// What a signal that insists does.
    enum class Insisting { IsReported, EndsProcess };

    SignalNotifier(std::initializer_list<int> numbers, Insisting insisting);
    ~SignalNotifier() override;

    /// The exit code that tells a shell which signal ended a process; what Insisting::EndsProcess exits with.
    static int exitCode(int number) { return 128 + number; }

    /// Ignores a signal from now on.
    static void ignore(int number);

    /// Lets a signal have its usual effect from now on, also when it was ignored at the start of the process.
    static void restore(int number);

Q_SIGNALS:
    void received(int number);
    void insisted(int number); ///< in place of received(); not with Insisting::EndsProcess

private:
    void readSignal();

    QList<int> handled; // what the destructor gives back
    QSocketNotifier* notifier = nullptr; // null when no pipe could be had: signals then end the process as usual
};
