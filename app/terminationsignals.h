// SIGTERM, SIGINT and SIGHUP as an orderly end of the event loop.
#pragma once

#include <QObject>

class QSocketNotifier;

/**
 * While it lives, the first of these signals ends the event loop with exit code 128 + its number, so that the
 * recording is finalised on the normal road; the second one ends the process at once with that code. A signal
 * that was ignored when the process started (nohup) stays ignored. SIGPIPE and SIGXFSZ become error codes of
 * the call that caused them: a launcher that closed our stderr, or a file-size limit, must not end a
 * recording. One object a process; main thread.
 */
class TerminationSignals : public QObject {
    Q_OBJECT

public:
    TerminationSignals();
    ~TerminationSignals() override;

private:
    void onSignal();

    QSocketNotifier* notifier = nullptr; // null when no pipe could be had: signals then end the process as usual
};
