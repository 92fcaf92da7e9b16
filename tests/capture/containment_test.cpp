// Exceptions on threads that PipeWire runs: they end where they came up, and the log says so.
#include "containment.h"
#include "testregistry.h"

#include "logcapture.h"

#include <QTest>

#include <new>

class ContainmentTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void exceptionOfTheWindow();
};

/// Told once a process.
void ContainmentTest::exceptionOfTheWindow()
{
    const LogCapture log;
    for (int i = 0; i < 3; ++i)
        pipewire::contain([] { throw std::bad_alloc(); }, &pipewire::reportContainedOfWindow);
    QCOMPARE(log.messages(QtCriticalMsg),
        QStringList{QStringLiteral("Window capture was interrupted by an exception: std::bad_alloc")});
}

ORVANTIS_TEST(ContainmentTest)
#include "containment_test.moc"
