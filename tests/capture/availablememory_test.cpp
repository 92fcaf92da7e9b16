// How much memory is left, from files as the kernel writes them.
#include "linux/availablememory.h"
#include "testregistry.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

namespace {

constexpr qint64 machineBytes = qint64(8) << 30;
constexpr qint64 mebibyte = 1 << 20;

}

class AvailableMemoryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void noGroups();
    void unknown_data();
    void unknown();
    void limits_data();
    void limits();
    void thisProcess();

private:
    void write(const QString& name, const QByteArray& text);
    /// A group's files in either version's names; the limit as text.
    void writeGroup1(const QString& path, const QByteArray& limit, qint64 used, qint64 droppable = 0);
    void writeGroup2(const QString& path, const QByteArray& limit, qint64 used, qint64 droppable = 0);
    std::optional<qint64> read() const
    {
        return availablememory::read(directory_->filePath("proc"), directory_->filePath("groups"));
    }

    std::optional<QTemporaryDir> directory_;
};

void AvailableMemoryTest::init()
{
    directory_.emplace();
    write("proc/meminfo", "MemTotal:       16000000 kB\nMemFree:          100000 kB\nMemAvailable:    8388608 kB\n");
}

void AvailableMemoryTest::write(const QString& name, const QByteArray& text)
{
    QFile file(directory_->filePath(name));
    QVERIFY(QDir().mkpath(QFileInfo(file).path()));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(text), qint64(text.size()));
}

void AvailableMemoryTest::writeGroup1(const QString& path, const QByteArray& limit, qint64 used, qint64 droppable)
{
    write("groups/memory" + path + "/memory.limit_in_bytes", limit + '\n');
    write("groups/memory" + path + "/memory.usage_in_bytes", QByteArray::number(used) + '\n');
    write("groups/memory" + path + "/memory.stat",
        "cache 5\ninactive_file 1\ntotal_inactive_file " + QByteArray::number(droppable) + '\n');
}

void AvailableMemoryTest::writeGroup2(const QString& path, const QByteArray& limit, qint64 used, qint64 droppable)
{
    write("groups" + path + "/memory.max", limit + '\n');
    write("groups" + path + "/memory.current", QByteArray::number(used) + '\n');
    write("groups" + path + "/memory.stat", "anon 7\ninactive_file " + QByteArray::number(droppable) + '\n');
}

void AvailableMemoryTest::noGroups()
{
    QCOMPARE(read(), machineBytes); // no such file
    write("proc/self/cgroup", "0::/\n1:name=systemd:/\n");
    QCOMPARE(read(), machineBytes);
}

void AvailableMemoryTest::unknown_data()
{
    QTest::addColumn<QByteArray>("meminfo");
    QTest::newRow("empty") << QByteArray();
    QTest::newRow("no such line") << QByteArray("MemFree: 100 kB\n");
    QTest::newRow("no number") << QByteArray("MemAvailable: many kB\n");
    QTest::newRow("below zero") << QByteArray("MemAvailable: -1 kB\n");
    QTest::newRow("beyond all numbers") << QByteArray("MemAvailable: 9223372036854775807 kB\n");
}

void AvailableMemoryTest::unknown()
{
    QFETCH(QByteArray, meminfo);
    write("proc/meminfo", meminfo);
    QCOMPARE(read(), std::nullopt);
}

void AvailableMemoryTest::limits_data()
{
    QTest::addColumn<QByteArray>("groupsOfProcess");
    QTest::addColumn<QByteArray>("limit"); // of the group /a, which uses 300 MiB, 100 of them droppable
    QTest::addColumn<qint64>("expected");
    const auto group = [](const char* text) { return QByteArray(text); };
    const QByteArray gibibyte = QByteArray::number(1024 * mebibyte);
    QTest::newRow("2, own group") << group("0::/a\n") << gibibyte << 824 * mebibyte;
    QTest::newRow("2, group above") << group("0::/a/b/c:d\n") << gibibyte << 824 * mebibyte;
    QTest::newRow("2, no limit") << group("0::/a\n") << group("max") << machineBytes;
    QTest::newRow("2, above the machine's") << group("0::/a\n") << group("99999999999999") << machineBytes;
    QTest::newRow("2, used up") << group("0::/a\n") << group("1000") << qint64(0);
    QTest::newRow("1, own group") << group("7:cpu:/x\n4:memory:/a\n") << gibibyte << 824 * mebibyte;
    QTest::newRow("1, group above") << group("4:cpu,memory:/a/b\n") << gibibyte << 824 * mebibyte;
    QTest::newRow("1, no limit") << group("4:memory:/a\n") << group("9223372036854771712") << machineBytes;
    QTest::newRow("both") << group("4:memory:/other\n0::/a\n") << gibibyte << 824 * mebibyte;
    QTest::newRow("another group") << group("4:memory:/other\n0::/other\n") << gibibyte << machineBytes;
    QTest::newRow("no lines of the kernel's") << group("memory\n::\n4:memory\n") << gibibyte << machineBytes;
}

void AvailableMemoryTest::limits()
{
    QFETCH(QByteArray, groupsOfProcess);
    QFETCH(QByteArray, limit);
    QFETCH(qint64, expected);
    write("proc/self/cgroup", groupsOfProcess);
    writeGroup1("/a", limit, 300 * mebibyte, 100 * mebibyte);
    writeGroup2("/a", limit, 300 * mebibyte, 100 * mebibyte);
    QCOMPARE(read(), expected);
}

void AvailableMemoryTest::thisProcess()
{
    const std::optional<qint64> bytes = availablememory::read();
    QVERIFY(bytes);
    QVERIFY(*bytes > mebibyte);
}

ORVANTIS_TEST(AvailableMemoryTest)
#include "availablememory_test.moc"
