// What a truth window shows that presents the whole of its image again and again.
#include "testregistry.h"
#include "truthscene.h"

#include <QTest>

#include <vector>

namespace {

/// How many pixels differ inside of the area, and outside of it.
struct Differences {
    qsizetype inside = 0;
    qsizetype outside = 0;
};

Differences differences(const QImage& one, const QImage& other, const QRect& area)
{
    Differences found;
    for (int y = 0; y < one.height(); ++y) {
        for (int x = 0; x < one.width(); ++x) {
            if (one.pixel(x, y) != other.pixel(x, y))
                ++(area.contains(x, y) ? found.inside : found.outside);
        }
    }
    return found;
}

QImage phase(QSize window, const QRect& area, int number)
{
    QImage image = truthscene::paintStill(window);
    truthscene::paintPhase(image, area, number);
    return image;
}

}

class TruthSceneTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyPixelOfAChangingAreaDiffersInAnyTwoPhases_data();
    void everyPixelOfAChangingAreaDiffersInAnyTwoPhases();
    void anUnchangedWindowIsNotPaintedOver();
    void squaresTellThePhase();
    void namesOfWhatChanges();
};

void TruthSceneTest::everyPixelOfAChangingAreaDiffersInAnyTwoPhases_data()
{
    QTest::addColumn<QSize>("window");
    QTest::addColumn<int>("presented");
    QTest::addColumn<QRect>("area");
    QTest::newRow("quarter") << QSize(1280, 720) << int(truthscene::Presented::Quarter) << QRect(0, 0, 1280, 180);
    QTest::newRow("all") << QSize(640, 360) << int(truthscene::Presented::All) << QRect(0, 0, 640, 360);
    QTest::newRow("odd") << QSize(643, 361) << int(truthscene::Presented::All) << QRect(0, 0, 643, 361);
}

void TruthSceneTest::everyPixelOfAChangingAreaDiffersInAnyTwoPhases()
{
    QFETCH(const QSize, window);
    QFETCH(const int, presented);
    QFETCH(const QRect, area);
    QCOMPARE(truthscene::changingArea(window, truthscene::Presented(presented)), area);
    std::vector<QImage> phases;
    for (int i = 0; i < truthscene::phaseCount; ++i)
        phases.push_back(phase(window, area, i));
    for (std::size_t i = 0; i < phases.size(); ++i) {
        for (std::size_t j = 0; j < i; ++j) {
            const Differences found = differences(phases[i], phases[j], area);
            QCOMPARE(found.inside, qsizetype(area.width()) * area.height());
            QCOMPARE(found.outside, qsizetype(0));
        }
    }
}

void TruthSceneTest::anUnchangedWindowIsNotPaintedOver()
{
    const QSize window(640, 360);
    const QRect area = truthscene::changingArea(window, truthscene::Presented::Unchanged);
    QVERIFY(area.isEmpty());
    QCOMPARE(phase(window, area, 3), truthscene::paintStill(window));
}

void TruthSceneTest::squaresTellThePhase()
{
    const QSize window(1280, 720);
    const QRect area = truthscene::changingArea(window, truthscene::Presented::Quarter);
    const int side = truthscene::phaseSquare(area);
    QCOMPARE(side, 45);
    const QImage image = phase(window, area, 5);
    for (const QRect& square : {QRect(0, 0, side, side), QRect(1280 - side, 180 - side, side, side)}) {
        QImage grey(square.size(), image.format());
        grey.fill(qRgb(176, 176, 176));
        QCOMPARE(image.copy(square), grey);
    }
}

void TruthSceneTest::namesOfWhatChanges()
{
    QCOMPARE(truthscene::presented(u"unchanged"), truthscene::Presented::Unchanged);
    QCOMPARE(truthscene::presented(u"quarter"), truthscene::Presented::Quarter);
    QCOMPARE(truthscene::presented(u"all"), truthscene::Presented::All);
    QVERIFY(!truthscene::presented(u"half"));
    QVERIFY(!truthscene::presented(u""));
}

ORVANTIS_TEST(TruthSceneTest)
#include "truthscene_test.moc"
