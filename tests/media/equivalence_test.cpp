// Composition and conversion touch only what changed. Beside them runs the plain way, which paints and converts every
// frame whole; both must give the same bytes, whatever happens from frame to frame.
#include "ffmpegfaults.h"
#include "idlerecorder.h"
#include "sharedimages.h"
#include "testregistry.h"

#include <QRandomGenerator>
#include <QTest>
#include <QThreadPool>

using namespace ffmpegfaults;

namespace {

/// A window that does everything that windows do, at random, and tells what changed as a capture does.
class EventfulWindow {
public:
    EventfulWindow(const QSize& size, bool opaque, quint32 seed) : random_(seed), size_(size), opaque_(opaque)
    {
        repaint();
    }

    RecorderProbe::CapturedFrame next()
    {
        switch (random_.bounded(12)) {
        case 0:
            repaint();
            break;
        case 1:
            break; // nothing
        case 2:
            frame_.windowBounds.translate(int(random_.bounded(40)) - 20, int(random_.bounded(40)) - 20);
            break;
        case 3:
            frame_.windowBounds.setSize(size_ / (1 + int(random_.bounded(2))));
            break;
        case 4:
            if (random_.bounded(4) == 0) {
                size_ += QSize(int(random_.bounded(9)) - 4, int(random_.bounded(9)) - 4);
                repaint();
            }
            break;
        case 5:
            opaque_ = opaque_ ? random_.bounded(3) > 0 : random_.bounded(3) == 0;
            repaint();
            break;
        case 6:
            movePointer();
            break;
        case 7:
            ++frame_.imageVersion; // a frame was left out
            [[fallthrough]];
        default:
            scribble(1 + int(random_.bounded(3)));
        }
        if (random_.bounded(3) == 0)
            movePointer();
        take();
        return frame_;
    }

private:
    void repaint()
    {
        pixels_ = QImage(size_, QImage::Format_ARGB32);
        scribble(1, pixels_.rect());
    }

    void scribble(int areas, QRect area = QRect())
    {
        for (int i = 0; i < areas; ++i) {
            const QPoint corner(int(random_.bounded(size_.width())), int(random_.bounded(size_.height())));
            const QSize extent(1 + int(random_.bounded(size_.width())),
                1 + int(random_.bounded(random_.bounded(3) == 0 ? size_.height() / 4 : 4)));
            fill(area.isEmpty() ? QRect(corner, extent) & pixels_.rect() : area);
        }
    }

    void fill(const QRect& area)
    {
        for (int y = area.top(); y <= area.bottom(); ++y) {
            auto* line = reinterpret_cast<quint32*>(pixels_.scanLine(y));
            for (int x = area.left(); x <= area.right(); ++x)
                line[x] = random_.generate() | (opaque_ ? 0xff000000u : 0u);
        }
    }

    void movePointer()
    {
        frame_.hasCursor = random_.bounded(5) > 0;
        frame_.cursorX = frame_.windowBounds.left() + random_.bounded(1.2) * frame_.windowBounds.width();
        frame_.cursorY = frame_.windowBounds.top() + random_.bounded(1.2) * frame_.windowBounds.height();
    }

    void take()
    {
        images_.update(pixels_.size(), pixels_.format());
        images_.put(0, pixels_.height(), reinterpret_cast<const quint32*>(pixels_.constBits()));
        const SharedImages::Image taken = images_.finish();
        const RowSet changedRows = differentRows(taken.image);
        if (frame_.windowBounds.isEmpty())
            frame_.windowBounds = pixels_.rect();
        if (!changedRows.isEmpty()) {
            ++frame_.imageVersion;
            frame_.changedRows = changedRows;
        }
        frame_.image = taken.image;
        frame_.opaque = isOpaque();
    }

    /// From the last image; exactly those, and no row more, as a source may tell them.
    RowSet differentRows(const QImage& image) const
    {
        if (image.size() != frame_.image.size())
            return RowSet(0, image.height());
        RowSet rows;
        for (int y = 0; y < image.height(); ++y) {
            if (memcmp(image.constScanLine(y), frame_.image.constScanLine(y), size_t(image.width()) * 4) != 0)
                rows.add(y, y + 1);
        }
        return rows;
    }

    bool isOpaque() const
    {
        quint32 common = 0xff000000u;
        for (int y = 0; y < pixels_.height(); ++y) {
            const auto* line = reinterpret_cast<const quint32*>(pixels_.constScanLine(y));
            for (int x = 0; x < pixels_.width(); ++x)
                common &= line[x];
        }
        return common == 0xff000000u;
    }

