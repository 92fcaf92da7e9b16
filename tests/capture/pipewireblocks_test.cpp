// Blocks between two threads.
#include "pipewireblocks.h"
#include "testregistry.h"

#include <QTest>

#include <cstring>
#include <limits>
#include <thread>
#include <vector>

using pipewire::AudioBlock;
using pipewire::BlockQueue;

namespace {

std::vector<float> numbered(qint64 first, qint64 frames)
{
    std::vector<float> samples;
    for (qint64 i = 0; i < 2 * frames; ++i)
        samples.push_back(float((first * 2 + i) % 1000000));
    return samples;
}

}

class PipewireBlocksTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void keepsTheOrder();
    void goesRoundItsMemory();
    void leavesOutWhatFindsNoRoom();
    void goesOnBeyondItsCounters();
    void readsAnyAlignment();
    void leavesOutEmptyBlocks();
    void servesTwoThreads();
};

void PipewireBlocksTest::keepsTheOrder()
{
    BlockQueue queue;
    std::vector<float> samples;
    QVERIFY(!queue.pop(samples));
    QVERIFY(queue.push({100, 110, 3}, numbered(1, 3).data()));
    QVERIFY(queue.push({200, 220, 5}, numbered(4, 5).data()));
    const auto first = queue.pop(samples);
    QVERIFY(first);
    QCOMPARE(first->startNs, qint64(100));
    QCOMPARE(first->arrivedNs, qint64(110));
    QCOMPARE(first->frames, qint64(3));
    QCOMPARE(samples, numbered(1, 3));
    const auto second = queue.pop(samples);
    QVERIFY(second);
    QCOMPARE(second->startNs, qint64(200));
    QCOMPARE(samples, numbered(4, 5));
    QVERIFY(!queue.pop(samples));
}

void PipewireBlocksTest::goesRoundItsMemory()
{
    BlockQueue queue;
    std::vector<float> samples;
    constexpr qint64 frames = 7001; // no divisor of the capacity
    for (qint64 i = 0; i < 100; ++i) {
        QVERIFY(queue.push({i, i, frames}, numbered(i * frames, frames).data()));
        const auto block = queue.pop(samples);
        QVERIFY(block);
        QCOMPARE(block->startNs, i);
        QCOMPARE(samples, numbered(i * frames, frames));
    }
}

void PipewireBlocksTest::leavesOutWhatFindsNoRoom()
{
    BlockQueue queue;
    std::vector<float> samples;
    constexpr auto mostFrames = qint64((BlockQueue::byteCapacity - sizeof(AudioBlock)) / BlockQueue::frameBytes);
    const std::vector<float> most = numbered(0, mostFrames);
    QVERIFY(!queue.push({0, 0, mostFrames + 1}, most.data()));
    QVERIFY(!queue.push({0, 0, std::numeric_limits<qint64>::max()}, most.data()));
    QVERIFY(queue.push({0, 0, mostFrames}, most.data()));
    QVERIFY(!queue.push({1, 1, 1}, most.data()));
    QVERIFY(queue.hasRefusedSince(1) && !queue.hasRefusedSince(2));
    QVERIFY(queue.pop(samples));
    QCOMPARE(samples, most);

    constexpr qint64 quarter = mostFrames / 4 - 100;
    for (int i = 0; i < 4; ++i)
        QVERIFY(queue.push({i, i, quarter}, most.data()));
    QVERIFY(!queue.push({4, 4, quarter}, most.data()));
    QVERIFY(queue.pop(samples));
    QVERIFY(queue.push({5, 5, quarter}, most.data()));
    for (const qint64 expected : {1, 2, 3, 5}) {
        const auto block = queue.pop(samples);
        QVERIFY(block);
        QCOMPARE(block->startNs, expected);
        QCOMPARE(samples, numbered(0, quarter));
    }
    QVERIFY(!queue.pop(samples));
}

/// The ring counts its bytes with 32 bits.
void PipewireBlocksTest::goesOnBeyondItsCounters()
{
    BlockQueue queue;
    std::vector<float> samples;
    constexpr qint64 frames = 200'003; // no divisor of the capacity
    const std::vector<float> source = numbered(1, frames);
    constexpr qint64 rounds = (qint64(1) << 32) / (frames * qint64(BlockQueue::frameBytes)) + 3;
    for (qint64 i = 0; i < rounds; ++i) {
        QVERIFY(queue.push({i, i, frames}, source.data()));
        const auto block = queue.pop(samples);
        QVERIFY(block && block->startNs == i);
        QVERIFY(i < rounds - 6 || samples == source); // comparing all would take long
    }
}

void PipewireBlocksTest::readsAnyAlignment()
{
    BlockQueue queue;
    std::vector<float> samples;
    const std::vector<float> source = numbered(1, 4);
    std::vector<char> bytes(source.size() * sizeof(float) + 1);
    std::memcpy(bytes.data() + 1, source.data(), source.size() * sizeof(float));
    QVERIFY(queue.push({0, 0, 4}, bytes.data() + 1));
    QVERIFY(queue.pop(samples));
    QCOMPARE(samples, source);
}

void PipewireBlocksTest::leavesOutEmptyBlocks()
{
    BlockQueue queue;
    std::vector<float> samples;
    const std::vector<float> source = numbered(1, 1);
    QVERIFY(!queue.push({0, 0, 0}, source.data()));
    QVERIFY(!queue.push({0, 0, -1}, source.data()));
    QVERIFY(!queue.hasRefusedSince(0));
    QVERIFY(!queue.pop(samples));
}

/// Every block arrives whole and in order, whichever of the two is ahead.
void PipewireBlocksTest::servesTwoThreads()
{
    BlockQueue queue;
    constexpr qint64 blocks = 20000;
    std::thread putting([&queue] {
        for (qint64 i = 0; i < blocks;) {
            const qint64 frames = 1 + i % 300;
            if (queue.push({i, -i, frames}, numbered(i, frames).data()))
                ++i;
            else
                std::this_thread::yield();
        }
    });
    std::vector<float> samples;
    qint64 wrong = 0;
    for (qint64 i = 0; i < blocks;) {
        const auto block = queue.pop(samples);
        if (!block) {
            std::this_thread::yield();
            continue;
        }
        const bool right = block->startNs == i && block->arrivedNs == -i && block->frames == 1 + i % 300
            && samples == numbered(i, block->frames);
        wrong += right ? 0 : 1;
        ++i;
    }
    putting.join();
    QCOMPARE(wrong, qint64(0));
    QVERIFY(!queue.pop(samples));
}

ORVANTIS_TEST(PipewireBlocksTest)
#include "pipewireblocks_test.moc"
