// Window images by id: parsing, permission, fallbacks and the one-time warning.
#include "macwindowcapture.h"

#include "fakeplatform.h"
#include "logcapture.h"

#include <QTest>

#include <vector>

namespace {

const QString emptyIdWarning = QStringLiteral("macOS CoreGraphics capture received an empty window id.");
const QString askingWarning
    = QStringLiteral("macOS screen recording permission is not currently granted; requesting access.");
const QString refusedWarning
    = QStringLiteral("macOS screen recording permission was not granted; window capture will not produce frames.");

QString requestedLine(const QString& id, const QString& parsed, const QString& ok)
{
    return QStringLiteral("macOS CoreGraphics capture requested for window id \"%1\" parsed %2 ok %3")
        .arg(id, parsed, ok);
}

QString preflightLine(bool held)
{
    return QStringLiteral("macOS screen recording preflight before request ")
        + (held ? QStringLiteral("true") : QStringLiteral("false"));
}

QString resultLine(bool granted, bool heldNow)
{
    const auto text = [](bool value) { return value ? QStringLiteral("true") : QStringLiteral("false"); };
    return QStringLiteral("macOS screen recording request result %1 preflight after request %2")
        .arg(text(granted), text(heldNow));
}

QString configuredLine(const QString& id)
{
    return QStringLiteral("macOS CoreGraphics capture configured for window ") + id;
}

}

class MacWindowCaptureTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { fakeplatform::reset(); }

    void badIdIsWarnedOf_data();
    void badIdIsWarnedOf();
    void goodIdConfigures_data();
    void goodIdConfigures();

    void heldPermissionIsNotAskedFor();
    void missingPermissionIsAskedFor_data();
    void missingPermissionIsAskedFor();
    void refusedPermissionLeavesItInvalid_data();
    void refusedPermissionLeavesItInvalid();

    void invalidCaptureReturnsNothing();
    void windowIsClosedWithTheCapture();

    void vanishedWindowIsWarnedOfOnce();
    void eachCaptureWarnsForItself();
    void noImageLeavesTheBoundsAlone();
    void imageWithoutSizeIsNoImage();

    void boundsAreRounded_data();
    void boundsAreRounded();
    void unknownBoundsBecomeTheImageRectangle_data();
    void unknownBoundsBecomeTheImageRectangle();
    void boundsAreNotAskedForWithoutAPlaceForThem();

    void opaqueImageSharesItsPixels();
    void opaqueImageOutlivesItsSource();
    void translucentImageGetsStraightAlpha();
    void unchangedImageIsSharedNotConverted_data();
    void unchangedImageIsSharedNotConverted();
    void changedImageIsTakenAnew();
    void imageAfterAGapIsTakenAnew();

    void pointerLocation();
};

void MacWindowCaptureTest::badIdIsWarnedOf_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("parsed");
    QTest::addColumn<QString>("ok");
    const QString no = QStringLiteral("false");
    const QString yes = QStringLiteral("true");
    const QString zero = QStringLiteral("0");
    QTest::newRow("0") << QStringLiteral("0") << zero << yes;
    QTest::newRow("abc") << QStringLiteral("abc") << zero << no;
    QTest::newRow("empty") << QString() << zero << no;
    QTest::newRow("blank") << QStringLiteral(" ") << zero << no;
    QTest::newRow("negative") << QStringLiteral("-42") << zero << no;
    QTest::newRow("fraction") << QStringLiteral("42.0") << zero << no;
    QTest::newRow("hexadecimal") << QStringLiteral("0x2a") << zero << no;
    QTest::newRow("number and text") << QStringLiteral("42 windows") << zero << no;
    QTest::newRow("64 bits and one") << QStringLiteral("18446744073709551616") << zero << no;
}

void MacWindowCaptureTest::badIdIsWarnedOf()
{
    QFETCH(QString, id);
    QFETCH(QString, parsed);
    QFETCH(QString, ok);
    const LogCapture log;
    const MacWindowCapture capture(id);
    QVERIFY(!capture.isValid());
    QCOMPARE(log.messages(), (QStringList{requestedLine(id, parsed, ok), emptyIdWarning}));
    QCOMPARE(log.messages(QtDebugMsg), QStringList{requestedLine(id, parsed, ok)});
    QCOMPARE(log.messages(QtWarningMsg), QStringList{emptyIdWarning});
    QCOMPARE(fakeplatform::state().preflightCalls, 0);
    QVERIFY(fakeplatform::state().openedWindows.empty());
}

