// Images that share memory: whatever changes, each one shows what was put, and keeps showing it.
#include "sharedimages.h"
#include "testregistry.h"

#include "fakeplatform.h"
#include "logcapture.h"

#include <QRandomGenerator>
#include <QTest>

#include <thread>
#include <vector>

namespace {

constexpr qint64 pieceBytes = 64 * 1024;
constexpr QSize large(640, 480); // 18.75 pieces of 25.6 rows

QImage speckled(const QSize& size, quint32 seed)
{
    QRandomGenerator random(seed);
    QImage image(size, QImage::Format_RGB32);
    for (int y = 0; y < size.height(); ++y) {
        auto* line = reinterpret_cast<quint32*>(image.scanLine(y));
        for (int x = 0; x < size.width(); ++x)
            line[x] = random.generate() | 0xff000000u;
    }
    return image;
}

void putRows(SharedImages& images, const QImage& from, int top, int count)
{
    images.put(top, count, reinterpret_cast<const quint32*>(from.constScanLine(top)));
}

SharedImages::Image next(SharedImages& images, const QImage& from)
{
    images.update(from.size(), from.format());
    putRows(images, from, 0, from.height());
    return images.finish();
}

}

class SharedImagesTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fakeplatform::reset(); }

    void everyImageShowsWhatWasPut_data();
    void everyImageShowsWhatWasPut();
    void unchangedPixelsGiveTheSameImage();
    void oneChangedPixelTakesOnePiece();
    void rowsThatAreNotPutStay_data();
    void rowsThatAreNotPutStay();
    void changeAcrossThePiecesOfAnUpdate();
    void bitsAreSet();
    void anotherSizeSharesNothing();
    void imageThatIsWrittenToIsAlone();
    void imagesOutliveTheirMaker();
    void imageThatIsNewAllOverIsNotMapped();
    void scatteredImagesComeTogether();
    void memoryIsUsedAgain();
    void memoryOfSinglePiecesIsUsedAgain();
    void memoryOfAShorterQueueIsKept();
    void memoryIsGivenBack();
    void memoryBetweenPiecesInUseIsGivenBack();
    void memoryBetweenTheImagesOfAQueueIsKept();
    void imagesEndOnAnyThread();
    void memoryThatRunsOutCostsThatImage_data();
    void memoryThatRunsOutCostsThatImage();
    void imageWithoutAddressesIsCopied_data();
    void imageWithoutAddressesIsCopied();
    void incompleteFirstImageIsNone();
};

void SharedImagesTest::everyImageShowsWhatWasPut_data()
{
    QTest::addColumn<QSize>("size");
    QTest::newRow("one pixel") << QSize(1, 1);
    QTest::newRow("a piece") << QSize(128, 128);
    QTest::newRow("a piece and a pixel") << QSize(16385, 1);
    QTest::newRow("a row larger than a piece") << QSize(40000, 5);
    QTest::newRow("large") << large;
    QTest::newRow("odd") << QSize(333, 777);
    QTest::newRow("pieces of 128 KiB") << QSize(2400, 2000);
}

/// A long random sequence of changes; all images are kept and looked at in the end.
void SharedImagesTest::everyImageShowsWhatWasPut()
{
    QFETCH(const QSize, size);
    QRandomGenerator random(7);
    SharedImages images;
    QImage truth = speckled(size, 1);
    std::vector<std::pair<QImage, QImage>> kept;
    for (int step = 0; step < 25; ++step) {
        QImage before = truth;
        images.update(size, truth.format());
        const int changes = step == 0 ? 0 : int(random.bounded(4));
        for (int i = 0; i < changes; ++i)
            truth.setPixel(int(random.bounded(size.width())), int(random.bounded(size.height())), random.generate());
        putRows(images, truth, 0, size.height());
        const SharedImages::Image taken = images.finish();
        QCOMPARE(taken.image, truth);
        for (int y = 0; y < size.height(); ++y) {
            const bool same = memcmp(truth.constScanLine(y), before.constScanLine(y), size_t(size.width()) * 4) == 0;
            QVERIFY(same || taken.changedRows.contains(y));
        }
        kept.emplace_back(taken.image, truth.copy());
    }
    for (const auto& [image, expected] : kept)
        QCOMPARE(image, expected);
}

