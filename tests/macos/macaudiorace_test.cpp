// What is delivered from another thread while an audio stream is stopped or destroyed.
#include "macaudio.h"
#include "testregistry.h"

#include <atomic>
#include <future>
#include <thread>

using macsim::answers;

namespace {

/// Delivers all the time, on a thread of its own.
class Flood {
public:
    Flood()
        : thread_([this] {
              while (!ended_)
                  delivered_ += macsim::deliver(loudAudio) ? 1 : 0;
          })
    {
    }
    ~Flood()
    {
        ended_ = true;
        thread_.join();
    }
    Flood(const Flood&) = delete;
    Flood& operator=(const Flood&) = delete;

    /// Waits for some deliveries from now on.
    bool goesOn() const
    {
        const int before = delivered_;
        for (int ms = 0; ms < patienceMs && delivered_ < before + 4; ++ms)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return delivered_ >= before + 4;
    }

private:
    std::atomic<bool> ended_{false};
    std::atomic<int> delivered_{0};
    std::thread thread_;
};

/// Holds the first delivery until it is let go.
class Gate {
public:
    enum class Where { BeforeTheProgram, InTheProgram };

    explicit Gate(Where where)
    {
        auto& place = where == Where::InTheProgram ? answers().samplesAsked : answers().beforeDelivery;
        place = [this] {
            if (reached_.exchange(true))
                return;
            inside_.set_value();
            open_.get_future().wait();
        };
    }

    void waitForDelivery() { inside_.get_future().wait(); }
    void open() { open_.set_value(); }

private:
    std::atomic<bool> reached_{false};
    std::promise<void> inside_;
    std::promise<void> open_;
};

bool isReady(const std::future<void>& future, int withinMs)
{
    return future.wait_for(std::chrono::milliseconds(withinMs)) == std::future_status::ready;
}

}

class MacAudioRaceTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void cleanup();

    void destructionWaitsForADelivery();
    void deliveryOnTheQueueAtDestruction_data();
    void deliveryOnTheQueueAtDestruction();
    void stopDuringADelivery();
    void destructionInAFlood_data();
    void destructionInAFlood();
    void stopInAFlood();
    void destructionWhileTheStreamEnds();

private:
    std::unique_ptr<RecorderAudioCapture> started() const { return startedCapture(*bench_); }

    std::optional<MacBench> bench_;
};

void MacAudioRaceTest::init()
{
    bench_.emplace();
}

void MacAudioRaceTest::cleanup()
{
    MAC_IS_CLEAN();
    bench_.reset();
}

void MacAudioRaceTest::destructionWaitsForADelivery()
{
    auto capture = started();
    Gate gate(Gate::Where::InTheProgram);
    auto delivery = std::async(std::launch::async, [] { macsim::deliver(loudAudio); });
    gate.waitForDelivery();
    auto destruction = std::async(std::launch::async, [&capture] { capture.reset(); });
    const bool waited = !isReady(destruction, 300);
    gate.open();
    destruction.wait();
    delivery.wait();
    QVERIFY(waited);
}

void MacAudioRaceTest::deliveryOnTheQueueAtDestruction_data()
{
    QTest::addColumn<bool>("kept");
    QTest::newRow("outputs not kept") << false;
    QTest::newRow("outputs kept") << true;
}

void MacAudioRaceTest::deliveryOnTheQueueAtDestruction()
{
    QFETCH(const bool, kept);
    answers().streamKeepsOutputs = kept;
    auto capture = started();
    Gate gate(Gate::Where::BeforeTheProgram);
    auto delivery = std::async(std::launch::async, [] { macsim::deliver(loudAudio); });
    gate.waitForDelivery();
    capture.reset();
    const auto listCalls = macsim::record().listFlags.size();
    gate.open();
    delivery.wait();
    QCOMPARE(macsim::record().listFlags.size(), listCalls);
}

void MacAudioRaceTest::stopDuringADelivery()
{
    const auto capture = started();
    Gate gate(Gate::Where::InTheProgram);
    auto delivery = std::async(std::launch::async, [] { macsim::deliver(loudAudio); });
    gate.waitForDelivery();
    capture->stop();
    const bool underWay = !isReady(delivery, 0);
    gate.open();
    delivery.wait();
    QVERIFY(underWay);
    QVERIFY(capture->start());
    QVERIFY(!isHeard(*capture)); // it belongs to the capture before
}

void MacAudioRaceTest::destructionInAFlood_data()
{
    QTest::addColumn<bool>("kept");
    QTest::newRow("outputs not kept") << false;
    QTest::newRow("outputs kept") << true;
}

void MacAudioRaceTest::destructionInAFlood()
{
    QFETCH(const bool, kept);
    answers().streamKeepsOutputs = kept;
    const Flood flood;
    for (int i = 0; i < 30; ++i) {
        auto capture = started();
        QVERIFY(flood.goesOn());
        capture.reset();
    }
}

void MacAudioRaceTest::stopInAFlood()
{
    const auto capture = started();
    const Flood flood;
    for (int i = 0; i < 30; ++i) {
        QVERIFY(flood.goesOn());
        QVERIFY(isHeard(*capture));
        capture->stop();
        QVERIFY(capture->start());
    }
}

void MacAudioRaceTest::destructionWhileTheStreamEnds()
{
    for (int i = 0; i < 50; ++i) {
        auto capture = started();
        auto end = std::async(std::launch::async, [] { macsim::endStreams(macsim::Error("gone")); });
        capture.reset();
        end.wait();
    }
}

ORVANTIS_TEST(MacAudioRaceTest)
#include "macaudiorace_test.moc"
