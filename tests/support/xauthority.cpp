// The cookie that opens this test's X servers, and nobody else's program has.
#include "xauthority.h"

#include <QByteArray>
#include <QDataStream>
#include <QFile>
#include <QRandomGenerator>
#include <QTemporaryDir>

namespace {

/// One entry as Xau's files have it: numbers of two bytes, high byte first, and each text after its length.
void writeEntry(QDataStream& stream)
{
    constexpr quint16 anyAddress = 65535;
    const QByteArray name("MIT-MAGIC-COOKIE-1");
    quint32 cookie[4];
    QRandomGenerator::system()->fillRange(cookie);

    stream << anyAddress;
    stream << quint16(0); // no address
    stream << quint16(0); // no display number: any
    stream << quint16(name.size());
    stream.writeRawData(name.constData(), int(name.size()));
    stream << quint16(sizeof(cookie));
    stream.writeRawData(reinterpret_cast<const char*>(cookie), sizeof(cookie));
}

class Authority {
public:
    Authority()
    {
        QFile file(path());
        if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly))
            qFatal("No authority for the private X server: %s", qUtf8Printable(file.errorString()));
        QDataStream stream(&file);
        writeEntry(stream);
        qputenv("XAUTHORITY", QFile::encodeName(path()));
    }

    QString path() const { return directory_.filePath(QStringLiteral("authority")); }

private:
    QTemporaryDir directory_{QStringLiteral("/tmp/ov-XXXXXX")};
};

}

QString xAuthorityFile()
{
    static const Authority authority;
    return authority.path();
}
