// LauncherNotes: what was seen of a launcher in one case.
#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QList>
#include <QString>

#include <optional>

struct LauncherNotes {
    struct Event {
        qint64 atMs = 0; ///< wall clock
        QByteArray name;
        QByteArray details;
    };

    QString error; ///< the launcher could not be started; nothing else counts then
    bool timedOut = false; ///< it did not end by itself
    std::optional<int> exitCode; ///< nothing when a signal ended it
    qint64 endedAtMs = 0;
    QByteArray printed; ///< on stdout and stderr

    bool recorderStarted = false;
    bool recorderLeft = false; ///< it lived on when the launcher had ended
    bool endsWithLauncher = false; ///< ORVANTIS_END_WITH_LAUNCHER=1
    QByteArrayList arguments;
    QList<Event> journal; ///< of the recorder
    qint64 lastSeenAtMs = 0; ///< of the recorder
    QStringList leftovers; ///< in the directory for temporary files

    /// The position of the first event of that name; nothing when there is none.
    std::optional<qsizetype> first(const char* name, const QByteArray& details = QByteArray()) const;
};

/// Reads the notes of the fake recorder in a directory into the members that concern it.
void readRecorderNotes(const QString& directory, LauncherNotes& notes);

/// Whether the fake recorder that writes there runs.
bool isRecorderAlive(const QString& directory);
/// Its process id; 0 when it was never started.
qint64 recorderPid(const QString& directory);