void MacWindowCaptureTest::goodIdConfigures_data()
{
    QTest::addColumn<QString>("id");
    QTest::addColumn<QString>("parsed");
    QTest::addColumn<quint32>("window");
    QTest::newRow("42") << QStringLiteral("42") << QStringLiteral("42") << 42u;
    QTest::newRow("2^32 + 42 is cut to 32 bits")
        << QStringLiteral("4294967338") << QStringLiteral("4294967338") << 42u;
    QTest::newRow("2^32 is not 0, though its low bits are")
        << QStringLiteral("4294967296") << QStringLiteral("4294967296") << 0u;
    QTest::newRow("largest of 32 bits") << QStringLiteral("4294967295") << QStringLiteral("4294967295")
                                        << 4294967295u;
    QTest::newRow("largest of 64 bits") << QStringLiteral("18446744073709551615")
                                        << QStringLiteral("18446744073709551615") << 4294967295u;
    QTest::newRow("blanks around") << QStringLiteral(" 42 ") << QStringLiteral("42") << 42u;
    QTest::newRow("leading zeros") << QStringLiteral("0042") << QStringLiteral("42") << 42u;
}

void MacWindowCaptureTest::goodIdConfigures()
{
    QFETCH(QString, id);
    QFETCH(QString, parsed);
    QFETCH(quint32, window);
    const LogCapture log;
    const MacWindowCapture capture(id);
    QVERIFY(capture.isValid());
    const QStringList expected{requestedLine(id, parsed, QStringLiteral("true")), preflightLine(true),
        configuredLine(QString::number(window))};
    QCOMPARE(log.messages(), expected);
    QCOMPARE(log.messages(QtDebugMsg), expected);
    QCOMPARE(fakeplatform::state().openedWindows, std::vector<quint32>{window});
}

void MacWindowCaptureTest::heldPermissionIsNotAskedFor()
{
    const MacWindowCapture capture(QStringLiteral("42"));
    QCOMPARE(fakeplatform::state().preflightCalls, 1);
    QCOMPARE(fakeplatform::state().requestCalls, 0);
}

void MacWindowCaptureTest::missingPermissionIsAskedFor_data()
{
    QTest::addColumn<bool>("heldAfterwards");
    QTest::newRow("granted and held") << true;
    QTest::newRow("granted, the later preflight does not decide") << false;
}

void MacWindowCaptureTest::missingPermissionIsAskedFor()
{
    QFETCH(bool, heldAfterwards);
    fakeplatform::state().preflightAnswers = {false, heldAfterwards};
    fakeplatform::state().requestAnswer = true;
    const LogCapture log;
    const MacWindowCapture capture(QStringLiteral("42"));
    QVERIFY(capture.isValid());
    QCOMPARE(log.messages(),
        (QStringList{requestedLine(QStringLiteral("42"), QStringLiteral("42"), QStringLiteral("true")),
            preflightLine(false), askingWarning, resultLine(true, heldAfterwards),
            configuredLine(QStringLiteral("42"))}));
    QCOMPARE(log.messages(QtWarningMsg), QStringList{askingWarning});
    QCOMPARE(fakeplatform::state().requestCalls, 1);
}

void MacWindowCaptureTest::refusedPermissionLeavesItInvalid_data()
{
    QTest::addColumn<bool>("heldAfterwards");
    QTest::newRow("refused") << false;
    QTest::newRow("refused, the later preflight does not decide") << true;
}

