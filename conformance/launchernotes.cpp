// Reading what the fake recorder has noted.
#include "launchernotes.h"

#include <QFile>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

}

std::optional<qsizetype> LauncherNotes::first(const char* name, const QByteArray& details) const
{
    for (qsizetype i = 0; i < journal.size(); ++i) {
        if (journal[i].name == name && (details.isEmpty() || journal[i].details == details))
            return i;
    }
    return std::nullopt;
}

void readRecorderNotes(const QString& directory, LauncherNotes& notes)
{
    notes.recorderStarted = QFile::exists(directory + QLatin1String("/arguments"));
    notes.arguments = contents(directory + QLatin1String("/arguments")).split('\0');
    notes.arguments.removeLast(); // behind the last null byte
    notes.endsWithLauncher = contents(directory + QLatin1String("/environment")).contains("LAUNCHER=1\n");
    for (const QByteArray& line : contents(directory + QLatin1String("/journal")).split('\n')) {
        const QByteArrayList parts = line.split(' ');
        if (parts.size() < 2)
            continue;
        const QByteArray head = parts[0] + ' ' + parts[1] + ' ';
        notes.journal.append({parts[0].toLongLong(), parts[1], line.mid(head.size())});
        notes.lastSeenAtMs = notes.journal.constLast().atMs;
    }
}

bool isRecorderAlive(const QString& directory)
{
    const int descriptor
        = ::open(QFile::encodeName(directory + QLatin1String("/alive")).constData(), O_RDWR | O_CLOEXEC);
    if (descriptor < 0)
        return false;
    const bool locked = ::flock(descriptor, LOCK_EX | LOCK_NB) == 0;
    ::close(descriptor);
    return !locked;
}

qint64 recorderPid(const QString& directory)
{
    return contents(directory + QLatin1String("/process")).split(' ').value(0).toLongLong();
}
