// RecordingScene: a launcher's directory, socket and recorder process for one recording.
#pragma once

#include "launcherserver.h"
#include "privatetempdir.h"
#include "recorderprocess.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

/// A directory of its own with the log directory in it, a listening launcher, and a command line that names them:
/// change what a test is about before the start.
class RecordingScene {
public:
    /// display as in DISPLAY; window is an id.
    RecordingScene(const QByteArray& display, quint32 window);

    // Destroyed in reverse order: the recorder ends before the server and the directory go.
    PrivateTempDir directory;
    LauncherServer launcher;
    RecorderCommand command;
    RecorderProcess recorder;

    /// Starts the recorder and waits until it is connected.
    bool start();
    /// Starts the recorder and waits for the readiness byte.
    bool startRecording();

    QList<LogLine> log() const { return RecorderProcess::log(command.logDirectory); }
    bool waitForLine(const QString& start, int count = 1);
    /// Waits until the recording clock of the run must show at least this; the clock starts 500 ms after readiness.
    bool waitUntilRecorded(int recordingMs);
    /// Waits until the output file has this many fragments.
    bool waitForFragments(int count);

    /// Sends the stop action and waits for the duration reply, in milliseconds; nothing when it does not come. The
    /// reply must have the required form, byte by byte.
    std::optional<qint64> stop();
    /// Sends the exit action and waits for the end of the process.
    bool exit();
    /// Both, and 0 as exit code.
    bool stopAndExit();

    /// For failure messages: what the process said, and how it ended.
    QByteArray story();
};

/// The duration in a reply of the required form; nothing when the bytes are anything else.
std::optional<qint64> durationIn(const QByteArray& reply);