void MacWindowCaptureTest::refusedPermissionLeavesItInvalid()
{
    QFETCH(bool, heldAfterwards);
    fakeplatform::state().preflightAnswers = {false, heldAfterwards};
    fakeplatform::state().requestAnswer = false;
    const LogCapture log;
    const MacWindowCapture capture(QStringLiteral("42"));
    QVERIFY(!capture.isValid());
    QCOMPARE(log.messages(),
        (QStringList{requestedLine(QStringLiteral("42"), QStringLiteral("42"), QStringLiteral("true")),
            preflightLine(false), askingWarning, resultLine(false, heldAfterwards), refusedWarning}));
    QCOMPARE(log.messages(QtWarningMsg), (QStringList{askingWarning, refusedWarning}));
    QVERIFY(fakeplatform::state().openedWindows.empty());
}

void MacWindowCaptureTest::invalidCaptureReturnsNothing()
{
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(4, 4, qRgb(1, 2, 3)); };
    fakeplatform::state().pointer = [] { return QPointF(1, 1); };
    const MacWindowCapture capture(QStringLiteral("0"));
    const LogCapture log;
    QRect bounds(1, 2, 3, 4);
    QVERIFY(capture.capture(&bounds).isNull());
    QCOMPARE(bounds, QRect(1, 2, 3, 4));
    QVERIFY(!capture.pointerLocation());
    QCOMPARE(log.messages(), QStringList());
}

void MacWindowCaptureTest::windowIsClosedWithTheCapture()
{
    {
        const MacWindowCapture capture(QStringLiteral("42"));
        QCOMPARE(fakeplatform::state().openWindows, 1);
    }
    QCOMPARE(fakeplatform::state().openWindows, 0);
}

void MacWindowCaptureTest::vanishedWindowIsWarnedOfOnce()
{
    fakeplatform::state().image
        = [](int index) { return index == 5 ? fakeplatform::solidImage(4, 4, qRgb(1, 2, 3)) : QImage(); };
    const MacWindowCapture capture(QStringLiteral("42"));
    const LogCapture log;
    for (int i = 0; i < 10; ++i)
        QCOMPARE(capture.capture(nullptr).isNull(), i != 5);
    const QString warning = QStringLiteral("macOS CoreGraphics capture returned no image for window 42");
    QCOMPARE(log.messages(), QStringList{warning});
    QCOMPARE(log.messages(QtWarningMsg), QStringList{warning});
}

void MacWindowCaptureTest::eachCaptureWarnsForItself()
{
    const MacWindowCapture first(QStringLiteral("1"));
    const MacWindowCapture second(QStringLiteral("2"));
    const LogCapture log;
    for (int i = 0; i < 2; ++i) {
        QVERIFY(first.capture(nullptr).isNull());
        QVERIFY(second.capture(nullptr).isNull());
    }
    QCOMPARE(log.messages(),
        (QStringList{QStringLiteral("macOS CoreGraphics capture returned no image for window 1"),
            QStringLiteral("macOS CoreGraphics capture returned no image for window 2")}));
}

void MacWindowCaptureTest::noImageLeavesTheBoundsAlone()
{
    fakeplatform::state().bounds = [] { return QRectF(7, 7, 7, 7); };
    const MacWindowCapture capture(QStringLiteral("42"));
    const LogCapture log;
    QRect bounds(1, 2, 3, 4);
    QVERIFY(capture.capture(&bounds).isNull());
    QCOMPARE(bounds, QRect(1, 2, 3, 4));
}

void MacWindowCaptureTest::imageWithoutSizeIsNoImage()
{
    fakeplatform::state().image = [](int index) {
        return index == 0 ? QImage(0, 8, QImage::Format_RGB32) : QImage(8, 0, QImage::Format_RGB32);
    };
    const MacWindowCapture capture(QStringLiteral("42"));
    const LogCapture log;
    QRect bounds(1, 2, 3, 4);
    QVERIFY(capture.capture(&bounds).isNull());
    QVERIFY(capture.capture(&bounds).isNull());
    QCOMPARE(bounds, QRect(1, 2, 3, 4));
}

void MacWindowCaptureTest::boundsAreRounded_data()
{
    QTest::addColumn<QRectF>("rect");
    QTest::addColumn<QRect>("expected");
    QTest::newRow("whole") << QRectF(100, 50, 640, 480) << QRect(100, 50, 640, 480);
    QTest::newRow("x -0.5, width 99.5") << QRectF(-0.5, 10, 99.5, 20) << QRect(-1, 10, 100, 20);
    QTest::newRow("x 0.5, height 99.5") << QRectF(0.5, 10, 20, 99.5) << QRect(1, 10, 20, 100);
    QTest::newRow("another display") << QRectF(-1280.4, -720.6, 300.2, 200.7) << QRect(-1280, -721, 300, 201);
}