    QRandomGenerator random_;
    QSize size_;
    bool opaque_;
    QImage pixels_;
    SharedImages images_;
    RecorderProbe::CapturedFrame frame_;
};

/// Both recorders get the same clicks, early and late ones.
void click(QRandomGenerator& random, RecorderProbe& one, RecorderProbe& other, qint64 nowMs)
{
    RecorderProbe::MouseClick click{random.bounded(200.0), random.bounded(300.0), 0.0, 0.0, false};
    if (random.bounded(2) == 0) {
        click.hasNormalized = true;
        click.normalizedX = random.bounded(1.0);
        click.normalizedY = random.bounded(1.0);
    }
    const qint64 key = std::max<qint64>(0, nowMs + qint64(random.bounded(4000)) - 2000);
    one.clicks().insert(key, click);
    other.clicks().insert(key, click);
}

/// What an encoder is given: its visible bytes.
QByteArray bytesOf(const AVFrame& frame)
{
    QByteArray bytes(
        av_image_get_buffer_size(AVPixelFormat(frame.format), frame.width, frame.height, 1), Qt::Uninitialized);
    av_image_copy_to_buffer(reinterpret_cast<uint8_t*>(bytes.data()), int(bytes.size()), frame.data, frame.linesize,
        AVPixelFormat(frame.format), frame.width, frame.height, 1);
    return bytes;
}

/// Row by row, for a message that helps.
int firstDifferentRow(const QImage& one, const QImage& other)
{
    for (int y = 0; y < one.height(); ++y) {
        if (memcmp(one.constScanLine(y), other.constScanLine(y), size_t(one.width()) * 4) != 0)
            return y;
    }
    return -1;
}

}

class EquivalenceTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    /// Every recorder's worker has a thread of its own: what Qt's pool hands to one that waits, the thread sanitizer
    /// does not see.
    void initTestCase() { QThreadPool::globalInstance()->setExpiryTimeout(0); }
    void init() { reset(); }

    void changedRowsGiveTheSameBytes_data();
    void changedRowsGiveTheSameBytes();
    void everyBandOfRowsIsConvertedAsTheWhole_data();
    void everyBandOfRowsIsConvertedAsTheWhole();
    void bandThatIsNotConverted_data();
    void bandThatIsNotConverted();
    void sourceThatLiesIsSeen();
};

void EquivalenceTest::changedRowsGiveTheSameBytes_data()
{
    QTest::addColumn<QSize>("window");
    QTest::addColumn<QSize>("canvas");
    QTest::addColumn<bool>("opaque");
    QTest::addColumn<bool>("lossless");
    const std::tuple<const char*, QSize, QSize> sizes[] = {
        {"same size", QSize(200, 300), QSize(200, 300)},
        {"bars", QSize(151, 300), QSize(200, 300)},
        {"enlarged", QSize(105, 157), QSize(200, 300)},
        {"shrunk", QSize(401, 599), QSize(200, 300)},
        {"shrunk to a half", QSize(400, 600), QSize(200, 300)},
        {"narrow", QSize(37, 500), QSize(102, 514)},
        {"canvas of few rows", QSize(500, 40), QSize(398, 30)},
    };
    for (const auto& [name, window, canvas] : sizes) {
        for (const bool opaque : {true, false}) {
            QTest::addRow("%s, %s", name, opaque ? "opaque" : "translucent") << window << canvas << opaque << false;
        }
    }
    QTest::newRow("lossless") << QSize(190, 290) << QSize(200, 300) << true << true;
}

void EquivalenceTest::changedRowsGiveTheSameBytes()
{
    QFETCH(const QSize, window);
    QFETCH(const QSize, canvas);
    QFETCH(const bool, opaque);
    QFETCH(const bool, lossless);
    if (lossless)
        surroundings().hiddenEncoders = {"mpeg4"};
    IdleRecorder sparing(QStringLiteral("sparing.mp4"), canvas);
    IdleRecorder plain(QStringLiteral("plain.mp4"), canvas);
    QVERIFY(sparing->openOutput());
    QVERIFY(plain->openOutput());
    QRandomGenerator random(11);
    EventfulWindow source(window, opaque, 3);
    for (int i = 0; i < 100; ++i) {
        const qint64 timeMs = i * 41;
        if (random.bounded(8) == 0)
            click(random, *sparing, *plain, timeMs);
        RecorderProbe::CapturedFrame frame = source.next();
        if (random.bounded(6) == 0)
            continue; // dropped; the next one may show the same version
        sparing->isBehind() = i % 5 == 0;
        RecorderProbe::CapturedFrame waiting = frame;
        sparing->letterbox(waiting);
        const QImage one = sparing->composeFrame(waiting, timeMs);
        QVERIFY(sparing->encodeImage(one, timeMs));
        frame.imageVersion = 0; // nobody knows what changed
        const QImage other = plain->composeFrame(frame, timeMs);
        QVERIFY2(
            one == other, qPrintable(QStringLiteral("frame %1 row %2").arg(i).arg(firstDifferentRow(one, other))));
        QVERIFY(plain->encodeImage(other.copy(), timeMs));
        QVERIFY2(bytesOf(*sparing->videoFrame()) == bytesOf(*plain->videoFrame()), qPrintable(QString::number(i)));
    }
    QVERIFY(sparing.finish());
    QVERIFY(plain.finish());
}