void SharedImagesTest::unchangedPixelsGiveTheSameImage()
{
    SharedImages images;
    const QImage truth = speckled(large, 1);
    const SharedImages::Image first = next(images, truth);
    QCOMPARE(first.changedRows, RowSet(0, large.height()));
    QCOMPARE(first.ownBytes, 19 * pieceBytes);
    const SharedImages::Image second = next(images, truth.copy());
    QCOMPARE(second.image.cacheKey(), first.image.cacheKey());
    QVERIFY(second.changedRows.isEmpty());
    QCOMPARE(second.ownBytes, 0);
}

void SharedImagesTest::oneChangedPixelTakesOnePiece()
{
    SharedImages images;
    QImage truth = speckled(large, 1);
    const SharedImages::Image first = next(images, truth);
    truth.setPixel(639, 479, 0xff000000);
    const SharedImages::Image second = next(images, truth);
    QCOMPARE(second.ownBytes, pieceBytes);
    QVERIFY(second.changedRows.contains(479));
    QVERIFY(!second.changedRows.contains(450));
    QVERIFY(second.image.constBits() != first.image.constBits());
    QCOMPARE(second.image.pixel(639, 479), 0xff000000);
    QVERIFY(first.image.pixel(639, 479) != 0xff000000);
}

void SharedImagesTest::rowsThatAreNotPutStay_data()
{
    QTest::addColumn<QSize>("size");
    QTest::newRow("large") << large;
    for (int width = 641; width < 644; ++width) // where a row begins, no four pixels do
        QTest::addRow("%d pixels wide", width) << QSize(width, 480);
}

void SharedImagesTest::rowsThatAreNotPutStay()
{
    QFETCH(const QSize, size);
    SharedImages images;
    const QImage truth = speckled(size, 1);
    const QImage other = speckled(size, 2);
    next(images, truth);
    images.update(size, truth.format());
    putRows(images, other, 99, 7);
    const SharedImages::Image taken = images.finish();
    for (int y = 0; y < size.height(); ++y) {
        const QImage& expected = y >= 99 && y < 106 ? other : truth;
        QCOMPARE(memcmp(taken.image.constScanLine(y), expected.constScanLine(y), size_t(size.width()) * 4), 0);
    }
    QCOMPARE(taken.changedRows, RowSet(99, 106));
}

void SharedImagesTest::changeAcrossThePiecesOfAnUpdate()
{
    SharedImages images;
    const QImage truth = speckled(large, 1);
    const QImage other = speckled(large, 2);
    next(images, truth);
    images.update(large, truth.format());
    for (int y = 0; y < large.height(); ++y) // each piece is put in many parts
        putRows(images, y % 3 == 0 ? other : truth, y, 1);
    const QImage taken = images.finish().image;
    for (int y = 0; y < large.height(); ++y) {
        const QImage& expected = y % 3 == 0 ? other : truth;
        QCOMPARE(memcmp(taken.constScanLine(y), expected.constScanLine(y), size_t(large.width()) * 4), 0);
    }
}

void SharedImagesTest::bitsAreSet()
{
    SharedImages images;
    const std::vector<quint32> pixels(64, 0x12345678);
    for (int i = 0; i < 2; ++i) {
        images.update(QSize(8, 8), QImage::Format_RGB32);
        images.put(0, 8, pixels.data(), 0xff000000);
        const SharedImages::Image taken = images.finish();
        QCOMPARE(*reinterpret_cast<const quint32*>(taken.image.constScanLine(7)), 0xff345678);
        QCOMPARE(taken.changedRows.isEmpty(), i == 1); // compared with the bits set
    }
}

