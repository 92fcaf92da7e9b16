// The contact sheet: which frames it shows, where, and with which times.
#include "contactsheet.h"

#include "clipwriter.h"
#include "privatetempdir.h"
#include "smalldigits.h"
#include "testregistry.h"

#include <QColor>
#include <QFile>
#include <QTest>

#include <cmath>

namespace {

constexpr int gap = 8; // pixels between the cells
const QSize size(160, 120);

}

class ContactSheetTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void framesAreSpreadOverTheRecording();
    void shortRecording_data();
    void shortRecording();
    void largeFramesAreMadeSmaller();
    void timesAreReadable();
    void badInput();

private:
    QString path(const char* name = "clip.mp4") const { return directory_.filePath(QLatin1String(name)); }
    /// The green of each frame tells its number.
    bool write(int frames, QSize of = size) const;
    static int greenOf(const QImage& sheet, int cell, QSize cellSize = size)
    {
        const QPoint place(gap + cell % 4 * (cellSize.width() + gap), gap + cell / 4 * (cellSize.height() + gap));
        return qGreen(sheet.pixel(place + QPoint(cellSize.width() / 2, cellSize.height() / 3)));
    }

    PrivateTempDir directory_;
};

bool ContactSheetTest::write(int frames, QSize of) const
{
    ClipWriter writer(path(), of);
    QImage frame(of, QImage::Format_RGB32);
    bool written = true;
    for (int i = 0; i < frames; ++i) {
        frame.fill(QColor(40, 20 + i * 2, 60));
        written = written && writer.add(frame, i * 41);
    }
    return writer.finish() && written;
}

void ContactSheetTest::framesAreSpreadOverTheRecording()
{
    QVERIFY(write(100));
    const ContactSheet sheet = drawContactSheet(path());
    QCOMPARE(sheet.error, QString());
    QCOMPARE(sheet.image.size(), QSize(gap + 4 * (size.width() + gap), gap + 3 * (size.height() + gap)));
    for (int cell = 0; cell < 12; ++cell) {
        const int frame = 99 * cell / 11; // the last one that is not after its time
        const int found = greenOf(sheet.image, cell);
        QVERIFY2(std::abs(found - (20 + frame * 2)) <= 4, qPrintable(QStringLiteral("%1: %2").arg(cell).arg(found)));
    }
}

void ContactSheetTest::shortRecording_data()
{
    QTest::addColumn<int>("frames");
    QTest::addColumn<QSize>("cells");
    QTest::newRow("one frame") << 1 << QSize(1, 1);
    QTest::newRow("three frames") << 3 << QSize(3, 1);
    QTest::newRow("five frames") << 5 << QSize(4, 2);
}

void ContactSheetTest::shortRecording()
{
    QFETCH(const int, frames);
    QFETCH(const QSize, cells);
    QVERIFY(write(frames));
    const ContactSheet sheet = drawContactSheet(path());
    QCOMPARE(sheet.image.size(),
        QSize(gap + cells.width() * (size.width() + gap), gap + cells.height() * (size.height() + gap)));
}

void ContactSheetTest::largeFramesAreMadeSmaller()
{
    QVERIFY(write(2, QSize(600, 1200)));
    const ContactSheet sheet = drawContactSheet(path());
    QCOMPARE(sheet.image.size(), QSize(gap + 2 * (240 + gap), gap + 480 + gap));
    QVERIFY(std::abs(greenOf(sheet.image, 0, QSize(240, 480)) - 20) <= 4);
}

/// The label of a frame, dot by dot.
void ContactSheetTest::timesAreReadable()
{
    QVERIFY(write(100));
    const QImage sheet = drawContactSheet(path()).image;
    const auto labelOf = [&](int cell) {
        const QPoint corner(
            gap + cell % 4 * (size.width() + gap), gap + (cell / 4 + 1) * (size.height() + gap) - gap - 22);
        return sheet.copy(QRect(corner + QPoint(4, 4), QSize(smalldigits::textWidth("00:00.000") * 2, 14)));
    };
    const auto expected = [](const QString& text) {
        QImage image(smalldigits::textWidth(text) * 2, 14, QImage::Format_RGB32);
        image.fill(Qt::black);
        QPainter painter(&image);
        smalldigits::draw(painter, QPoint(), 2, Qt::white, text);
        return image;
    };
    const auto isThere = [](const QImage& label, const QImage& dots) {
        for (int y = 0; y < dots.height(); ++y) {
            for (int x = 0; x < dots.width(); ++x) {
                if ((qRed(label.pixel(x, y)) > 200) != (qRed(dots.pixel(x, y)) > 200))
                    return false;
            }
        }
        return label.size() == dots.size();
    };
    QVERIFY(isThere(labelOf(0), expected("00:00.000")));
    QVERIFY(isThere(labelOf(1), expected("00:00.369")));
    QVERIFY(isThere(labelOf(11), expected("00:04.059")));
    QVERIFY(!isThere(labelOf(11), expected("00:04.058")));
}

void ContactSheetTest::badInput()
{
    QFile file(path("bad.mp4"));
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(QByteArray(999, 'x')) == 999 && file.flush());
    const ContactSheet sheet = drawContactSheet(file.fileName());
    QVERIFY(sheet.image.isNull());
    QVERIFY2(sheet.error.startsWith("cannot read "), qPrintable(sheet.error));
}

ORVANTIS_TEST(ContactSheetTest)
#include "contactsheet_test.moc"
