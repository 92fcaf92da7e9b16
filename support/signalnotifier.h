// Unix signals as events of the main thread.
#pragma once

#include <QList>
#include <QObject>

#include <initializer_list>

class QSocketNotifier;

/**
 * While it lives, the named signals do not end the process but are reported by received(). A signal that was ignored
 * before (nohup) stays ignored. One object a process, on the thread with the event loop.
 */
class SignalNotifier : public QObject {
    Q_OBJECT

public:
    /// What a signal does that comes while an earlier one was already reported.
    enum class Repeated { IsReported, EndsProcess };

    SignalNotifier(std::initializer_list<int> numbers, Repeated repeated);
    ~SignalNotifier() override;

    /// The exit code that tells a shell which signal ended a process; what Repeated::EndsProcess exits with.
    static int exitCode(int number) { return 128 + number; }

    /// Ignores a signal from now on.
    static void ignore(int number);

Q_SIGNALS:
    void received(int number);

private:
    void readSignal();

    QList<int> handled; // what the destructor gives back
    QSocketNotifier* notifier = nullptr; // null when no pipe could be had: signals then end the process as usual
};