void SharedImagesTest::anotherSizeSharesNothing()
{
    SharedImages images;
    const QImage first = next(images, speckled(QSize(100, 50), 1)).image;
    const QImage turned = speckled(QSize(50, 100), 1); // the same bytes
    const SharedImages::Image second = next(images, turned);
    QCOMPARE(second.image, turned);
    QCOMPARE(second.changedRows, RowSet(0, 100));
    QCOMPARE(first, speckled(QSize(100, 50), 1));
}

void SharedImagesTest::imageThatIsWrittenToIsAlone()
{
    SharedImages images;
    const QImage truth = speckled(large, 1);
    QImage mine = next(images, truth).image;
    mine.fill(Qt::red);
    QCOMPARE(images.last(), truth);
    QCOMPARE(next(images, truth).image, truth);
}

void SharedImagesTest::imagesOutliveTheirMaker()
{
    const std::size_t before = fakeplatform::memoryTaken();
    QImage first;
    QImage second;
    QImage truth = speckled(large, 1);
    {
        SharedImages images;
        first = next(images, truth).image;
        truth.setPixel(0, 0, 0xff010203);
        second = next(images, truth).image;
    }
    QCOMPARE(first, speckled(large, 1));
    first = QImage();
    QCOMPARE(second, truth);
    second = QImage();
    QCOMPARE(fakeplatform::memoryTaken().load(), before);
}

void SharedImagesTest::imageThatIsNewAllOverIsNotMapped()
{
    SharedImages images;
    const std::size_t before = fakeplatform::memoryTaken();
    const QImage first = next(images, speckled(large, 1)).image;
    const std::size_t ofOne = fakeplatform::memoryTaken() - before;
    QCOMPARE(ofOne, std::size_t(19 * pieceBytes)); // its memory, and no addresses beside it
    const QImage second = next(images, speckled(large, 2)).image;
    QCOMPARE(fakeplatform::memoryTaken() - before, 2 * ofOne);
    QCOMPARE(first, speckled(large, 1));
    QCOMPARE(second, speckled(large, 2));
}

/// After images of which a part changed, those of which all changes need nothing of the system any more.
void SharedImagesTest::scatteredImagesComeTogether()
{
    SharedImages images;
    std::vector<QImage> queue;
    const auto add = [&](const QImage& from) {
        const SharedImages::Image taken = next(images, from);
        queue.push_back(taken.image);
        if (queue.size() > 10)
            queue.erase(queue.begin());
        return taken;
    };
    QImage truth = speckled(large, 1);
    for (int i = 0; i < 12; ++i) {
        truth.setPixel(7, 40 * i, quint32(i) | 0xff000000);
        add(truth);
    }
    for (quint32 i = 0; i < 25; ++i)
        add(speckled(large, 100 + i));
    fakeplatform::state().memoryCallsLeft = 0;
    for (quint32 i = 0; i < 25; ++i) {
        const SharedImages::Image taken = add(speckled(large, 200 + i));
        QCOMPARE(taken.ownBytes, 19 * pieceBytes); // it was not copied either
        QCOMPARE(taken.image, speckled(large, 200 + i));
    }
    for (quint32 i = 0; i < 10; ++i)
        QCOMPARE(queue[i], speckled(large, 215 + i));
}

/// A queue of ten images, of which every pixel changes, goes on with the memory of eleven or twelve.
void SharedImagesTest::memoryIsUsedAgain()
{
    SharedImages images;
    std::vector<QImage> queue;
    std::size_t afterTwenty = 0;
    for (int i = 0; i < 60; ++i) {
        queue.push_back(next(images, speckled(large, quint32(i))).image);
        if (queue.size() > 10)
            queue.erase(queue.begin());
        if (i == 20)
            afterTwenty = fakeplatform::memoryTaken();
    }
    QCOMPARE(fakeplatform::memoryTaken().load(), afterTwenty);
    QCOMPARE(queue.back(), speckled(large, 59));
}

