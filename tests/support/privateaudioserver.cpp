// PrivateAudioServer: an audio server of a test's own.
#include "privateaudioserver.h"

#include "audioserverfiles.h"
#include "childprocess.h"
#include "descriptor.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>

#include <csignal>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using childprocess::end;
using childprocess::endLimitMs;
using childprocess::endWithParent;
using childprocess::isAlive;
using childprocess::startLimitMs;

namespace {

constexpr int pollMs = 5;

/// True when a process listens at a Unix socket.
bool isListening(const QString& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof(address.sun_path));
    const Descriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return ::connect(client.number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

}

/// The directory's name is short: a socket's path has room for about 100 bytes.
PrivateAudioServer::PrivateAudioServer(const AudioServerOptions& options)
    : directory_(QStringLiteral("/tmp/ov-audio-XXXXXX"))
{
    for (const NullSink& sink : options.sinks)
        sinkNames_ << sink.name;
    if (!makeDirectories(options)) {
        error_ = QStringLiteral("No directory for the audio server: %1").arg(directory_.errorString());
        return;
    }
    makeEnvironment();
    const bool ready = start(daemon_, QStringLiteral("pipewire"),
                           {QStringLiteral("-c"), directory_.filePath(QStringLiteral("pipewire.conf"))})
        && waitFor("PipeWire", &PrivateAudioServer::daemonListens)
        && start(sessionManager_, QStringLiteral("wireplumber"), {})
        && start(pulseServer_, QStringLiteral("pipewire-pulse"),
            {QStringLiteral("-c"), directory_.filePath(QStringLiteral("pulse.conf"))})
        && waitFor("The audio server", &PrivateAudioServer::everythingIsThere);
    if (!ready) {
        for (QProcess* process : processes())
            end(*process);
    }
}

PrivateAudioServer::~PrivateAudioServer()
{
    continueDaemon(); // the others disconnect from it when they end
    for (QProcess* process : processes())
        end(*process);
}

bool PrivateAudioServer::isRunning()
{
    return isAlive(daemon_) && isAlive(sessionManager_) && isAlive(pulseServer_);
}

bool PrivateAudioServer::makeDirectories(const AudioServerOptions& options)
{
    if (!directory_.isValid())
        return false;
    QDir directory(directory_.path());
    const QString runtime = directory.filePath(QStringLiteral("run"));
    return directory.mkdir(runtime)
        && QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)
        && directory.mkdir(QStringLiteral("state")) && directory.mkdir(QStringLiteral("data"))
        && directory.mkdir(QStringLiteral("cache")) && writeAudioServerFiles(directory_.path(), options);
}

void PrivateAudioServer::makeEnvironment()
{
    environment_ = QProcessEnvironment::systemEnvironment();
    const std::pair<const char*, const char*> directories[]
        = {{"XDG_RUNTIME_DIR", "run"}, {"XDG_CONFIG_HOME", "config"}, {"XDG_STATE_HOME", "state"},
            {"XDG_DATA_HOME", "data"}, {"XDG_CACHE_HOME", "cache"}};
    for (const auto& [name, directory] : directories) {
        setVariables_ << QString::fromLatin1(name);
        environment_.insert(QString::fromLatin1(name), directory_.filePath(QString::fromLatin1(directory)));
    }
    for (const char* name :
        {"DBUS_SESSION_BUS_ADDRESS", "PULSE_SERVER", "PULSE_SINK", "PULSE_RUNTIME_PATH", "PULSE_CLIENTCONFIG",
            "PULSE_LATENCY_MSEC", "PIPEWIRE_REMOTE", "PIPEWIRE_RUNTIME_DIR", "PIPEWIRE_CORE", "PIPEWIRE_CONFIG_DIR",
            "PIPEWIRE_CONFIG_PREFIX", "PIPEWIRE_CONFIG_NAME", "PIPEWIRE_NODE", "PIPEWIRE_LATENCY", "PIPEWIRE_QUANTUM",
            "PIPEWIRE_RATE", "PIPEWIRE_PROPS", "PIPEWIRE_DEBUG", "WIREPLUMBER_CONFIG_DIR", "WIREPLUMBER_DEBUG"}) {
        removedVariables_ << QString::fromLatin1(name);
        environment_.remove(QString::fromLatin1(name));
    }
}

QStringList PrivateAudioServer::environmentChanges() const
{
    QStringList changes;
    for (const QString& name : setVariables_)
        changes << name + QLatin1Char('=') + environment_.value(name);
    return changes + removedVariables_;
}

