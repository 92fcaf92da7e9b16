// Which application a device string means, and which applications belong to it: pure, values in, values out.
#pragma once

#include "platform/audio.h"

#include <QString>

#include <functional>
#include <vector>

namespace audioselection {

struct Device {
    QString text; ///< the device string, trimmed
    bool appOnly = false; ///< it begins with "app-pid:"
    qint64 appPid = 0; ///< 0 unless what follows is a number above 0
};

Device parseDevice(const QString& deviceText);

/// The folder of the application bundle that an executable lies in ("/x/Player.app"), or empty.
QString appBundleRoot(const QString& executablePath);

struct Target {
    qint64 processId = 0;
    QString bundle; ///< bundle identifier; may be empty
    QString name;
    QString executable; ///< full path; may be empty
    QString bundleRoot; ///< appBundleRoot(executable)
};

/// Whether a candidate's audio belongs to the target: the same process, an executable inside the target's bundle,
/// the same bundle identifier, or, only when the target has none, the same name.
bool belongsTo(const Target& target, const platform::AudioApplication& candidate, const QString& candidateExecutable);

/// Indices of the applications that do and that do not belong to the target, each in the given order.
struct Partition {
    std::vector<std::size_t> allowed;
    std::vector<std::size_t> excluded;
};
Partition partition(const Target& target, const std::vector<platform::AudioApplication>& applications,
    const std::function<QString(qint64 processId)>& executableOf);

}
