// The ways in which pixels come from the server, each used when the one before it is not available.
#include "testregistry.h"
#include "x11fixture.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <optional>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

using WindowSource = SampledWindow;

namespace {

constexpr quint32 blue = 0xff2040c0;
constexpr quint32 green = 0xff00ff00;

/// A call of the C library on the way to shared memory, and from which one on it fails.
struct Step {
    int calls = 0;
    int firstFailure = std::numeric_limits<int>::max();

    bool fails(int number)
    {
        errno = number;
        return ++calls >= firstFailure;
    }
};

Step descriptors;
Step sizes;
Step mappings;
Step systemV;
Step systemVMappings;
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

/// How often the segment's name is in a file of the system.
qsizetype namedIn(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll().count("memfd:window pixels") : -1;
}

/// Descriptors of segments that this process has open.
qsizetype openSegments()
{
    const QDir directory(QStringLiteral("/proc/self/fd"));
    const QStringList names = directory.entryList(QDir::Files | QDir::System);
    return std::count_if(names.begin(), names.end(), [&](const QString& name) {
        return QFile::symLinkTarget(directory.filePath(name)).contains(QStringLiteral("memfd:window pixels"));
    });
}

}

extern "C" decltype(memfd_create) __real_memfd_create;
extern "C" decltype(ftruncate) __real_ftruncate;
extern "C" decltype(mmap) __real_mmap;
extern "C" decltype(shmget) __real_shmget;
extern "C" decltype(shmat) __real_shmat;

extern "C" int __wrap_memfd_create(const char* name, unsigned flags)
{
    return descriptors.fails(ENFILE) ? -1 : __real_memfd_create(name, flags);
}

extern "C" int __wrap_ftruncate(int descriptor, off_t size)
{
    return sizes.fails(ENOSPC) ? -1 : __real_ftruncate(descriptor, size);
}

/// Images of the capture have memory of their own, without a descriptor.
extern "C" void* __wrap_mmap(void* at, size_t size, int protection, int flags, int descriptor, off_t offset)
{
    return descriptor >= 0 && mappings.fails(ENOMEM) ? MAP_FAILED
                                                     : __real_mmap(at, size, protection, flags, descriptor, offset);
}

// Of platform::availableMemory().
extern "C" std::optional<qint64> __real__ZN8platform15availableMemoryEv();

extern "C" std::optional<qint64> __wrap__ZN8platform15availableMemoryEv()
{
    return availableMemory ? availableMemory : __real__ZN8platform15availableMemoryEv();
}

extern "C" int __wrap_shmget(key_t key, size_t size, int flags)
{
    return systemV.fails(ENOSPC) ? -1 : __real_shmget(key, size, flags);
}

extern "C" void* __wrap_shmat(int segment, const void* at, int flags)
{
    return systemVMappings.fails(ENOMEM) ? MAP_FAILED : __real_shmat(segment, at, flags);
}

Q_DECLARE_METATYPE(Step*)

class X11SharedMemoryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void descriptorsComeFirst();
    void segmentGrowsWithTheWindow();
    void systemVComesSecond();
    void socketComesLast();
    void stepFails_data();
    void stepFails();
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
    for (Step* const step : {&descriptors, &sizes, &mappings, &systemV, &systemVMappings})
        *step = Step();
    availableMemory.reset();
}

void X11SharedMemoryTest::descriptorsComeFirst()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("background ff00ff00"));
    QVERIFY(isFilled(source.image(), green));
    QCOMPARE(descriptors.calls, 1);
    QCOMPARE(systemV.calls, 0);
}

void X11SharedMemoryTest::segmentGrowsWithTheWindow()
{
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    QVERIFY(window.send("resize 330 250")); // within the step
    QVERIFY(isFilled(source.image(), blue));
    QCOMPARE(descriptors.calls, 1);
    QVERIFY(window.send("resize 1000 1000"));
    QVERIFY(isFilled(source.image(), blue));
    QCOMPARE(descriptors.calls, 2);
    QVERIFY(window.send("resize 100 100")); // what is there is large enough
    QVERIFY(isFilled(source.image(), blue));
    QCOMPARE(descriptors.calls, 2);
    QCOMPARE(systemV.calls, 0);
}

void X11SharedMemoryTest::systemVComesSecond()
{
    descriptors.firstFailure = 1;
    WindowProcess window({.pixel = blue});
    {
        WindowSource source(window.id());
        QVERIFY(isFilled(source.image(), blue));
        QCOMPARE(ownSystemVSegments(), 1);
        QVERIFY(window.send("resize 1000 1000"));
        QVERIFY(isFilled(source.image(), blue));
        QTRY_COMPARE(ownSystemVSegments(), 1);
        QCOMPARE(systemV.calls, 2);
    }
    QTRY_COMPARE(ownSystemVSegments(), 0);
}

void X11SharedMemoryTest::socketComesLast()
{
    descriptors.firstFailure = 1;
    systemV.firstFailure = 1;
    WindowProcess window({.pixel = blue});
    WindowSource source(window.id());
    QVERIFY(isFilled(source.image(), blue));
    QCOMPARE(systemV.calls, 1);
    QVERIFY(window.send("background ff00ff00"));
    QVERIFY(isFilled(source.image(), green));
    QVERIFY(window.send("resize 1000 1000"));
    QVERIFY(isFilled(source.image(), green));
    QCOMPARE(systemV.calls, 1); // what failed is not tried again
}

void X11SharedMemoryTest::stepFails_data()
{
    QTest::addColumn<Step*>("step");
    QTest::addColumn<bool>("hasDescriptors");
    QTest::addColumn<int>("nth"); // the first segment, or the larger one for a window that grew
    for (const int nth : {1, 2}) {
        const char* const when = nth == 1 ? "at first" : "when the window grows";
        QTest::addRow("descriptor %s", when) << &descriptors << true << nth;
        QTest::addRow("size of its memory %s", when) << &sizes << true << nth;
        QTest::addRow("mapping %s", when) << &mappings << true << nth;
        QTest::addRow("System V %s", when) << &systemV << false << nth;
        QTest::addRow("mapping of System V %s", when) << &systemVMappings << false << nth;
    }
}

/// The next way brings the pixels, and nothing stays of what was half made.
void X11SharedMemoryTest::stepFails()
{
    QFETCH(Step* const, step);
    QFETCH(const bool, hasDescriptors);
    QFETCH(const int, nth);
    if (!hasDescriptors)
        descriptors.firstFailure = 1;
    step->firstFailure = nth;
    WindowProcess window({.pixel = blue});
    {
        WindowSource source(window.id());
        QVERIFY(isFilled(source.image(), blue));
        QVERIFY(window.send("resize 1000 1000"));
        QVERIFY(isFilled(source.image(), blue));
        QCOMPARE(step->calls, nth); // what failed is not tried again
        const Step& next = hasDescriptors ? systemV : descriptors;
        QCOMPARE(next.calls, hasDescriptors ? 3 - nth : 1);
        QCOMPARE(openSegments(), 0);
        QTRY_COMPARE(ownSystemVSegments(), hasDescriptors ? 1 : 0);
        QCOMPARE(namedIn(QStringLiteral("/proc/self/maps")), 0);
    }
    QTRY_COMPARE(ownSystemVSegments(), 0);
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
