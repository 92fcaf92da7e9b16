// The recorder's environment, descriptors and arguments.
#include "recorderstart.h"

#include "endwithparent.h"

#include <QProcessEnvironment>

#include <fcntl.h>
#include <unistd.h>

namespace {

QString number(int value)
{
    return QString::number(value);
}

}

void startRecorder(QProcess& recorder, const Options& options, const Target& target, const QString& socketDirectory)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("TMPDIR"), socketDirectory);
    environment.insert(QStringLiteral("ORVANTIS_END_WITH_LAUNCHER"), QStringLiteral("1"));
    environment.insert(QStringLiteral("ORVANTIS_POPUPS"), QString::number(options.popups));
    if (options.window.by != WindowWish::By::Id) // a number that a person gives is what their environment says
        environment.insert(QStringLiteral("ORVANTIS_WINDOW_SOURCE"), QStringLiteral("x11"));
    if (target.shared) {
        environment.insert(QStringLiteral("ORVANTIS_WINDOW_SOURCE"), QStringLiteral("pipewire"));
        environment.insert(QStringLiteral("ORVANTIS_PIPEWIRE_FD"), number(target.shared->connection()));
    }
    recorder.setProcessEnvironment(environment);
    recorder.setStandardInputFile(QProcess::nullDevice());
    // Never a pipe: it would fill up while this process is busy or stopped.
    if (options.verbose)
        recorder.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    else
        recorder.setStandardErrorFile(QProcess::nullDevice());
    recorder.setStandardOutputFile(QProcess::nullDevice());
    // In its own process group: the terminal's Ctrl-C is meant for the launcher only.
    const int inherited = target.shared ? target.shared->connection() : -1;
    recorder.setChildProcessModifier([parent = ::getpid(), inherited] {
        ::setpgid(0, 0);
        if (inherited >= 0)
            ::fcntl(inherited, F_SETFD, 0);
        endWithParent(parent);
    });
    recorder.start(options.recorder,
        {options.logDirectory, QStringLiteral("qt-window-capture"), options.output, QString::number(target.window),
            QStringLiteral("0"), QStringLiteral("0"), number(target.canvas.width()), number(target.canvas.height()),
            QStringLiteral("1.0"), target.audioSource});
    if (target.shared)
        target.shared->releaseConnection(); // the recorder has it now
}