void MacWindowCaptureTest::boundsAreRounded()
{
    QFETCH(QRectF, rect);
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(8, 6, qRgb(1, 2, 3)); };
    fakeplatform::state().bounds = [rect] { return rect; };
    const MacWindowCapture capture(QStringLiteral("42"));
    QRect bounds;
    QVERIFY(!capture.capture(&bounds).isNull());
    QTEST(bounds, "expected");
}

void MacWindowCaptureTest::unknownBoundsBecomeTheImageRectangle_data()
{
    QTest::addColumn<bool>("known");
    QTest::addColumn<QRectF>("rect");
    QTest::newRow("none told") << false << QRectF();
    QTest::newRow("empty") << true << QRectF(30, 40, 0, 0);
    QTest::newRow("width rounds to nothing") << true << QRectF(30, 40, 0.4, 100);
    QTest::newRow("negative height") << true << QRectF(30, 40, 100, -1);
    QTest::newRow("the null rectangle of the system") << true << QRectF(qInf(), qInf(), 0, 0);
    QTest::newRow("not a number") << true << QRectF(qQNaN(), qQNaN(), qQNaN(), qQNaN());
}

void MacWindowCaptureTest::unknownBoundsBecomeTheImageRectangle()
{
    QFETCH(bool, known);
    QFETCH(QRectF, rect);
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(8, 6, qRgb(1, 2, 3)); };
    fakeplatform::state().bounds = [known, rect] { return known ? std::optional(rect) : std::nullopt; };
    const MacWindowCapture capture(QStringLiteral("42"));
    const LogCapture log;
    QRect bounds(1, 2, 3, 4);
    QCOMPARE(capture.capture(&bounds).size(), QSize(8, 6));
    QCOMPARE(bounds, QRect(0, 0, 8, 6));
    QCOMPARE(log.messages(), QStringList());
}

void MacWindowCaptureTest::boundsAreNotAskedForWithoutAPlaceForThem()
{
    int asked = 0;
    fakeplatform::state().image = [](int) { return fakeplatform::solidImage(8, 6, qRgb(1, 2, 3)); };
    fakeplatform::state().bounds = [&asked] { return ++asked, QRectF(0, 0, 8, 6); };
    const MacWindowCapture capture(QStringLiteral("42"));
    QVERIFY(!capture.capture(nullptr).isNull());
    QCOMPARE(asked, 0);
    QRect bounds;
    QVERIFY(!capture.capture(&bounds).isNull());
    QCOMPARE(asked, 1);
}

void MacWindowCaptureTest::opaqueImageSharesItsPixels()
{
    const QImage source = fakeplatform::solidImage(8, 6, qRgb(10, 200, 30));
    fakeplatform::state().image = [source](int) { return source; };
    const MacWindowCapture capture(QStringLiteral("42"));
    const QImage image = capture.capture(nullptr);
    QCOMPARE(image.format(), QImage::Format_ARGB32);
    QCOMPARE(image.size(), QSize(8, 6));
    QCOMPARE(image.pixel(7, 5), qRgba(10, 200, 30, 255));
    QCOMPARE(image.constBits(), source.constBits());
}

void MacWindowCaptureTest::opaqueImageOutlivesItsSource()
{
    QImage image;
    {
        QImage source = fakeplatform::solidImage(8, 6, qRgb(10, 200, 30));
        fakeplatform::state().image = [&source](int) { return source; };
        const MacWindowCapture capture(QStringLiteral("42"));
        image = capture.capture(nullptr);
        source.fill(Qt::red); // the source takes new pixels; the image keeps the old ones
    }
    fakeplatform::reset();
    QCOMPARE(image, QImage(fakeplatform::solidImage(8, 6, qRgb(10, 200, 30))).convertToFormat(image.format()));
    image.setPixel(0, 0, qRgba(1, 2, 3, 4)); // and may be written to
    QCOMPARE(image.pixel(0, 0), qRgba(1, 2, 3, 4));
}

