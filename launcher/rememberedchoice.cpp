// The file with the token.
#include "rememberedchoice.h"

#include "privatefile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

constexpr qint64 longest = 4096; // bytes; a token has some 36

}

QString rememberedchoice::path()
{
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (!QDir::isAbsolutePath(state)) // also when it is empty
        state = QDir::homePath() + QLatin1String("/.local/state");
    return state + QLatin1String("/orvantis-recorder/window-token");
}

QString rememberedchoice::load()
{
    const privatefile::Opened opened = privatefile::openToRead(QFile::encodeName(path()));
    QFile file;
    if (opened.descriptor < 0 || !file.open(opened.descriptor, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle))
        return QString();
    return QString::fromUtf8(file.read(longest)).trimmed();
}

bool rememberedchoice::store(const QString& token)
{
    if (token.isEmpty())
        return QFile::remove(path()) || !QFile::exists(path());
    privatefile::makeDirectories(QFile::encodeName(QFileInfo(path()).path()));
    const privatefile::Opened opened = privatefile::openEmpty(QFile::encodeName(path()));
    QFile file;
    const QByteArray line = token.toUtf8() + '\n';
    return opened.descriptor >= 0 && file.open(opened.descriptor, QIODevice::WriteOnly, QFileDevice::AutoCloseHandle)
        && file.write(line) == line.size() && file.flush();
}
