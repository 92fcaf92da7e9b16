// ToneProcess: a toneplayer, started from a test.
#pragma once

#include "playergaps.h"

#include <QProcess>
#include <QString>
#include <QStringList>

#include <vector>

/// Plays until the object goes or the player ends, to the audio server of the calling process's environment. The
/// constructor returns once audio flows, or with isPlaying() false; errorString() then says why. One thread.
class ToneProcess {
public:
    /// What toneplayer_main.cpp takes; executable: a copy of the player under another name.
    explicit ToneProcess(const QStringList& arguments, const QString& executable = program());
    ~ToneProcess();
    ToneProcess(const ToneProcess&) = delete;
    ToneProcess& operator=(const ToneProcess&) = delete;

    /// A tone with a name, and whatever else.
    static QStringList tone(const QString& name, double frequency, const QStringList& more = QStringList());
    /// The player's path, for tests that start it by other means.
    static QString program();

    bool isPlaying();
    QString errorString() const { return error_; }
    /// Frames of a cycle of the graph, as the player reported last; 0 before the first report.
    int quantum();
    /// How long the server said that the audio takes to be heard, in milliseconds; each value that it ever said.
    std::vector<int> latencies();
    qint64 pid() const { return process_.processId(); }

    /// What the player left out up to now, because it got no processor in time.
    const std::vector<playergaps::Gap>& gaps();
    /// Its application goes on, its audio does not.
    void pause() const;
    void resume() const;

    /// Asks it to end and waits. True when it ended in order.
    bool stop();

private:
    void readReports();

    QProcess process_;
    int quantum_ = 0;
    std::vector<int> latencies_;
    std::vector<playergaps::Gap> gaps_;
    bool plays_ = false; // once, at least
    QString error_;
};