void SharedImagesTest::memoryOfSinglePiecesIsUsedAgain()
{
    SharedImages images;
    std::vector<QImage> queue;
    QImage truth = speckled(large, 1);
    std::size_t afterTwenty = 0;
    for (int i = 0; i < 200; ++i) {
        truth.setPixel(7, 200, quint32(i) | 0xff000000);
        queue.push_back(next(images, truth).image);
        if (queue.size() > 10)
            queue.erase(queue.begin());
        if (i == 20)
            afterTwenty = fakeplatform::memoryTaken();
    }
    QCOMPARE(fakeplatform::memoryTaken().load(), afterTwenty);
}

/// A queue that loses two images and gets them again takes no new memory.
void SharedImagesTest::memoryOfAShorterQueueIsKept()
{
    SharedImages images;
    std::vector<QImage> queue;
    for (int i = 0; i < 40; ++i)
        queue.push_back(next(images, speckled(large, quint32(i))).image);
    const std::size_t full = fakeplatform::memoryTaken();
    queue.erase(queue.begin(), queue.begin() + 2);
    QCOMPARE(fakeplatform::memoryTaken().load(), full);
}

void SharedImagesTest::memoryIsGivenBack()
{
    SharedImages images;
    std::vector<QImage> queue;
    for (int i = 0; i < 30; ++i)
        queue.push_back(next(images, speckled(large, quint32(i))).image);
    const std::size_t most = fakeplatform::memoryTaken();
    queue.clear();
    QVERIFY2(fakeplatform::memoryTaken() * 5 < most, "memory that no image uses is kept");
    QCOMPARE(next(images, speckled(large, 77)).image, speckled(large, 77));
}

/// Each of many images keeps one piece of its own memory in use.
void SharedImagesTest::memoryBetweenPiecesInUseIsGivenBack()
{
    SharedImages images;
    std::vector<QImage> queue;
    constexpr int pieces = 18;
    QImage all = speckled(large, 100);
    for (int i = 0; i < pieces; ++i) { // of every image one piece goes on into the next ones
        const QImage fresh = speckled(large, quint32(i));
        const int kept = (i + 1) * 27;
        for (int y = kept; y < large.height(); ++y)
            memcpy(all.scanLine(y), fresh.constScanLine(y), size_t(large.width()) * 4);
        queue.push_back(next(images, all).image);
    }
    const std::size_t before = fakeplatform::memoryEmptied();
    queue.clear();
    const auto emptied = qint64(fakeplatform::memoryEmptied() - before);
    QVERIFY2(emptied > pieces * 19 * pieceBytes / 4, qPrintable(QString::number(emptied)));
    QCOMPARE(images.last(), all);
    QCOMPARE(next(images, speckled(large, 77)).image, speckled(large, 77));
}

/// Of every image a large part changes: what was given back for one would be taken again for the next.
void SharedImagesTest::memoryBetweenTheImagesOfAQueueIsKept()
{
    SharedImages images;
    std::vector<QImage> queue;
    QImage all = speckled(large, 100);
    std::size_t afterThirty = 0;
    for (int i = 0; i < 100; ++i) {
        const QImage fresh = speckled(large, quint32(i));
        for (int y = 40; y < large.height(); ++y)
            memcpy(all.scanLine(y), fresh.constScanLine(y), size_t(large.width()) * 4);
        queue.push_back(next(images, all).image);
        if (queue.size() > 10)
            queue.erase(queue.begin());
        if (i == 30)
            afterThirty = fakeplatform::memoryEmptied();
    }
    QCOMPARE(fakeplatform::memoryEmptied().load(), afterThirty);
    QCOMPARE(queue.back(), all);
}

