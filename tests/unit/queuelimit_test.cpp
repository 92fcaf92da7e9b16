// How much memory the frames of the delay queue hold, and how many of them may be late.
#include "gstrecorder.h"
#include "queuelimit.h"
#include "testregistry.h"

#include <QTest>

namespace {

using Queue = QList<GstRecorder::QueuedFrame>;

constexpr QSize fullHd(1920, 1080);
constexpr QSize ultraHd(3840, 2160);
constexpr qint64 intervalMs = 41;

constexpr qint64 imageBytes(const QSize& size)
{
    return qint64(size.width()) * size.height() * 4;
}

/// Of a window of which the same part changes with every frame. What was before the first one has been written.
Queue queueOf(int count, const QSize& size, qint64 ownBytes, qint64 firstVersion)
{
    const QImage image(size, QImage::Format_ARGB32); // only its size is asked for
    Queue queue;
    for (int i = 0; i < count; ++i) {
        GstRecorder::CapturedFrame frame;
        frame.image = image;
        frame.imageVersion = firstVersion > 0 ? firstVersion + i : 0;
        frame.ownBytes = ownBytes;
        queue.append({frame, i * intervalMs});
    }
    return queue;
}

}

class QueueLimitTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void queueHoldsWhatChanged_data();
    void queueHoldsWhatChanged();
    void unchangedFramesHoldOneImage();
    void imageAfterAGapCountsWhole();
    void framesThatMayBeLate_data();
    void framesThatMayBeLate();
    void framesThatAreNotDueAreNotLate();
};

void QueueLimitTest::queueHoldsWhatChanged_data()
{
    QTest::addColumn<qint64>("firstVersion");
    QTest::addColumn<qint64>("bytes");
    QTest::newRow("known") << qint64(7) << imageBytes(fullHd) + 9 * 1000;
    QTest::newRow("unknown") << qint64(0) << 10 * imageBytes(fullHd);
}

void QueueLimitTest::queueHoldsWhatChanged()
{
    QFETCH(const qint64, firstVersion);
    QFETCH(const qint64, bytes);
    QCOMPARE(queuelimit::bytesOf(queueOf(10, fullHd, 1000, firstVersion)), bytes);
}

void QueueLimitTest::unchangedFramesHoldOneImage()
{
    Queue queue = queueOf(10, fullHd, 1000, 7);
    for (auto& queued : queue)
        queued.frame.imageVersion = 7;
    QCOMPARE(queuelimit::bytesOf(queue), imageBytes(fullHd));
}

void QueueLimitTest::imageAfterAGapCountsWhole()
{
    Queue queue = queueOf(10, fullHd, 1000, 7);
    queue.removeAt(5);
    QCOMPARE(queuelimit::bytesOf(queue), 2 * imageBytes(fullHd) + 7 * 1000);
}

void QueueLimitTest::framesThatMayBeLate_data()
{
    QTest::addColumn<QSize>("size");
    QTest::addColumn<qint64>("ownBytes");
    QTest::addColumn<qint64>("firstVersion");
    QTest::addColumn<int>("most");
    QTest::newRow("1080p, all changes") << fullHd << imageBytes(fullHd) << qint64(7) << 8;
    QTest::newRow("1080p, a quarter changes") << fullHd << imageBytes(fullHd) / 4 << qint64(7) << 32;
    QTest::newRow("1080p, a tenth changes")
        << fullHd << imageBytes(fullHd) / 10 << qint64(7) << queuelimit::mostFramesLate;
    QTest::newRow("4K, all changes") << ultraHd << imageBytes(ultraHd) << qint64(7) << 8;
    QTest::newRow("4K, a quarter changes") << ultraHd << imageBytes(ultraHd) / 4 << qint64(7) << 32;
    QTest::newRow("4K, what changes is unknown") << ultraHd << qint64(0) << qint64(0) << 8;
    QTest::newRow("4K, from the first image on") << ultraHd << imageBytes(ultraHd) / 4 << qint64(1) << 29;
    QTest::newRow("a small window") << QSize(64, 64) << qint64(16384) << qint64(7) << queuelimit::mostFramesLate;
}

void QueueLimitTest::framesThatMayBeLate()
{
    QFETCH(const QSize, size);
    QFETCH(const qint64, ownBytes);
    QFETCH(const qint64, firstVersion);
    QFETCH(const int, most);
    for (int late = 1; late <= queuelimit::mostFramesLate + 1; ++late) {
        const bool tooLate = queuelimit::isTooLate(queueOf(late, size, ownBytes, firstVersion), late * intervalMs);
        QVERIFY2(tooLate == (late > most), qPrintable(QString::number(late)));
    }
}

void QueueLimitTest::framesThatAreNotDueAreNotLate()
{
    const Queue queue = queueOf(20, fullHd, imageBytes(fullHd), 7);
    QVERIFY(!queuelimit::isTooLate(Queue(), 0));
    QVERIFY(!queuelimit::isTooLate(queue, -1));
    QVERIFY(!queuelimit::isTooLate(queue, 7 * intervalMs));
    QVERIFY(queuelimit::isTooLate(queue, 8 * intervalMs));
}

ORVANTIS_TEST(QueueLimitTest)
#include "queuelimit_test.moc"
