// RecorderLog: what record-window reads in the log file of the recorder that it started.
#pragma once

#include <QByteArrayList>
#include <QDateTime>
#include <QString>

class RecorderLog {
public:
    /// startedAt: a moment before the recorder with this process id was started; older files are another's.
    RecorderLog(const QString& directory, qint64 recorderPid, const QDateTime& startedAt)
        : directory_(directory), recorderPid_(recorderPid), startedAt_(startedAt)
    {
    }

    /// The log file, empty as long as there is none.
    QString path();

    /// The file that the recorder writes, according to the log; its suffix can differ from the one that was asked
    /// for. Empty while the log does not name it.
    QString outputInUse();

    /// The file that the recorder has closed; empty when it closed none.
    QString finalizedOutput();

    /// The lines that were written since the last call, and are whole.
    QByteArrayList newLines();

private:
    QString directory_;
    qint64 recorderPid_;
    QDateTime startedAt_;
    QString path_;
    qint64 linesReadTo_ = 0; // bytes, of newLines()
};
