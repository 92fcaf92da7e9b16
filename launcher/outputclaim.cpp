// The claim is a lock on the file itself: the recorder overwrites the file in its place, and does not care for locks.
#include "outputclaim.h"

#include "outputname.h"
#include "plaintext.h"
#include "privatefile.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr mode_t ownersOnly = 0600;

bool exists(const QByteArray& path)
{
    struct stat status { };
    return ::lstat(path.constData(), &status) == 0;
}

}

OutputClaim::~OutputClaim()
{
    if (descriptor_ < 0)
        return;
    struct stat status { };
    if (made_ && ::fstat(descriptor_, &status) == 0 && status.st_size == 0)
        ::unlink(path_.constData());
    ::close(descriptor_);
}

QString OutputClaim::take(const QString& path, bool overwriting)
{
    const QString shown = plainText(path);
    path_ = QFile::encodeName(path);
    fallback_ = QFile::encodeName(fallbackName(path));
    fallbackWasThere_ = exists(fallback_);
    descriptor_ = ::open(path_.constData(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, ownersOnly);
    made_ = descriptor_ >= 0;
    if (!made_ && errno != EEXIST)
        return QStringLiteral("cannot write %1: %2").arg(shown, QString::fromLocal8Bit(std::strerror(errno)));
    if (!made_) {
        const privatefile::Opened opened = privatefile::openToRead(path_);
        descriptor_ = opened.descriptor;
        if (opened.refusal)
            return QStringLiteral("the recorder does not write to %1: %2").arg(shown, QLatin1String(opened.refusal));
        if (descriptor_ < 0)
            return QStringLiteral("cannot write %1: %2")
                .arg(shown, QString::fromLocal8Bit(std::strerror(opened.error)));
    }
    if (::flock(descriptor_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
        made_ = false; // the other one has it now
        return QStringLiteral("another record-window is recording into %1").arg(shown);
    }
    if (!made_ && !overwriting)
        return QStringLiteral("%1 is there already; --force overwrites it").arg(shown);
    if (fallbackWasThere_ && !overwriting)
        return QStringLiteral("%1 is there already, and the recorder would overwrite it when it has to fall back to "
                              "Matroska; --force allows that")
            .arg(plainText(fallbackName(path)));
    return QString();
}

void OutputClaim::discard(const QString& written)
{
    const QByteArray file = QFile::encodeName(written);
    if ((file == path_ && made_) || (file == fallback_ && !fallbackWasThere_))
        ::unlink(file.constData());
    if (made_ && descriptor_ >= 0)
        ::unlink(path_.constData());
}