void PrivateAudioServer::apply() const
{
    for (const QString& name : setVariables_)
        qputenv(name.toLatin1().constData(), QFile::encodeName(environment_.value(name)));
    for (const QString& name : removedVariables_)
        qunsetenv(name.toLatin1().constData());
}

bool PrivateAudioServer::start(QProcess& process, const QString& program, const QStringList& arguments)
{
    endWithParent(process);
    process.setProcessEnvironment(environment_);
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(directory_.filePath(program + QStringLiteral(".log")));
    process.start(program, arguments);
    if (process.waitForStarted(startLimitMs))
        return true;
    error_ = QStringLiteral("%1 did not start: %2").arg(program, process.errorString());
    return false;
}

bool PrivateAudioServer::waitFor(const char* what, bool (PrivateAudioServer::*condition)())
{
    QElapsedTimer waited;
    waited.start();
    while (!(this->*condition)()) {
        for (QProcess* process : processes()) {
            if (process->program().isEmpty() || isAlive(*process))
                continue;
            QFile log(directory_.filePath(process->program() + QStringLiteral(".log")));
            const QByteArray text = log.open(QIODevice::ReadOnly) ? log.readAll().trimmed() : QByteArray();
            error_ = QStringLiteral("%1 ended: %2").arg(process->program(), QString::fromLocal8Bit(text));
            return false;
        }
        if (waited.elapsed() > startLimitMs) {
            error_ = QStringLiteral("%1 was not ready in time").arg(QLatin1String(what));
            return false;
        }
        QThread::msleep(pollMs);
    }
    return true;
}

bool PrivateAudioServer::daemonListens()
{
    return isListening(directory_.filePath(QStringLiteral("run/pipewire-0")));
}

bool PrivateAudioServer::everythingIsThere()
{
    return isListening(directory_.filePath(QStringLiteral("run/pulse/native")))
        && defaultSink() == sinkNames_.value(0);
}

QByteArrayList PrivateAudioServer::sinkNames() const
{
    return sinkNames_;
}

/// pw-metadata prints ... value:'{"name":"first-sink"}' ..., with or without blanks.
QByteArray PrivateAudioServer::defaultSink()
{
    const QByteArray text
        = output(QStringLiteral("pw-metadata"), {QStringLiteral("0"), QStringLiteral("default.audio.sink")})
              .value_or(QByteArray());
    const qsizetype key = text.indexOf("\"name\"");
    const qsizetype begin = text.indexOf('"', key + 6);
    const qsizetype end = text.indexOf('"', begin + 1);
    return key < 0 || begin < 0 || end < 0 ? QByteArray() : text.mid(begin + 1, end - begin - 1);
}

bool PrivateAudioServer::setDefaultSink(const QByteArray& name)
{
    const bool told = output(QStringLiteral("pw-metadata"),
        {QStringLiteral("0"), QStringLiteral("default.configured.audio.sink"),
            QStringLiteral("{ \"name\": \"%1\" }").arg(QString::fromLatin1(name)), QStringLiteral("Spa:String:JSON")})
                          .has_value();
    QElapsedTimer waited;
    waited.start();
    while (told && waited.elapsed() < startLimitMs) {
        if (defaultSink() == name)
            return true;
        QThread::msleep(pollMs);
    }
    return false;
}

std::vector<qint64> PrivateAudioServer::processIds() const
{
    std::vector<qint64> ids;
    for (const QProcess* process : {&daemon_, &sessionManager_, &pulseServer_}) {
        if (process->processId() > 0)
            ids.push_back(process->processId());
    }
    return ids;
}

void PrivateAudioServer::killDaemon()
{
    daemon_.kill();
    daemon_.waitForFinished(endLimitMs);
}

void PrivateAudioServer::stopDaemon()
{
    if (isAlive(daemon_))
        ::kill(pid_t(daemon_.processId()), SIGSTOP);
}

void PrivateAudioServer::continueDaemon()
{
    if (isAlive(daemon_))
        ::kill(pid_t(daemon_.processId()), SIGCONT);
}

std::optional<QByteArray> PrivateAudioServer::output(const QString& program, const QStringList& arguments)
{
    QProcess tool;
    endWithParent(tool);
    tool.setProcessEnvironment(environment_);
    tool.start(program, arguments, QIODevice::ReadOnly);
    if (!tool.waitForFinished(startLimitMs) || tool.exitStatus() != QProcess::NormalExit || tool.exitCode() != 0)
        return std::nullopt;
    return tool.readAllStandardOutput();
}
