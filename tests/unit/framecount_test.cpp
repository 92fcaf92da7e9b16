// The number of frames that record-window reads from a file that is still being written.
#include "framecount.h"

#include "clipwriter.h"
#include "privatetempdir.h"
#include "testregistry.h"

#include <QFile>
#include <QTest>

#include <vector>

class FrameCountTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void growingFile();
    void otherFiles();

private:
    PrivateTempDir directory_;
};

void FrameCountTest::growingFile()
{
    constexpr int frames = 74;
    const QString whole = directory_.filePath("whole.mp4");
    QImage image(64, 48, QImage::Format_RGB32);
    image.fill(Qt::red);
    ClipOptions options;
    options.withAudio = true;
    ClipWriter writer(whole, image.size(), options);
    for (int i = 0; i < frames; ++i)
        QVERIFY(writer.add(image, i * 41));
    QVERIFY(writer.addAudio(std::vector<float>(48 * 3000)));
    QVERIFY2(writer.finish(), qPrintable(writer.errorString()));

    QFile source(whole);
    QVERIFY(source.open(QIODevice::ReadOnly));
    QFile growing(directory_.filePath("growing.mp4"));
    QVERIFY(growing.open(QIODevice::WriteOnly));
    FrameCount count;
    qint64 before = count.update(growing.fileName());
    QCOMPARE(before, -1);
    bool wasBetween = false;
    constexpr qint64 step = 500; // bytes: never at the end of a box
    while (!source.atEnd()) {
        QVERIFY(growing.write(source.read(step)) > 0 && growing.flush());
        const qint64 now = count.update(growing.fileName());
        QVERIFY(now >= before);
        wasBetween = wasBetween || (now > 0 && now < frames);
        before = now;
    }
    QVERIFY(wasBetween);
    QCOMPARE(before, frames);
}

void FrameCountTest::otherFiles()
{
    QFile file(directory_.filePath("other"));
    QVERIFY(file.open(QIODevice::WriteOnly));
    for (const QByteArray& content : {QByteArray("\x1a\x45\xdf\xa3 Matroska"), QByteArray(100, '\0'),
             QByteArray("\0\0\0\x10moof\0\0\0\x08traf", 16)}) {
        QVERIFY(file.resize(0) && file.seek(0) && file.write(content) == content.size() && file.flush());
        QCOMPARE(FrameCount().update(file.fileName()), -1);
    }
    QCOMPARE(FrameCount().update("/no/such/file"), -1);
}

ORVANTIS_TEST(FrameCountTest)
#include "framecount_test.moc"
