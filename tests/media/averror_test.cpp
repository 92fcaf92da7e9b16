// FFmpeg's status codes as text for the log.
#include "averror.h"
#include "ffmpegfaults.h"
#include "testregistry.h"

#include <QTest>

#include <cerrno>

class AvErrorTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { ffmpegfaults::reset(); }

    void knownCodes_data();
    void knownCodes();
    void lengths_data();
    void lengths();
    void lettersBeyondAsciiAreRead();
};

void AvErrorTest::knownCodes_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("text");
    QTest::newRow("success") << 0 << QStringLiteral("Success");
    QTest::newRow("system error") << AVERROR(ENOSPC) << QStringLiteral("No space left on device");
    QTest::newRow("end of file") << AVERROR_EOF << QStringLiteral("End of file");
    QTest::newRow("FFmpeg's own") << AVERROR_INVALIDDATA
                                  << QStringLiteral("Invalid data found when processing input");
    QTest::newRow("unknown") << -1234567 << QStringLiteral("Error number -1234567 occurred");
}

void AvErrorTest::knownCodes()
{
    QFETCH(const int, status);
    QTEST(avErrorString(status), "text");
}

void AvErrorTest::lengths_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("kept");
    QTest::newRow("63 bytes and their end") << 63 << 63;
    QTest::newRow("64 bytes without an end") << 64 << 64;
    QTest::newRow("longer") << 200 << 64;
}

void AvErrorTest::lengths()
{
    QFETCH(const int, length);
    QFETCH(const int, kept);
    ffmpegfaults::surroundings().errorText = QByteArray(length, 'e');
    QCOMPARE(avErrorString(-1), QString(kept, QLatin1Char('e')));
}

void AvErrorTest::lettersBeyondAsciiAreRead()
{
    const QString text = QString::fromUtf8("Défaut d'entrée");
    ffmpegfaults::surroundings().errorText = text.toLocal8Bit();
    QCOMPARE(avErrorString(-1), text);
}

ORVANTIS_TEST(AvErrorTest)
#include "averror_test.moc"
