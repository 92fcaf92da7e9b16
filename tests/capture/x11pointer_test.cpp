// Where the pointer is.
#include "testregistry.h"
#include "x11fixture.h"

#include <QTest>

using WindowSource = SampledWindow;

class X11PointerTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void pointerIsInRootCoordinates();
    void pointerOnAnotherScreenIsNowhere();
    void pointerComesWithAnImage();
};

void X11PointerTest::pointerIsInRootCoordinates()
{
    DisplayForTest display;
    WindowProcess window;
    QVERIFY2(window.id(), qPrintable(window.errorString()));
    WindowSource source(window.id());
    for (const QPoint place : {QPoint(0, 0), QPoint(150, 100), QPoint(1023, 767)}) {
        QVERIFY(window.send("warp 0 " + QByteArray::number(place.x()) + ' ' + QByteArray::number(place.y())));
        QCOMPARE(source.pointerLocation(), QPointF(place));
    }
}

void X11PointerTest::pointerOnAnotherScreenIsNowhere()
{
    DisplayForTest display(
        QSize(640, 480), 24, {QStringLiteral("-screen"), QStringLiteral("1"), QStringLiteral("640x480x24")});
    WindowProcess window;
    QVERIFY2(window.id(), qPrintable(window.errorString()));
    WindowSource source(window.id());
    QVERIFY(window.send("warp 0 20 30"));
    QCOMPARE(source.pointerLocation(), QPointF(20, 30));
    QVERIFY(window.send("warp 1 40 50"));
    QCOMPARE(source.pointerLocation(), std::nullopt);
    QVERIFY(window.send("warp 0 60 70"));
    QCOMPARE(source.pointerLocation(), QPointF(60, 70));
}

void X11PointerTest::pointerComesWithAnImage()
{
    DisplayForTest display;
    WindowProcess window({.mapped = false});
    WindowSource source(window.id());
    QVERIFY(window.send("warp 0 11 12"));
    QVERIFY(source.image().isNull());
    QCOMPARE(source.pointerLocation(), std::nullopt);
}

ORVANTIS_TEST(X11PointerTest)
#include "x11pointer_test.moc"
