// The configuration files of a PrivateSoundServer.
#pragma once

#include <QString>

struct SoundServerOptions;

/// Writes DIRECTORY/pipewire.conf, DIRECTORY/pulse.conf, DIRECTORY/config/wireplumber and the remembered volumes.
/// False when a file cannot be written.
bool writeSoundServerFiles(const QString& directory, const SoundServerOptions& options);
