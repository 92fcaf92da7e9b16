// What the seam of the memory asks of Linux.
#include "platform/memory.h"
#include "testregistry.h"

#include <QTest>

#include <algorithm>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr std::size_t size = std::size_t(1) << 20; // bytes

std::size_t residentPages(uchar* memory)
{
    std::vector<uchar> pages(size / std::size_t(::sysconf(_SC_PAGESIZE)));
    if (::mincore(memory, size, pages.data()) != 0)
        return 0;
    return std::size_t(std::count_if(pages.begin(), pages.end(), [](uchar page) { return (page & 1) != 0; }));
}

}

class LinuxMemoryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void roomIsThereAtOnce();
    void memoryThatIsNotThereCannotBePrepared();
};

/// Where the kernel has the advice (5.14); others give each page its room when it is written to.
void LinuxMemoryTest::roomIsThereAtOnce()
{
    uchar* const plain = platform::takeMemory(size);
    uchar* const prepared = platform::takeMemory(size);
    QVERIFY(plain && prepared);
    QCOMPARE(residentPages(prepared), std::size_t(0));
    const bool hasAdvice = ::madvise(plain, size, MADV_POPULATE_WRITE) == 0;
    QVERIFY(platform::prepareMemory(prepared, size));
    QCOMPARE(residentPages(prepared), hasAdvice ? size / std::size_t(::sysconf(_SC_PAGESIZE)) : 0);
    QCOMPARE(std::count(prepared, prepared + size, 0), std::ptrdiff_t(size));
    platform::freeMemory(plain, size);
    platform::freeMemory(prepared, size);
}

void LinuxMemoryTest::memoryThatIsNotThereCannotBePrepared()
{
    uchar* const memory = platform::takeMemory(size);
    QVERIFY(memory);
    const bool hasAdvice = ::madvise(memory, size, MADV_POPULATE_WRITE) == 0;
    platform::freeMemory(memory + size / 2, size / 2);
    QCOMPARE(platform::prepareMemory(memory, size), !hasAdvice);
    platform::freeMemory(memory, size / 2);
}

ORVANTIS_TEST(LinuxMemoryTest)
#include "linuxmemory_test.moc"
