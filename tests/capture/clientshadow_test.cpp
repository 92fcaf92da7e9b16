// What an application may take out of the recording as its shadow, and what is logged of it.
#include "linux/x11/clientshadow.h"
#include "logcapture.h"
#include "testregistry.h"

#include <QTest>

using x11::boundedShadow;
using x11::ShadowLog;

class ClientShadowTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void shadowsOfDesktops();
    void whatIsNoShadow_data();
    void whatIsNoShadow();
    void changesAreLogged();
    void manyChangesAreOneLine();
};

void ClientShadowTest::shadowsOfDesktops()
{
    QCOMPARE(boundedShadow(26, 26, 23, 29, QSize(800, 600)), QMargins(26, 23, 26, 29));
    QCOMPARE(boundedShadow(0, 0, 0, 0, QSize(1, 1)), QMargins());
    QCOMPARE(boundedShadow(128, 128, 128, 128, QSize(513, 513)), QMargins(128, 128, 128, 128));
    QCOMPARE(boundedShadow(60, 60, 60, 60, QSize(241, 241)), QMargins(60, 60, 60, 60));
}

void ClientShadowTest::whatIsNoShadow_data()
{
    QTest::addColumn<quint32>("left");
    QTest::addColumn<quint32>("right");
    QTest::addColumn<quint32>("top");
    QTest::addColumn<quint32>("bottom");
    QTest::newRow("all but one pixel") << 999u << 999u << 499u << 500u;
    QTest::newRow("wider than shadows are") << 129u << 0u << 0u << 0u;
    QTest::newRow("higher than shadows are") << 0u << 0u << 0u << 129u;
    QTest::newRow("sum overflows 32 bits") << 0xffffffffu << 2u << 0u << 0u;
}

void ClientShadowTest::whatIsNoShadow()
{
    QFETCH(quint32, left);
    QFETCH(quint32, right);
    QFETCH(quint32, top);
    QFETCH(quint32, bottom);
    QCOMPARE(boundedShadow(left, right, top, bottom, QSize(1999, 1000)), QMargins());
    QCOMPARE(boundedShadow(100, 100, 0, 0, QSize(400, 1000)), QMargins()); // half of the width
    QCOMPARE(boundedShadow(0, 0, 100, 100, QSize(1000, 400)), QMargins());
}

void ClientShadowTest::changesAreLogged()
{
    LogCapture log;
    ShadowLog shadowLog;
    ShadowLog::TimePoint now;
    shadowLog.note(QMargins(1, 2, 3, 4), now);
    shadowLog.note(QMargins(1, 2, 3, 4), now);
    QCOMPARE(log.messages(QtWarningMsg), QStringList());
    shadowLog.note(QMargins(10, 20, 30, 40), now);
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList(
            QStringLiteral("Captured window has changed what it counts as its shadow, which is cut off; left, "
                           "right, top, bottom: 10 30 20 40 changes not logged before: 0")));
}

void ClientShadowTest::manyChangesAreOneLine()
{
    LogCapture log;
    ShadowLog shadowLog;
    ShadowLog::TimePoint now;
    for (int i = 0; i <= 1000; ++i)
        shadowLog.note(QMargins(i % 2, 0, 0, 0), now);
    QCOMPARE(log.messages(QtWarningMsg).size(), 1);
    shadowLog.note(QMargins(5, 0, 0, 0), now + ShadowLog::pause);
    QCOMPARE(log.messages(QtWarningMsg).size(), 2);
    QVERIFY(log.messages(QtWarningMsg).last().endsWith(QStringLiteral("5 0 0 0 changes not logged before: 999")));
}

ORVANTIS_TEST(ClientShadowTest)
#include "clientshadow_test.moc"
