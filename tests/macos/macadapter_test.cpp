// What the seam allows and RecorderAudioCapture does not do.
#include "macbench.h"
#include "platform/audio.h"
#include "platform/screen.h"

using macsim::answers;

namespace {

const platform::AudioStreamConfiguration configuration{.width = 2, .height = 2, .capturesAudio = true};

/// A receiver that takes nothing.
platform::AudioReceiver nobody()
{
    return {[](const platform::AudioSampleBuffer*) {}, [](const std::optional<QString>&) {}};
}

std::shared_ptr<const platform::AudioContent> content()
{
    answers().content = macsim::When::AtOnce;
    answers().applications = {{7, "org.seven", "Seven", macsim::Executable::Known, "/seven"}};
    std::shared_ptr<const platform::AudioContent> found;
    platform::requestAudioContent(
        true, false, [&found](std::shared_ptr<const platform::AudioContent> given, const std::optional<QString>&) {
            found = std::move(given);
        });
    return found;
}

/// What became of a call with a completion.
struct Answer {
    int calls = 0;
    std::optional<QString> error;

    platform::AudioCompletion completion()
    {
        return [this](std::optional<QString> given) {
            ++calls;
            error = std::move(given);
        };
    }
};

} // namespace

class MacAdapterTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void streamWithoutParts_data();
    void streamWithoutParts();
    void applicationsThatAreNotThere();
    void contentOutlivesItsRequest();
    void streamThatWasNeverStarted();
    void streamThatRunsIsStoppedAtItsEnd();
    void stopWhileAStartIsPending_data();
    void stopWhileAStartIsPending();
    void lateAnswerToAStop();
    void outputMayGoFirst();
    void samplesOutliveTheDelivery();
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

void MacAdapterTest::streamWithoutParts_data()
{
    QTest::addColumn<QString>("what");
    QTest::newRow("no content") << "content";
    QTest::newRow("content of nobody") << "native";
    QTest::newRow("no such display") << "display";
    QTest::newRow("no stream") << "stream";
}

void MacAdapterTest::streamWithoutParts()
{
    QFETCH(const QString, what);
    platform::AudioFilter filter{content(), 0, std::nullopt};
    if (what == QLatin1String("content"))
        filter.content.reset();
    else if (what == QLatin1String("native"))
        filter.content = std::make_shared<platform::AudioContent>();
    else if (what == QLatin1String("display"))
        filter.display = 1;
    answers().noStream = what == QLatin1String("stream");

    platform::AudioOutput output(nobody());
    platform::AudioQueue queue("queue");
    platform::AudioStream stream(filter, configuration, output);
    std::optional<QString> error;
    QVERIFY(!stream.addStreamOutput(output, queue, &error));
    QVERIFY(!error);
    Answer start;
    stream.startCapture(start.completion());
    QCOMPARE(start.calls, 1);
    QCOMPARE(start.error, std::optional<QString>(QString()));
    Answer stop;
    stream.stopCapture(stop.completion());
    QCOMPARE(stop.calls, 1);
    QCOMPARE(stop.error, std::optional<QString>(QString()));
    QCOMPARE(macsim::record().starts + macsim::record().stops, 0);
}

void MacAdapterTest::applicationsThatAreNotThere()
{
    platform::AudioOutput output(nobody());
    const platform::AudioStream stream({content(), 0, std::vector<std::size_t>{5, 0, 1}}, configuration, output);
    QCOMPARE(macsim::record().streams.size(), 1U);
    QVERIFY((macsim::record().streams[0].excludedApplications == std::vector<std::int32_t>{7}));
}

void MacAdapterTest::contentOutlivesItsRequest()
{
    auto kept = content();
    QVERIFY(kept);
    macsim::settle();
    QCOMPARE(macsim::live("SCShareableContent"), 1);
    platform::AudioOutput output(nobody());
    {
        const platform::AudioStream stream({kept, 0, std::nullopt}, configuration, output);
        kept.reset();
        QCOMPARE(macsim::record().streams.size(), 1U);
    }
    QCOMPARE(macsim::live("SCShareableContent"), 0);
}

void MacAdapterTest::streamThatWasNeverStarted()
{
    platform::AudioOutput output(nobody());
    platform::AudioQueue queue("queue");
    {
        platform::AudioStream stream({content(), 0, std::nullopt}, configuration, output);
        std::optional<QString> error;
        QVERIFY(stream.addStreamOutput(output, queue, &error));
        stream.deliverUntil(1);
    }
    QCOMPARE(macsim::record().stops, 0);
}

void MacAdapterTest::streamThatRunsIsStoppedAtItsEnd()
{
    answers().start = macsim::When::AtOnce;
    platform::AudioOutput output(nobody());
    platform::AudioQueue queue("queue");
    {
        platform::AudioStream stream({content(), 0, std::nullopt}, configuration, output);
        std::optional<QString> error;
        QVERIFY(stream.addStreamOutput(output, queue, &error));
        Answer start;
        stream.startCapture(start.completion());
        QCOMPARE(start.calls, 1);
        QVERIFY(!start.error);
        QCOMPARE(macsim::runningStreams(), 1);
    }
    macsim::settle();
    QCOMPARE(macsim::record().stops, 1);
    QCOMPARE(macsim::runningStreams(), 0);
}

