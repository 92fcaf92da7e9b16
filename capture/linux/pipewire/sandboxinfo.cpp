// Reading .flatpak-info without trusting it.
#include "sandboxinfo.h"

#include <QByteArray>
#include <QFile>

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace sandboxinfo {

namespace {

constexpr qint64 mostBytes = 64 * 1024;
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

/// A descriptor that does not outlive the object.
class OpenFile {
public:
    OpenFile(int directory, const char* name, int flags)
        : number_(::openat(directory, name, flags | O_RDONLY | O_CLOEXEC | O_NOCTTY))
    {
    }
    ~OpenFile()
    {
        if (number_ >= 0)
            ::close(number_);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    int number() const { return number_; }
    bool isRegular() const
    {
        struct stat status { };
        return number_ >= 0 && ::fstat(number_, &status) == 0 && S_ISREG(status.st_mode);
    }

private:
    int number_;
};

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
    const OpenFile root(AT_FDCWD, QFile::encodeName(rootDirectory).constData(), O_PATH | O_DIRECTORY);
    if (root.number() < 0)
        return QString();
    const OpenFile info(root.number(), ".flatpak-info", O_NOFOLLOW | O_NONBLOCK);
    QFile file;
    if (!info.isRegular() || !file.open(info.number(), QIODevice::ReadOnly | QIODevice::Unbuffered))
        return QString();
    return parseApplicationId(file.read(mostBytes));
}

}
