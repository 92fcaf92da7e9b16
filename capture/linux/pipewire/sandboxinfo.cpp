// Reading .flatpak-info without trusting it.
#include "sandboxinfo.h"

#include "descriptor.h"

#include <QByteArray>
#include <QFile>

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>

namespace sandboxinfo {

namespace {

constexpr qint64 mostBytes = qint64(64) * 1024;
constexpr qsizetype longestId = 255; // as for names on the message bus

bool isIdCharacter(char character)
{
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z')
        || (character >= '0' && character <= '9') || character == '.' || character == '_' || character == '-';
}

QString checkedId(QByteArrayView id)
{
    const bool right = id.size() <= longestId && std::all_of(id.begin(), id.end(), isIdCharacter);
    return right ? QString::fromLatin1(id) : QString();
}

Descriptor openToRead(int directory, const char* name, int flags)
{
    return Descriptor(::openat(directory, name, flags | O_RDONLY | O_CLOEXEC | O_NOCTTY));
}

bool isRegular(const Descriptor& file)
{
    struct stat status { };
    return ::fstat(file.number(), &status) == 0 && S_ISREG(status.st_mode);
}

}

QString parseApplicationId(QByteArrayView text)
{
    bool inSection = false;
    const QList<QByteArray> lines = text.toByteArray().split('\n');
    for (const QByteArray& line : lines) {
        const QByteArray trimmed = line.trimmed();
        if (trimmed.startsWith('[')) {
            inSection = trimmed == "[Application]";
            continue;
        }
        const qsizetype equals = trimmed.indexOf('=');
        if (inSection && equals > 0 && QByteArrayView(trimmed).first(equals).trimmed() == "name")
            return checkedId(QByteArrayView(trimmed).sliced(equals + 1).trimmed());
    }
    return QString();
}

QString applicationId(const QString& rootDirectory)
{
    const Descriptor root = openToRead(AT_FDCWD, QFile::encodeName(rootDirectory).constData(), O_PATH | O_DIRECTORY);
    if (!root.isValid())
        return QString();
    const Descriptor info = openToRead(root.number(), ".flatpak-info", O_NOFOLLOW | O_NONBLOCK);
    QFile file;
    if (!isRegular(info) || !file.open(info.number(), QIODevice::ReadOnly | QIODevice::Unbuffered))
        return QString();
    return parseApplicationId(file.read(mostBytes));
}

}
