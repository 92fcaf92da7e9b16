// The configuration files of a PrivateAudioServer.
#pragma once

#include <QString>

struct AudioServerOptions;

/// Writes DIRECTORY/pipewire.conf, DIRECTORY/pulse.conf, DIRECTORY/config/wireplumber and the remembered volumes.
/// False when a file cannot be written.
bool writeAudioServerFiles(const QString& directory, const AudioServerOptions& options);