void MacAdapterTest::stopWhileAStartIsPending_data()
{
    QTest::addColumn<bool>("destroyed");
    QTest::newRow("the stream is there when they answer") << false;
    QTest::newRow("the stream is gone when they answer") << true;
}

void MacAdapterTest::stopWhileAStartIsPending()
{
    QFETCH(const bool, destroyed);
    answers().start = macsim::When::Held;
    answers().stop = macsim::When::Held;
    platform::AudioOutput output(nobody());
    platform::AudioQueue queue("queue");
    auto stream = std::make_unique<platform::AudioStream>(
        platform::AudioFilter{content(), 0, std::nullopt}, configuration, output);
    std::optional<QString> error;
    QVERIFY(stream->addStreamOutput(output, queue, &error));
    Answer start;
    Answer stop;
    stream->startCapture(start.completion());
    stream->stopCapture(stop.completion());
    if (destroyed)
        stream.reset();
    QVERIFY(macsim::answerHeld(macsim::Call::Start));
    QVERIFY(macsim::answerHeld(macsim::Call::Stop));
    QCOMPARE(start.calls, 1);
    QCOMPARE(stop.calls, 1);
    stream.reset();
    QCOMPARE(macsim::record().stops, 1);
}

void MacAdapterTest::lateAnswerToAStop()
{
    answers().start = macsim::When::AtOnce;
    answers().stop = macsim::When::Held;
    platform::AudioOutput output(nobody());
    platform::AudioQueue queue("queue");
    {
        platform::AudioStream stream({content(), 0, std::nullopt}, configuration, output);
        std::optional<QString> error;
        QVERIFY(stream.addStreamOutput(output, queue, &error));
        Answer start;
        Answer stop;
        stream.startCapture(start.completion());
        stream.stopCapture(stop.completion());
        stream.startCapture(start.completion());
        QVERIFY(macsim::answerHeld(macsim::Call::Stop));
        QCOMPARE(start.calls, 2);
        QCOMPARE(stop.calls, 1);
        QCOMPARE(macsim::record().stops, 1);
        answers().stop = macsim::When::AtOnce;
    }
    QCOMPARE(macsim::record().stops, 2); // the second capture's
}

void MacAdapterTest::outputMayGoFirst()
{
    answers().start = macsim::When::AtOnce;
    int called = 0;
    auto output = std::make_unique<platform::AudioOutput>(
        platform::AudioReceiver{[&called](const platform::AudioSampleBuffer*) { ++called; },
            [&called](const std::optional<QString>&) { ++called; }});
    platform::AudioQueue queue("queue");
    platform::AudioStream stream({content(), 0, std::nullopt}, configuration, *output);
    std::optional<QString> error;
    QVERIFY(stream.addStreamOutput(*output, queue, &error));
    Answer start;
    stream.startCapture(start.completion());
    output.reset();
    QVERIFY(macsim::deliver(macsim::stereoSound({1, 2})));
    QVERIFY(macsim::endStreams(macsim::Error("gone")));
    QCOMPARE(called, 0);
}

void MacAdapterTest::samplesOutliveTheDelivery()
{
    answers().start = macsim::When::AtOnce;
    std::optional<platform::AudioBufferList> kept;
    platform::AudioOutput output({[&kept](const platform::AudioSampleBuffer* buffer) { kept = buffer->bufferList(); },
        [](const std::optional<QString>&) {}});
    platform::AudioQueue queue("queue");
    platform::AudioStream stream({content(), 0, std::nullopt}, configuration, output);
    std::optional<QString> error;
    QVERIFY(stream.addStreamOutput(output, queue, &error));
    Answer start;
    stream.startCapture(start.completion());
    QVERIFY(macsim::deliver(macsim::stereoSound({11, 12})));
    QVERIFY(kept);
    QCOMPARE(kept->buffers.size(), 1U);
    QCOMPARE(kept->buffers[0].bytes, 4U);
    QCOMPARE(static_cast<const qint16*>(kept->buffers[0].data)[1], qint16(12));
    QCOMPARE(macsim::live("SimBlockBuffer"), 1);
    kept.reset();
    QCOMPARE(macsim::live("SimBlockBuffer"), 0);
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
    answers().picture
        = [](std::uint32_t id, int) { return std::optional(macsim::solidPicture(2, 2, 0xff000000U + id)); };
    platform::WindowSource one(1);
    platform::WindowSource two(2);
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
    platform::WindowSource window(1);
    QCOMPARE(window.bounds(), std::optional<QRectF>(QRectF(10, 20, 40, 30)));
    answers().windowInfo = macsim::WindowInfo(info);
    QVERIFY(!window.bounds());
}

QTEST_GUILESS_MAIN(MacAdapterTest)
#include "macadapter_test.moc"
