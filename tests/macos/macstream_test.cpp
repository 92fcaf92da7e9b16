// Streams of audio at the seam: values that RecorderAudioCapture does not use, calls in an order that it does not
// make, and the end of each object.
#include "macrig.h"
#include "testregistry.h"

#include <atomic>
#include <future>
#include <new>

using macsim::answers;

namespace {

/// A receiver that counts its calls.
platform::AudioReceiver counter(int* calls)
{
    return {[calls](const platform::AudioSampleBuffer*) { ++*calls; },
        [calls](const std::optional<QString>&) { ++*calls; }};
}

}

class MacStreamTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void streamWithoutParts_data();
    void streamWithoutParts();
    void configurationIsHandedOn_data();
    void configurationIsHandedOn();
    void applicationsThatAreNotThere();
    void contentOutlivesItsRequest();
    void streamThatWasNeverStarted();
    void streamThatRunsIsStoppedAtItsEnd();
    void stopWhileAStartIsPending_data();
    void stopWhileAStartIsPending();
    void lateAnswerToAStop();
    void startAfterAStopWithoutAnswer();
    void outputMayGoFirst();
    void delegateThatIsNotTheOutput();
    void destructionWaitsForTheDelegate();
    void exceptionsStayOutOfTheSystem();

private:
    std::optional<MacBench> bench_;
};

void MacStreamTest::init()
{
    bench_.emplace();
}

void MacStreamTest::cleanup()
{
    MAC_IS_CLEAN();
    bench_.reset();
}

// ---- what a stream is made of -----------------------------------------------------------------------------------

void MacStreamTest::streamWithoutParts_data()
{
    QTest::addColumn<QString>("what");
    QTest::newRow("no content") << "content";
    QTest::newRow("content of nobody") << "native";
    QTest::newRow("no such display") << "display";
    QTest::newRow("no stream") << "stream";
}

void MacStreamTest::streamWithoutParts()
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
    platform::AudioStream stream(filter, audioOnly, output);
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

void MacStreamTest::configurationIsHandedOn_data()
{
    QTest::addColumn<bool>("cursor");
    QTest::addColumn<bool>("audio");
    QTest::addColumn<bool>("withoutOwn");
    QTest::newRow("with the pointer") << true << false << false;
    QTest::newRow("with the audio") << false << true << false;
    QTest::newRow("without the own audio") << false << false << true;
}

void MacStreamTest::configurationIsHandedOn()
{
    QFETCH(const bool, cursor);
    QFETCH(const bool, audio);
    QFETCH(const bool, withoutOwn);
    answers().displays = 4;
    platform::AudioOutput output(nobody());
    const platform::AudioStream stream({content(), 2, std::nullopt},
        {.width = 3,
            .height = 5,
            .minimumFrameIntervalNumerator = 7,
            .minimumFrameIntervalDenominator = 11,
            .queueDepth = 6,
            .showsCursor = cursor,
            .capturesAudio = audio,
            .sampleRate = 44100,
            .channelCount = 8,
            .excludesCurrentProcessAudio = withoutOwn},
        output);
    const macsim::Record record = macsim::record();
    QCOMPARE(record.streams.size(), 1U);
    const macsim::StreamMade& made = record.streams[0];
    QCOMPARE(made.display, 2);
    QCOMPARE(made.width, 3U);
    QCOMPARE(made.height, 5U);
    QCOMPARE(made.intervalValue, 7);
    QCOMPARE(made.intervalScale, 11);
    QCOMPARE(made.queueDepth, 6L);
    QCOMPARE(made.showsCursor, cursor);
    QCOMPARE(made.capturesAudio, audio);
    QCOMPARE(made.sampleRate, 44100L);
    QCOMPARE(made.channelCount, 8L);
    QCOMPARE(made.excludesCurrentProcessAudio, withoutOwn);
}

void MacStreamTest::applicationsThatAreNotThere()
{
    platform::AudioOutput output(nobody());
    const platform::AudioStream stream({content(), 0, std::vector<std::size_t>{5, 0, 1}}, audioOnly, output);
    QCOMPARE(macsim::record().streams.size(), 1U);
    QVERIFY((macsim::record().streams[0].excludedApplications == std::vector<std::int32_t>{7}));
}

void MacStreamTest::contentOutlivesItsRequest()
{
    auto kept = content();
    QVERIFY(kept);
    macsim::settle();
    QCOMPARE(macsim::live("SCShareableContent"), 1);
    platform::AudioOutput output(nobody());
    {
        const platform::AudioStream stream({kept, 0, std::nullopt}, audioOnly, output);
        kept.reset();
        QCOMPARE(macsim::record().streams.size(), 1U);
    }
    QCOMPARE(macsim::live("SCShareableContent"), 0);
}

// ---- start and stop ---------------------------------------------------------------------------------------------

void MacStreamTest::streamThatWasNeverStarted()
{
    {
        const Rig rig;
        rig.stream->deliverUntil(1);
    }
    QCOMPARE(macsim::record().stops, 0);
}

void MacStreamTest::streamThatRunsIsStoppedAtItsEnd()
{
    answers().start = macsim::When::AtOnce;
    {
        Rig rig;
        rig.startCapture();
        QCOMPARE(rig.start.calls, 1);
        QVERIFY(!rig.start.error);
        QCOMPARE(macsim::runningStreams(), 1);
    }
    macsim::settle();
    QCOMPARE(macsim::record().stops, 1);
    QCOMPARE(macsim::runningStreams(), 0);
}

