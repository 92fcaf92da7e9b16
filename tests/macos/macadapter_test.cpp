// What the seam allows and the capture does not do. The life of an audio stream is in macstream_test.
#include "macrig.h"
#include "sampledwindow.h"
#include "testregistry.h"

using macsim::answers;

class MacAdapterTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void samplesOutliveTheDelivery();
    void listOfAnotherLength_data();
    void listOfAnotherLength();
    void semaphoreCounts();
    void executableOfAHugeProcessId();
    void imagesOfTwoWindows();
    void boundsThatCannotBeTold_data();
    void boundsThatCannotBeTold();

private:
    std::optional<MacBench> bench_;
};

void MacAdapterTest::init()
{
    bench_.emplace();
}

void MacAdapterTest::cleanup()
{
    MAC_IS_CLEAN();
    bench_.reset();
}

void MacAdapterTest::samplesOutliveTheDelivery()
{
    answers().start = macsim::When::AtOnce;
    std::optional<platform::AudioBufferList> kept;
    Rig rig({[&kept](const platform::AudioSampleBuffer* buffer) { kept = buffer->bufferList(); },
        [](const std::optional<QString>&) {}});
    rig.startCapture();
    QVERIFY(macsim::deliver(macsim::stereoAudio({11, 12})));
    QVERIFY(kept);
    QCOMPARE(kept->buffers.size(), 1U);
    QCOMPARE(kept->buffers[0].bytes, 4U);
    QCOMPARE(static_cast<const qint16*>(kept->buffers[0].data)[1], qint16(12));
    QCOMPARE(macsim::live("SimBlockBuffer"), 1);
    kept.reset();
    QCOMPARE(macsim::live("SimBlockBuffer"), 0);
}

void MacAdapterTest::listOfAnotherLength_data()
{
    QTest::addColumn<quint32>("claimed");
    QTest::addColumn<quint64>("usable");
    QTest::newRow("fewer buffers than there is room for") << 1U << quint64(1);
    QTest::newRow("more buffers than there is room for") << 3U << quint64(2);
}

void MacAdapterTest::listOfAnotherLength()
{
    QFETCH(const quint32, claimed);
    QFETCH(const quint64, usable);
    answers().start = macsim::When::AtOnce;
    std::optional<platform::AudioBufferList> list;
    Rig rig({[&list](const platform::AudioSampleBuffer* buffer) { list = buffer->bufferList(); },
        [](const std::optional<QString>&) {}});
    rig.startCapture();
    macsim::Audio two = macsim::stereoAudio({1, 2});
    two.buffers = {{1, 0}, {2, 0, 3, 0}};
    two.claimedBuffers = claimed;
    QVERIFY(macsim::deliver(two));
    QVERIFY(list);
    QCOMPARE(quint64(list->buffers.size()), usable);
    for (std::size_t i = 0; i < usable; ++i)
        QCOMPARE(list->buffers[i].bytes, two.buffers[i].size());
}

void MacAdapterTest::semaphoreCounts()
{
    platform::Semaphore semaphore;
    semaphore.signal();
    semaphore.signal();
    QVERIFY(semaphore.wait(1));
    QVERIFY(semaphore.wait(1));
    QVERIFY(!semaphore.wait(1000));
    QCOMPARE(macsim::record().waits, (std::vector<std::int64_t>{1, 1, 1000}));
}

void MacAdapterTest::executableOfAHugeProcessId()
{
    answers().applications = {{42, std::nullopt, std::nullopt, macsim::Executable::Known, "/forty-two"}};
    QCOMPARE(platform::executablePath(42), QStringLiteral("/forty-two"));
    QCOMPARE(platform::executablePath((qint64(1) << 32) + 42), QString());
    QCOMPARE(macsim::record().executablesAsked, std::vector<std::int32_t>{42});
}

void MacAdapterTest::imagesOfTwoWindows()
{
    answers().image = [](std::uint32_t id, int) { return std::optional(macsim::solidImage(2, 2, 0xff000000U + id)); };
    SampledWindow one(1);
    SampledWindow two(2);
    QCOMPARE(one.image().pixel(0, 0), 0xff000001U);
    QCOMPARE(two.image().pixel(1, 1), 0xff000002U);
    QCOMPARE(one.image().format(), QImage::Format_ARGB32_Premultiplied);
}

void MacAdapterTest::boundsThatCannotBeTold_data()
{
    using macsim::WindowInfo;
    QTest::addColumn<int>("info");
    QTest::newRow("no array") << int(WindowInfo::NoArray);
    QTest::newRow("empty array") << int(WindowInfo::EmptyArray);
    QTest::newRow("null element") << int(WindowInfo::NullElement);
    QTest::newRow("no bounds") << int(WindowInfo::NoBounds);
    QTest::newRow("malformed bounds") << int(WindowInfo::MalformedBounds);
}

void MacAdapterTest::boundsThatCannotBeTold()
{
    QFETCH(const int, info);
    answers().image = [](std::uint32_t, int) { return std::optional(macsim::solidImage(2, 2, 0xff0000ffU)); };
    SampledWindow window(1);
    QVERIFY(!window.image().isNull());
    QCOMPARE(window.bounds(), std::optional<QRectF>(QRectF(10, 20, 40, 30)));
    answers().windowInfo = macsim::WindowInfo(info);
    QVERIFY(!window.image().isNull());
    QVERIFY(!window.bounds());
}

ORVANTIS_TEST(MacAdapterTest)
#include "macadapter_test.moc"
