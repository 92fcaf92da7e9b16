// What the seam allows and the capture does not do. The life of an audio stream is in macstream_test.
#include "macrig.h"
#include "platform/memory.h"
#include "sampledwindow.h"
#include "testregistry.h"

using macsim::answers;

class MacAdapterTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void samplesOutliveTheDelivery();
    void missingBlockIsHandedOnAsOne();
    void semaphoreCounts();
    void executableOfAHugeProcessId();
    void imagesOfTwoWindows();
    void memoryIsSeenAtTwoAddresses();
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
    QVERIFY(macsim::deliver(macsim::stereoAudio(std::vector<std::int16_t>(2 * 960, 12))));
    QCOMPARE(macsim::live("SimBlockBuffer"), 0);
    rig.read();
    QVERIFY(kept);
    QCOMPARE(kept->buffers.size(), 1U);
    const auto* samples = static_cast<const qint16*>(kept->buffers[0].data);
    QVERIFY(std::find(samples, samples + kept->buffers[0].bytes / 2, 12) != samples + kept->buffers[0].bytes / 2);
}

void MacAdapterTest::missingBlockIsHandedOnAsOne()
{
    answers().start = macsim::When::AtOnce;
    std::vector<bool> isThere;
    Rig rig({[&isThere](const platform::AudioSampleBuffer* buffer) { isThere.push_back(buffer != nullptr); },
        [](const std::optional<QString>&) {}});
    rig.startCapture();
    macsim::Audio unusable;
    unusable.null = true;
    QVERIFY(macsim::deliver(unusable));
    unusable.null = false;
    unusable.valid = false;
    QVERIFY(macsim::deliver(unusable));
    QVERIFY((isThere == std::vector<bool>{false, true}));
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

void MacAdapterTest::memoryIsSeenAtTwoAddresses()
{
    constexpr std::size_t piece = 64 * 1024;
    uchar* const memory = platform::takeMemory(2 * piece);
    uchar* const addresses = platform::reserveAddresses(piece);
    QVERIFY(memory && addresses);
    QVERIFY(platform::prepareMemory(memory, piece));
    QVERIFY(platform::mapAgain(memory + piece, addresses, piece));
    memory[piece] = 17;
    QCOMPARE(addresses[0], uchar(17));
    platform::emptyMemory(memory, piece); // the other one stays
    memory[0] = 4;
    QCOMPARE(memory[0], uchar(4));
    QCOMPARE(addresses[0], uchar(17));
    platform::freeMemory(memory, 2 * piece);
    QCOMPARE(addresses[0], uchar(17));
    platform::freeMemory(addresses, piece);
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
