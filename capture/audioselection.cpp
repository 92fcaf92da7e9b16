#include "audioselection.h"

#include <QLatin1String>
#include <QStringView>

namespace audioselection {

namespace {

constexpr QLatin1String appPidPrefix("app-pid:");

bool liesInside(const QString& path, const QString& root)
{
    return path == root || path.startsWith(root + QLatin1Char('/'));
}

}

Device parseDevice(const QString& deviceText)
{
    Device device;
    device.text = deviceText.trimmed();
    device.appOnly = device.text.startsWith(appPidPrefix);
    if (!device.appOnly)
        return device;
    bool ok = false;
    const qint64 pid = QStringView(device.text).mid(appPidPrefix.size()).trimmed().toLongLong(&ok, 10);
    device.appPid = ok && pid > 0 ? pid : 0;
    return device;
}

QString appBundleRoot(const QString& executablePath)
{
    constexpr qsizetype suffixLength = 4; // ".app", which the root keeps
    const qsizetype position = executablePath.indexOf(QLatin1String(".app/Contents/"));
    return position < 0 ? QString() : executablePath.left(position + suffixLength);
}

bool belongsTo(const Target& target, const platform::AudioApplication& candidate, const QString& candidateExecutable)
{
    if (qint64(candidate.processId) == target.processId)
        return true;
    if (!candidateExecutable.isEmpty() && !target.bundleRoot.isEmpty()
        && liesInside(candidateExecutable, target.bundleRoot))
        return true;
    // Names are never compared once the target has an identifier: they are not unique.
    if (!target.bundle.isEmpty())
        return candidate.bundleIdentifier == target.bundle;
    return !target.name.isEmpty() && candidate.applicationName == target.name;
}

Partition partition(const Target& target, const std::vector<platform::AudioApplication>& applications,
    const std::function<QString(qint64 processId)>& executableOf)
{
    Partition result;
    for (std::size_t index = 0; index < applications.size(); ++index) {
        const platform::AudioApplication& candidate = applications[index];
        const bool allowed = belongsTo(target, candidate, executableOf(candidate.processId));
        (allowed ? result.allowed : result.excluded).push_back(index);
    }
    return result;
}

}