void EquivalenceTest::everyBandOfRowsIsConvertedAsTheWhole_data()
{
    QTest::addColumn<QSize>("canvas");
    for (const QSize size : {QSize(16, 16), QSize(64, 64), QSize(66, 66), QSize(320, 128), QSize(322, 130),
             QSize(1918, 1078), QSize(638, 400), QSize(1920, 194)})
        QTest::addRow("%dx%d", size.width(), size.height()) << size;
}

/// One row after the other changes, alone.
void EquivalenceTest::everyBandOfRowsIsConvertedAsTheWhole()
{
    QFETCH(const QSize, canvas);
    IdleRecorder recorder(QStringLiteral("clip.mp4"), canvas);
    IdleRecorder plain(QStringLiteral("plain.mp4"), canvas);
    QVERIFY(recorder->openOutput());
    QVERIFY(plain->openOutput());
    QRandomGenerator random(5);
    QImage image(canvas, QImage::Format_ARGB32);
    for (int y = 0; y < canvas.height(); ++y)
        random.fillRange(reinterpret_cast<quint32*>(image.scanLine(y)), canvas.width());
    QVERIFY(recorder->transferPixels(image));
    const int step = canvas.height() > 500 ? 37 : 1;
    for (int y = 0; y < canvas.height(); y += step) {
        random.fillRange(reinterpret_cast<quint32*>(image.scanLine(y)), canvas.width());
        recorder->isBehind() = y % 2 == 0; // both ways
        QVERIFY(recorder->transferRows(image, recorder->isBehind() ? RowSet(0, canvas.height()) : RowSet(y, y + 1)));
        QVERIFY(plain->transferPixels(image));
        QVERIFY2(bytesOf(*recorder->videoFrame()) == bytesOf(*plain->videoFrame()), qPrintable(QString::number(y)));
    }
}

void EquivalenceTest::bandThatIsNotConverted_data()
{
    QTest::addColumn<int>("nth");
    QTest::newRow("the first") << 1;
    QTest::newRow("the second") << 2;
}

/// The whole frame is converted then, and nothing is missing.
void EquivalenceTest::bandThatIsNotConverted()
{
    QFETCH(const int, nth);
    const QSize canvas(48, 128);
    IdleRecorder recorder(QStringLiteral("clip.mp4"), canvas);
    IdleRecorder plain(QStringLiteral("plain.mp4"), canvas);
    QVERIFY(recorder->openOutput());
    QVERIFY(plain->openOutput());
    const QImage image = testimages::noise(canvas, 3).convertToFormat(QImage::Format_ARGB32);
    QVERIFY(plain->transferPixels(image));
    surroundings().processors = 2;
    recorder->isBehind() = true;
    const int before = calls(Call::Convert);
    failOnce(Call::Convert, AVERROR(ENOMEM), nth);
    QVERIFY(recorder->transferPixels(image));
    QVERIFY(calls(Call::Convert) >= before + 2);
    QVERIFY(bytesOf(*recorder->videoFrame()) == bytesOf(*plain->videoFrame()));
    QVERIFY(recorder.wasQuiet());
}

/// The check of the checks: rows that changed and are not told of are missing, and the comparison finds that.
void EquivalenceTest::sourceThatLiesIsSeen()
{
    IdleRecorder sparing;
    IdleRecorder plain;
    EventfulWindow source(sparing.canvas(), true, 3);
    RecorderProbe::CapturedFrame frame = source.next();
    sparing->composeFrame(frame, 0);
    RecorderProbe::CapturedFrame changed = frame;
    changed.image = frame.image.copy();
    changed.image.setPixel(50, 200, 0xff000000);
    changed.image.setPixel(51, 200, 0xffffffff);
    ++changed.imageVersion;
    changed.changedRows = RowSet(100, 120);
    const QImage one = sparing->composeFrame(changed, 41);
    changed.imageVersion = 0;
    QCOMPARE(firstDifferentRow(one, plain->composeFrame(changed, 41)), 200);
}

ORVANTIS_TEST(EquivalenceTest)
#include "equivalence_test.moc"