void MacWindowCaptureTest::translucentImageGetsStraightAlpha()
{
    QImage source(3, 1, QImage::Format_ARGB32_Premultiplied);
    source.setPixel(0, 0, qRgba(0, 0, 0, 0));
    source.setPixel(1, 0, qRgba(255, 0, 0, 255));
    reinterpret_cast<QRgb*>(source.scanLine(0))[2] = qRgba(100, 50, 0, 100); // half-way green under full red
    fakeplatform::state().image = [source](int) { return source; };
    const MacWindowCapture capture(QStringLiteral("42"));
    const QImage image = capture.capture(nullptr);
    QCOMPARE(image.format(), QImage::Format_ARGB32);
    const auto* pixels = reinterpret_cast<const QRgb*>(image.constScanLine(0));
    QCOMPARE(pixels[0], qRgba(0, 0, 0, 0));
    QCOMPARE(pixels[1], qRgba(255, 0, 0, 255));
    QCOMPARE(qAlpha(pixels[2]), 100);
    QCOMPARE(qRed(pixels[2]), 255);
    QVERIFY(qAbs(qGreen(pixels[2]) - 128) <= 1);
    QCOMPARE(qBlue(pixels[2]), 0);
}

void MacWindowCaptureTest::unchangedImageIsSharedNotConverted_data()
{
    QTest::addColumn<QImage::Format>("format");
    QTest::newRow("opaque") << QImage::Format_RGB32;
    QTest::newRow("translucent") << QImage::Format_ARGB32_Premultiplied;
}

void MacWindowCaptureTest::unchangedImageIsSharedNotConverted()
{
    QFETCH(QImage::Format, format);
    const QImage source = fakeplatform::solidImage(8, 6, qRgb(9, 8, 7)).convertToFormat(format);
    fakeplatform::state().image = [source](int) { return source; };
    const MacWindowCapture capture(QStringLiteral("42"));
    const QImage first = capture.capture(nullptr);
    const QImage second = capture.capture(nullptr);
    QCOMPARE(second.constBits(), first.constBits());
    QCOMPARE(second.cacheKey(), first.cacheKey());
    QCOMPARE(second.pixel(3, 3), qRgba(9, 8, 7, 255));
}

void MacWindowCaptureTest::changedImageIsTakenAnew()
{
    QImage source = fakeplatform::solidImage(8, 6, qRgb(0, 0, 0));
    fakeplatform::state().image = [&source](int index) {
        source.fill(qRgb(index, 0, 0)); // the same object, other pixels
        return source;
    };
    const MacWindowCapture capture(QStringLiteral("42"));
    QList<QImage> images;
    for (int i = 0; i < 3; ++i)
        images.append(capture.capture(nullptr));
    for (int i = 0; i < 3; ++i)
        QCOMPARE(images[i].pixel(0, 0), qRgba(i, 0, 0, 255));
}

void MacWindowCaptureTest::imageAfterAGapIsTakenAnew()
{
    const QImage source = fakeplatform::solidImage(8, 6, qRgb(9, 8, 7));
    fakeplatform::state().image = [source](int index) { return index == 1 ? QImage() : source; };
    const MacWindowCapture capture(QStringLiteral("42"));
    const LogCapture log;
    QVERIFY(!capture.capture(nullptr).isNull());
    QVERIFY(capture.capture(nullptr).isNull());
    QCOMPARE(capture.capture(nullptr).pixel(0, 0), qRgba(9, 8, 7, 255));
}

void MacWindowCaptureTest::pointerLocation()
{
    fakeplatform::state().pointer = [] { return QPointF(-3.5, 1200.25); };
    const MacWindowCapture capture(QStringLiteral("42"));
    QCOMPARE(capture.pointerLocation(), std::optional(QPointF(-3.5, 1200.25)));
    fakeplatform::state().pointer = nullptr;
    QVERIFY(!capture.pointerLocation());
}

QTEST_GUILESS_MAIN(MacWindowCaptureTest)
#include "macwindowcapture_test.moc"
