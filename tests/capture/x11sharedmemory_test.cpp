// The ways in which pixels come from the server, each used when the one before it is not available.
#include "testregistry.h"
#include "x11fixture.h"

#include <QFile>
#include <QTest>

#include <cerrno>
#include <memory>
#include <optional>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

using WindowSource = SampledWindow;

namespace {

constexpr quint32 blue = 0xff2040c0;
constexpr quint32 green = 0xff00ff00;

bool descriptorsFail = false;
bool systemVFails = false;
int descriptorsMade = 0;
int systemVAsked = 0;
std::optional<qint64> availableMemory; ///< as the system tells, unless set

/// System V segments that this process has made and that are still there.
int ownSystemVSegments()
{
    QFile file(QStringLiteral("/proc/sysvipc/shm"));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    int count = 0;
    const QList<QByteArray> lines = file.readAll().split('\n');
    for (const QByteArray& line : lines)
        count += line.simplified().split(' ').value(4).toLongLong() == ::getpid(); // the creator
    return count;
}

}

extern "C" decltype(memfd_create) __real_memfd_create;
extern "C" decltype(shmget) __real_shmget;

extern "C" int __wrap_memfd_create(const char* name, unsigned flags)
{
    if (descriptorsFail) {
        errno = ENFILE;
        return -1;
    }
    ++descriptorsMade;
    return __real_memfd_create(name, flags);
}

// Of platform::availableMemory().
extern "C" std::optional<qint64> __real__ZN8platform15availableMemoryEv();

extern "C" std::optional<qint64> __wrap__ZN8platform15availableMemoryEv()
{
    return availableMemory ? availableMemory : __real__ZN8platform15availableMemoryEv();
}

extern "C" int __wrap_shmget(key_t key, size_t size, int flags)
{
    ++systemVAsked;
    if (systemVFails) {
        errno = ENOSPC;
        return -1;
    }
    return __real_shmget(key, size, flags);
}

class X11SharedMemoryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void descriptorsComeFirst();
    void segmentGrowsWithTheWindow();
    void systemVComesSecond();
    void socketComesLast();
    void windowThatDoesNotFitIntoMemory();

private:
    std::unique_ptr<DisplayForTest> display_;
};

void X11SharedMemoryTest::initTestCase()
{
    display_ = std::make_unique<DisplayForTest>();
    QVERIFY2(display_->server.isRunning(), qPrintable(display_->server.errorString()));
}

void X11SharedMemoryTest::init()
{
    descriptorsFail = false;
    systemVFails = false;
    descriptorsMade = 0;
    systemVAsked = 0;
    availableMemory.reset();
}

void X11SharedMemoryTest::descriptorsComeFirst()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("background ff00ff00"));
    QVERIFY(isFilled(source.image(), green));
    QCOMPARE(descriptorsMade, 1);
    QCOMPARE(systemVAsked, 0);
}

void X11SharedMemoryTest::segmentGrowsWithTheWindow()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("resize 330 250")); // within the step
    QVERIFY(isFilled(source.image(), blue));
    QCOMPARE(descriptorsMade, 1);
    QVERIFY(window.send("resize 1000 1000"));
    QVERIFY(isFilled(source.image(), blue));
    QCOMPARE(descriptorsMade, 2);
    QVERIFY(window.send("resize 100 100")); // what is there is large enough
    QVERIFY(isFilled(source.image(), blue));
    QCOMPARE(descriptorsMade, 2);
    QCOMPARE(systemVAsked, 0);
}

void X11SharedMemoryTest::systemVComesSecond()
{
    descriptorsFail = true;
    WindowProcess window({.pixel = blue});
    {
        WindowSource source(window.id());
        QVERIFY(isFilled(source.image(), blue));
        QCOMPARE(ownSystemVSegments(), 1);
        QVERIFY(window.send("resize 1000 1000"));
        QVERIFY(isFilled(source.image(), blue));
        QTRY_COMPARE(ownSystemVSegments(), 1);
        QCOMPARE(systemVAsked, 2);
    }
    QTRY_COMPARE(ownSystemVSegments(), 0);
}

void X11SharedMemoryTest::socketComesLast()
{
    descriptorsFail = true;
    systemVFails = true;
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    QCOMPARE(systemVAsked, 1);
    QVERIFY(window.send("background ff00ff00"));
    QVERIFY(isFilled(source.image(), green));
    QVERIFY(window.send("resize 1000 1000"));
    QVERIFY(isFilled(source.image(), green));
    QCOMPARE(systemVAsked, 1); // what failed is not tried again
}

/// A window can be made so large that its images would take the memory of everybody. There is no image of it then,
/// and there is one again when it is small, or when there is room.
void X11SharedMemoryTest::windowThatDoesNotFitIntoMemory()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    availableMemory = qint64(100) << 20;
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("resize 4000 2200")); // 34 MiB, four times
    QVERIFY(source.image().isNull());
    QVERIFY(window.send("resize 100 100"));
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("resize 4000 2200"));
    availableMemory = qint64(200) << 20;
    QVERIFY(isFilled(source.image(), blue));
    availableMemory = 0; // what is there is used again
    QVERIFY(window.send("background ff00ff00"));
    QVERIFY(isFilled(source.image(), green));
}

ORVANTIS_TEST(X11SharedMemoryTest)
#include "x11sharedmemory_test.moc"