void SharedImagesTest::imagesEndOnAnyThread()
{
    SharedImages images;
    QImage truth = speckled(large, 1);
    for (int round = 0; round < 20; ++round) {
        std::vector<QImage> queue;
        for (int i = 0; i < 10; ++i) {
            truth.setPixel(i, round, quint32(i * 100 + round) | 0xff000000);
            queue.push_back(next(images, truth).image);
        }
        std::thread other([ending = std::move(queue)]() mutable { ending.clear(); });
        truth.setPixel(5, 400, quint32(round) | 0xff000000);
        const QImage meanwhile = next(images, truth).image;
        other.join();
        QCOMPARE(meanwhile, truth);
    }
}

void SharedImagesTest::memoryThatRunsOutCostsThatImage_data()
{
    QTest::addColumn<int>("callsLeft");
    QTest::newRow("no addresses") << 0;
    QTest::newRow("no room for what was taken") << 1;
}

void SharedImagesTest::memoryThatRunsOutCostsThatImage()
{
    QFETCH(const int, callsLeft);
    const LogCapture log;
    SharedImages images;
    std::vector<QImage> kept; // so that nothing is free
    for (quint32 i = 0; i < 3; ++i)
        kept.push_back(next(images, speckled(large, i)).image);
    const qint64 before = images.last().cacheKey();

    const std::size_t taken = fakeplatform::memoryTaken();
    fakeplatform::state().memoryCallsLeft = callsLeft;
    QVERIFY(next(images, speckled(large, 10)).image.isNull());
    fakeplatform::state().memoryCallsLeft.reset();
    QCOMPARE(fakeplatform::memoryTaken().load(), taken);
    QCOMPARE(images.last().cacheKey(), before);
    QCOMPARE(log.messages(QtWarningMsg),
        QStringList{QStringLiteral("No memory for the image of a window; the frame is left out. Told once.")});
    const SharedImages::Image after = next(images, speckled(large, 11));
    QCOMPARE(after.image, speckled(large, 11));
    QCOMPARE(after.changedRows, RowSet(0, large.height()));
    for (quint32 i = 0; i < 3; ++i)
        QCOMPARE(kept[i], speckled(large, i));
}

void SharedImagesTest::imageWithoutAddressesIsCopied_data()
{
    QTest::addColumn<int>("callsLeft");
    QTest::addColumn<qint64>("ownBytes");
    const qint64 copied = pieceBytes + qint64(large.width()) * large.height() * 4;
    constexpr int needed = 6; // the addresses, and five parts of them: two pieces, and what lies around them
    for (int calls = 0; calls < needed; ++calls)
        QTest::addRow("after %d calls", calls) << calls << copied;
    QTest::newRow("none is refused") << needed << pieceBytes;
}

/// An image of pieces that do not lie together has to be shown at addresses of its own; or it shares nothing.
void SharedImagesTest::imageWithoutAddressesIsCopied()
{
    QFETCH(const int, callsLeft);
    QFETCH(const qint64, ownBytes);
    SharedImages images;
    QImage truth = speckled(large, 1);
    next(images, truth);
    const QImage first = truth.copy();
    std::vector<QImage> kept{images.last()};
    truth.setPixel(7, 40, 0xff010203);
    kept.push_back(next(images, truth).image); // whose memory has room for the next one
    truth.setPixel(7, 240, 0xff040506);
    fakeplatform::state().memoryCallsLeft = callsLeft;
    const SharedImages::Image taken = next(images, truth);
    fakeplatform::state().memoryCallsLeft.reset();
    QCOMPARE(taken.image, truth);
    QCOMPARE(taken.ownBytes, ownBytes);
    QVERIFY(taken.changedRows.contains(240) && !taken.changedRows.contains(40));
    QCOMPARE(kept[0], first);
}

void SharedImagesTest::incompleteFirstImageIsNone()
{
    SharedImages images;
    const QImage truth = speckled(large, 1);
    images.update(large, truth.format());
    putRows(images, truth, 0, 100);
    QVERIFY(images.finish().image.isNull());
    QCOMPARE(next(images, truth).image, truth);
}

ORVANTIS_TEST(SharedImagesTest)
#include "sharedimages_test.moc"
