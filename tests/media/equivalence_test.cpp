// Composition and conversion touch only what changed. Beside them runs the plain way, which paints and converts every
// frame whole; both must give the same bytes, whatever happens from frame to frame.
#include "eventfulwindow.h"
#include "testregistry.h"
#include "twinrecorders.h"

#include <QRandomGenerator>
#include <QTest>
#include <QThreadPool>

using namespace ffmpegfaults;

namespace {

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

void repaint(QImage& image, const RowSet& rows, QRandomGenerator& random, bool opaque)
{
    for (const RowSet::Range& range : rows.ranges()) {
        for (int y = range.top; y < range.end; ++y) {
            auto* line = reinterpret_cast<quint32*>(image.scanLine(y));
            random.fillRange(line, image.width());
            for (int x = 0, width = image.width(); opaque && x < width; ++x)
                line[x] |= 0xff000000u;
        }
    }
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
    void anyAllocationMayBeRefused_data();
    void anyAllocationMayBeRefused();
    void everyBandOfRowsIsConvertedAsTheWhole_data();
    void everyBandOfRowsIsConvertedAsTheWhole();
    void bandThatIsNotConverted_data();
    void bandThatIsNotConverted();
    void sourceThatLiesIsSeen_data();
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
    TwinRecorders twins(canvas);
    QVERIFY(twins.open());
    QRandomGenerator random(11);
    EventfulWindow source(window, opaque, 3);
    const int count = lossless ? 30 : 70; // FFV1 takes its time
    for (int i = 0; i < count; ++i) {
        const qint64 timeMs = i * 41;
        if (random.bounded(8) == 0)
            click(random, twins.sparing(), twins.plain(), timeMs);
        const EventfulWindow::Frame frame = random.bounded(20) == 0 ? source.nextWithoutImage() : source.next();
        twins.sparing().isBehind() = i % 5 == 0;
        const bool isHarmed = random.bounded(3) == 0; // the next frame may show the same version
        const auto mishap = isHarmed ? Mishap(1 + random.bounded(int(Mishap::Last))) : Mishap::None;
        const QString fault = twins.take(frame, timeMs, mishap, int(random.bounded(10)));
        QVERIFY2(fault.isEmpty(), qPrintable(QStringLiteral("frame %1: %2").arg(i).arg(fault)));
        QVERIFY2(twins.send(random.bounded(3) == 0), qPrintable(QString::number(i)));
    }
    QVERIFY(twins.finish());
    QVERIFY(twins.wroteTheSame());
    QCOMPARE(twins.packetCount(), count - twins.losses().size());
    QVERIFY(twins.preparedBeside() > 5);
    QVERIFY(twins.losses().contains(Mishap::NoMemoryToCompose));
    QVERIFY(twins.losses().contains(Mishap::NoFrameToPrepare));
}

void EquivalenceTest::anyAllocationMayBeRefused_data()
{
    QTest::addColumn<QSize>("window");
    QTest::addColumn<bool>("pointer");
    QTest::addColumn<Mishap>("mishap");
    const QSize same(200, 300);
    const QSize larger(401, 599);
    QTest::newRow("to wait") << larger << false << Mishap::NoMemoryToWait;
    QTest::newRow("to compose") << larger << false << Mishap::NoMemoryToCompose;
    QTest::newRow("to compose under a pointer") << same << true << Mishap::NoMemoryToCompose;
    QTest::newRow("to take the window's image") << same << false << Mishap::NoMemoryToCompose;
    QTest::newRow("to prepare") << same << true << Mishap::NoMemoryToPrepare;
}

/// One after the other; the frame that comes next shows what the lost one would have shown.
void EquivalenceTest::anyAllocationMayBeRefused()
{
    QFETCH(const QSize, window);
    QFETCH(const bool, pointer);
    QFETCH(const Mishap, mishap);
    TwinRecorders twins(QSize(200, 300));
    QVERIFY(twins.open());
    QRandomGenerator random(13);
    EventfulWindow::Frame frame;
    frame.image = QImage(window, QImage::Format_ARGB32);
    frame.windowBounds = frame.image.rect();
    frame.opaque = true;
    frame.hasCursor = pointer;
    for (int refused = 0; twins.losses().size() == refused; ++refused) {
        frame.changedRows = RowSet(0, window.height());
        repaint(frame.image, frame.changedRows, random, true);
        frame.imageVersion += 2;
        QCOMPARE(twins.take(frame, refused * 123), QString());
        QVERIFY(twins.send(true));

        RowSet changed; // more than before, so that every list of them has to grow
        for (int i = 0; i < std::min(3 + refused, 14); ++i)
            changed.add(i * window.height() / 20, i * window.height() / 20 + 1);
        repaint(frame.image, changed, random, true);
        frame.changedRows = changed;
        ++frame.imageVersion;
        QCOMPARE(twins.take(frame, refused * 123 + 41, mishap, refused), QString());
        QVERIFY(twins.send(true));

        const QString fault = twins.take(frame, refused * 123 + 82); // the same image again
        QVERIFY2(fault.isEmpty(), qPrintable(QStringLiteral("allocation %1: %2").arg(refused).arg(fault)));
        QVERIFY(twins.send(true));
    }
    QVERIFY(twins.losses().size() > 2);
    QVERIFY(twins.finish());
    QVERIFY(twins.wroteTheSame());
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
    const int step = canvas.height() > 500 ? 67 : canvas.width() > 500 ? 3 : 1; // odd, for both ways
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

void EquivalenceTest::sourceThatLiesIsSeen_data()
{
    QTest::addColumn<QSize>("window");
    QTest::newRow("same size") << QSize(200, 300);
    QTest::newRow("bars") << QSize(151, 300);
    QTest::newRow("enlarged") << QSize(105, 157);
    QTest::newRow("shrunk") << QSize(401, 599);
}

/// The check of the checks: the comparison finds what a source does not tell.
void EquivalenceTest::sourceThatLiesIsSeen()
{
    enum Lie { OtherRows, NoRows, SameVersion, Opaque };
    QFETCH(const QSize, window);
    const QSize canvas(200, 300);
    TwinRecorders twins(canvas);
    QVERIFY(twins.open());
    QRandomGenerator random(7);
    RowSet changed(0, window.height());
    EventfulWindow::Frame frame;
    frame.image = QImage(window, QImage::Format_ARGB32);
    frame.windowBounds = frame.image.rect();
    frame.opaque = true;
    frame.cursorX = 50;
    frame.cursorY = 30;
    const int lies = FrameGeometry(window, frame.windowBounds, canvas).isUnscaled() ? 4 : 3; // scaled, all is blended
    for (int i = 0; i < 24; ++i) {
        repaint(frame.image, changed, random, true);
        frame.hasCursor = random.bounded(2) == 0;
        frame.changedRows = RowSet(0, window.height());
        frame.imageVersion += 2;
        QCOMPARE(twins.take(frame, i * 82), QString());
        QVERIFY(twins.send(false));

        const auto lie = Lie(random.bounded(lies));
        const int half = window.height() / 2;
        const int top = int(random.bounded(half - 40));
        const bool isBelow = random.bounded(2) == 0;
        changed = RowSet(isBelow ? top + half : top, (isBelow ? top + half : top) + 10);
        repaint(frame.image, changed, random, lie != Opaque);
        frame.changedRows = lie == Opaque ? changed : RowSet();
        if (lie == OtherRows)
            frame.changedRows.add(isBelow ? 0 : half + 20, isBelow ? half - 20 : window.height());
        if (lie != SameVersion)
            ++frame.imageVersion;
        const QString fault = twins.take(frame, i * 82 + 41);
        QVERIFY2(!fault.isEmpty(), qPrintable(QStringLiteral("lie %1 of kind %2").arg(i).arg(lie)));
        QVERIFY(twins.send(false));
    }
    QVERIFY(twins.finish());
}

ORVANTIS_TEST(EquivalenceTest)
#include "equivalence_test.moc"
