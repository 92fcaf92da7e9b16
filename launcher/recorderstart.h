// How record-window starts its recorder.
#pragma once

#include "options.h"
#include "target.h"

#include <QProcess>

/// Starts it, on the control socket that lies in the directory, and so that it does not outlive this process.
void startRecorder(QProcess& recorder, const Options& options, const Target& target, const QString& socketDirectory);