void MacStreamTest::stopWhileAStartIsPending_data()
{
    QTest::addColumn<bool>("destroyed");
    QTest::newRow("the stream is there when they answer") << false;
    QTest::newRow("the stream is gone when they answer") << true;
}

void MacStreamTest::stopWhileAStartIsPending()
{
    QFETCH(const bool, destroyed);
    answers().start = macsim::When::Held;
    answers().stop = macsim::When::Held;
    Rig rig;
    rig.startCapture();
    rig.stopCapture();
    if (destroyed)
        rig.stream.reset();
    QVERIFY(macsim::answerHeld(macsim::Call::Start));
    QVERIFY(macsim::answerHeld(macsim::Call::Stop));
    QCOMPARE(rig.start.calls, 1);
    QCOMPARE(rig.stop.calls, 1);
    rig.stream.reset();
    QCOMPARE(macsim::record().stops, 1);
}

void MacStreamTest::lateAnswerToAStop()
{
    answers().start = macsim::When::AtOnce;
    answers().stop = macsim::When::Held;
    Rig rig;
    rig.startCapture();
    rig.stopCapture();
    rig.startCapture();
    QVERIFY(macsim::answerHeld(macsim::Call::Stop));
    QCOMPARE(rig.start.calls, 2);
    QCOMPARE(rig.stop.calls, 1);
    QCOMPARE(macsim::record().stops, 1);
    answers().stop = macsim::When::AtOnce;
    rig.stream.reset();
    QCOMPARE(macsim::record().stops, 2); // the second capture's
}

void MacStreamTest::startAfterAStopWithoutAnswer()
{
    answers().start = macsim::When::AtOnce;
    answers().stop = macsim::When::Held;
    Rig rig;
    rig.startCapture();
    rig.stopCapture();
    rig.startCapture();
    QCOMPARE(rig.start.calls, 2);
    rig.stream.reset();
    QCOMPARE(rig.stop.calls, 0);
    QCOMPARE(macsim::record().stops, 2); // the second capture's
    macsim::forgetHeld();
}

// ---- the objects that the system calls --------------------------------------------------------------------------

void MacStreamTest::outputMayGoFirst()
{
    answers().start = macsim::When::AtOnce;
    int calls = 0;
    Rig rig(counter(&calls));
    rig.startCapture();
    rig.output.reset();
    QVERIFY(macsim::deliver(macsim::stereoAudio({1, 2})));
    macsim::Audio unusable;
    unusable.null = true;
    QVERIFY(macsim::deliver(unusable));
    QVERIFY(macsim::endStreams(macsim::Error("gone")));
    QCOMPARE(calls, 0);
}

void MacStreamTest::delegateThatIsNotTheOutput()
{
    answers().start = macsim::When::AtOnce;
    answers().stop = macsim::When::Held; // the system goes on with the stream when the program's is gone
    int told = 0;
    int delivered = 0;
    platform::AudioOutput delegate(counter(&told));
    platform::AudioOutput output(counter(&delivered));
    platform::AudioQueue queue("queue");
    auto stream = std::make_unique<platform::AudioStream>(
        platform::AudioFilter{content(), 0, std::nullopt}, audioOnly, delegate);
    std::optional<QString> error;
    QVERIFY(stream->addStreamOutput(output, queue, &error));
    stream->startCapture([](const std::optional<QString>&) {});
    macsim::Audio unusable; // is handed on at once
    unusable.null = true;
    QVERIFY(macsim::deliver(unusable));
    QCOMPARE(delivered, 1);
    stream.reset();
    QVERIFY(macsim::deliver(unusable));
    QVERIFY(macsim::endStreams(macsim::Error("gone")));
    QCOMPARE(delivered, 1);
    QCOMPARE(told, 0);
    QVERIFY(macsim::answerHeld(macsim::Call::Stop));
}

void MacStreamTest::destructionWaitsForTheDelegate()
{
    answers().start = macsim::When::AtOnce;
    std::promise<void> inside;
    std::promise<void> open;
    std::atomic<bool> left{false};
    const auto hold = [&](const std::optional<QString>&) {
        inside.set_value();
        open.get_future().wait();
        left = true;
    };
    Rig rig({[](const platform::AudioSampleBuffer*) {}, hold});
    rig.startCapture();
    const auto end = std::async(std::launch::async, [] { macsim::endStreams(macsim::Error("gone")); });
    inside.get_future().wait();
    bool leftBefore = false;
    const auto destruction = std::async(std::launch::async, [&] {
        rig.stream.reset();
        leftBefore = left;
    });
    destruction.wait_for(std::chrono::milliseconds(300)); // the time for one that does not wait
    open.set_value();
    destruction.wait();
    end.wait();
    QVERIFY(leftBefore);
}

/// For want of memory mostly: the system's code does not expect them.
void MacStreamTest::exceptionsStayOutOfTheSystem()
{
    std::atomic<int> thrown = 0;
    const auto throws = [&thrown](auto&&...) {
        ++thrown;
        throw std::bad_alloc();
    };
    platform::requestAudioContent(true, false, throws);
    macsim::settle();
    QCOMPARE(thrown.load(), 1);
    Rig rig({[](const platform::AudioSampleBuffer*) {}, throws});
    rig.stream->startCapture(throws);
    macsim::settle();
    QCOMPARE(thrown.load(), 2);
    QVERIFY(macsim::endStreams(macsim::Error("gone")));
    QCOMPARE(thrown.load(), 3);
    rig.stream->stopCapture(throws);
    macsim::settle();
    QCOMPARE(thrown.load(), 4);
}

ORVANTIS_TEST(MacStreamTest)
#include "macstream_test.moc"
