// The configuration files of a PrivateAudioServer.
#include "audioserverfiles.h"

#include "privateaudioserver.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

/// In real time where the user's limits allow it: a daemon that is late spoils what is measured. Without D-Bus
/// nothing else is asked for it.
QByteArray daemonText(const AudioServerOptions& options)
{
    QByteArray text = R"(context.properties = {
    core.daemon = true
    core.name = pipewire-0
    log.level = 2
    support.dbus = false
    mem.allow-mlock = false
    default.clock.rate = %RATE%
    default.clock.allowed-rates = [ %RATE% ]
    default.clock.quantum = %QUANTUM%
    default.clock.max-quantum = %QUANTUM%
    default.clock.min-quantum = 128
}
context.spa-libs = {
    audio.convert.* = audioconvert/libspa-audioconvert
    support.* = support/libspa-support
}
context.modules = [
    { name = libpipewire-module-rt flags = [ ifexists nofail ] }
    { name = libpipewire-module-protocol-native }
    { name = libpipewire-module-access }
    { name = libpipewire-module-metadata }
    { name = libpipewire-module-client-node }
    { name = libpipewire-module-client-device }
    { name = libpipewire-module-spa-node-factory }
    { name = libpipewire-module-spa-device-factory }
    { name = libpipewire-module-adapter }
    { name = libpipewire-module-link-factory }
    { name = libpipewire-module-session-manager }
]
context.objects = [
    { factory = spa-node-factory args = {
        factory.name = support.node.driver node.name = idle-driver node.group = pipewire.dummy
        priority.driver = 20000 } }
%SINKS%]
)";
    const QByteArray sinkText = R"(    { factory = adapter args = {
        factory.name = support.null-audio-sink media.class = Audio/Sink object.linger = true
        node.name = %NAME% node.description = %NAME% audio.position = [ %POSITIONS% ] audio.rate = %RATE%
        priority.session = %PRIORITY% priority.driver = %PRIORITY% } }
)";
    QByteArray sinks;
    int priority = 1000; // the session manager prefers the highest
    for (const NullSink& sink : options.sinks) {
        sinks += QByteArray(sinkText)
                     .replace("%NAME%", sink.name)
                     .replace("%POSITIONS%", sink.positions.join(' '))
                     .replace("%PRIORITY%", QByteArray::number(priority));
        priority -= 10;
    }
    return text.replace("%SINKS%", sinks)
        .replace("%RATE%", QByteArray::number(options.rate))
        .replace("%QUANTUM%", QByteArray::number(options.quantum));
}

constexpr const char* pulseText = R"(context.properties = { log.level = 2 mem.allow-mlock = false }
context.spa-libs = {
    audio.convert.* = audioconvert/libspa-audioconvert
    support.* = support/libspa-support
}
context.modules = [
    { name = libpipewire-module-protocol-native }
    { name = libpipewire-module-client-node }
    { name = libpipewire-module-adapter }
    { name = libpipewire-module-metadata }
    { name = libpipewire-module-protocol-pulse }
]
pulse.properties = { server.address = [ "unix:native" ] }
)";

constexpr const char* sessionText
    = R"(context.properties = { log.level = 2 wireplumber.script-engine = lua-scripting }
context.spa-libs = {
    audio.convert.* = audioconvert/libspa-audioconvert
    support.* = support/libspa-support
}
context.modules = [
    { name = libpipewire-module-protocol-native }
    { name = libpipewire-module-client-node }
    { name = libpipewire-module-client-device }
    { name = libpipewire-module-adapter }
    { name = libpipewire-module-metadata }
    { name = libpipewire-module-session-manager }
]
wireplumber.components = [
    { name = libwireplumber-module-lua-scripting, type = module }
    { name = headless.lua, type = config/lua }
]
)";

/// What needs neither devices nor D-Bus: default sink, links from streams to it, volumes, suspended idle sinks.
QByteArray sessionPolicy(const AudioServerOptions& options)
{
    QByteArray text = R"(local policy = { ["move"] = true, ["follow"] = true }
components = {
    { "libwireplumber-module-metadata", type = "module" },
    { "libwireplumber-module-default-nodes", type = "module", args = { ["use-persistent-storage"] = false } },
    { "libwireplumber-module-default-nodes-api", type = "module" },
    { "libwireplumber-module-mixer-api", type = "module" },
    { "libwireplumber-module-si-node", type = "module" },
    { "libwireplumber-module-si-audio-adapter", type = "module" },
    { "libwireplumber-module-si-standard-link", type = "module" },
    { "libwireplumber-module-si-audio-endpoint", type = "module" },
    { "access/access-default.lua", type = "script/lua", args = { ["rules"] = {} } },
    { "restore-stream.lua", type = "script/lua", args = {
        ["properties"] = { ["restore-props"] = %REMEMBERS%, ["restore-target"] = false }, ["rules"] = {} } },
    { "suspend-node.lua", type = "script/lua" },
    { "create-item.lua", type = "script/lua", args = policy },
    { "policy-node.lua", type = "script/lua", args = policy },
}
)";
    return text.replace("%REMEMBERS%", options.rememberedVolumes ? "true" : "false");
}

bool write(const QString& path, const QByteArray& text)
{
    QFile file(path);
    return QDir().mkpath(QFileInfo(path).path()) && file.open(QIODevice::WriteOnly) && file.write(text) == text.size()
        && file.flush();
}

}

bool writeAudioServerFiles(const QString& directory, const AudioServerOptions& options)
{
    const QString session = directory + QStringLiteral("/config/wireplumber");
    return write(directory + QStringLiteral("/pipewire.conf"), daemonText(options))
        && write(directory + QStringLiteral("/pulse.conf"), pulseText)
        && write(session + QStringLiteral("/wireplumber.conf"), sessionText)
        && write(session + QStringLiteral("/headless.lua.d/50-components.lua"), sessionPolicy(options))
        && (!options.rememberedVolumes
            || write(directory + QStringLiteral("/state/wireplumber/restore-stream"),
                "[restore-stream]\n" + *options.rememberedVolumes));
}
