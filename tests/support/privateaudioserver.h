// PrivateAudioServer: an audio server of a test's own.
#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <array>
#include <optional>
#include <vector>

/// A sink without a device: what is played to it goes nowhere but to its monitor.
struct NullSink {
    QByteArray name;
    QByteArrayList positions{"FL", "FR"}; ///< one a channel
};

struct AudioServerOptions {
    int rate = 48000; ///< of the graph, hertz
    int quantum = 1024; ///< frames the graph runs with when no client asks for fewer, and at most
    std::vector<NullSink> sinks{NullSink{"first-sink"}}; ///< the first one is the default sink
    /// Volumes that are remembered for streams from earlier runs, as lines of WirePlumber's restore-stream file;
    /// empty text for none yet, nothing for a server that does not remember.
    std::optional<QByteArray> rememberedVolumes;
};

/// PipeWire, WirePlumber and PipeWire's PulseAudio server, without D-Bus, real-time rights or an audio card, in
/// directories of their own. Ready when the constructor returns; processes and directories are gone when the object
/// is. The processes end with their parent too, even when that is killed: make it on a thread that outlives it (the
/// kernel watches the thread). When the server cannot be had, isRunning() is false and errorString() says why.
class PrivateAudioServer {
public:
    explicit PrivateAudioServer(const AudioServerOptions& options = AudioServerOptions());
    ~PrivateAudioServer();
    PrivateAudioServer(const PrivateAudioServer&) = delete;
    PrivateAudioServer& operator=(const PrivateAudioServer&) = delete;

    /// All three processes.
    bool isRunning();
    QString errorString() const { return error_; } ///< empty when the server started

    /// The calling process's environment, changed so that audio goes to this server.
    QProcessEnvironment environment() const { return environment_; }
    /// The same as "NAME=value"; "NAME" alone is a variable that has to go.
    QStringList environmentChanges() const;
    /// Changes the calling process's own environment, for good. Before any thread starts.
    void apply() const;

    QString path() const { return directory_.path(); }
    QByteArrayList sinkNames() const; ///< in the order of the options
    QByteArray defaultSink(); ///< the name; empty when the server does not tell
    /// True when the server has made it so.
    bool setDefaultSink(const QByteArray& name);

    qint64 daemonPid() const { return daemon_.processId(); } ///< of PipeWire; 0 when it does not run
    std::vector<qint64> processIds() const; ///< of all that run
    /// Kills PipeWire, as a crash would end it, and waits for its end.
    void killDaemon();
    /// Stops PipeWire's process (SIGSTOP), and continues it.
    void stopDaemon();
    void continueDaemon();

    /// What a tool (pw-dump, wpctl, ...) prints on this server; nothing when it fails.
    std::optional<QByteArray> output(const QString& program, const QStringList& arguments);

private:
    void makeEnvironment();
    bool makeDirectories(const AudioServerOptions& options);
    bool start(QProcess& process, const QString& program, const QStringList& arguments);
    bool waitFor(const char* what, bool (PrivateAudioServer::*condition)());
    bool daemonListens();
    bool everythingIsThere();
    std::array<QProcess*, 3> processes() { return {&pulseServer_, &sessionManager_, &daemon_}; }

    QTemporaryDir directory_;
    QStringList setVariables_; // names
    QStringList removedVariables_;
    QProcessEnvironment environment_;
    QByteArrayList sinkNames_;
    QString error_;
    QProcess daemon_;
    QProcess sessionManager_;
    QProcess pulseServer_;
};
