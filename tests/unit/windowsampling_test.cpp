// Samples from a thread of their own: a system that does not answer holds up nobody, and what it says late is not
// used.
#include "windowsampling.h"

#include "fakeplatform.h"
#include "logcapture.h"
#include "testregistry.h"

#include <QSemaphore>
#include <QTest>

#include <atomic>
#include <stdexcept>
#include <thread>

using namespace std::chrono_literals;

namespace {

constexpr quint32 window = 7;
constexpr WindowSampling::Patience impatient{20ms, 10s};

/// The system's answers, which wait until they are let go.
struct Gate {
    std::atomic<bool> isClosed = false;
    QSemaphore opened;
    std::atomic<int> asked = 0;

    void pass()
    {
        ++asked;
        if (isClosed)
            opened.acquire();
    }
    void open()
    {
        isClosed = false;
        opened.release();
    }
};

}

class WindowSamplingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();

    void sampleIsTheSources();
    void samplesComeFromOneThreadOfTheirOwn();
    void systemThatHangsHoldsUpNobody();
    void lateAnswerIsNotUsed();
    void endDoesNotWaitForASystemThatHangs();
    void exceptionComesThrough();
    void lateExceptionIsNotUsed();
    void slowSampleIsToldOfOnce();
    void quickSampleIsNotToldOf();

private:
    std::shared_ptr<Gate> gate_; // an answer may end after its test
};

/// The colour of each image tells its number.
void WindowSamplingTest::init()
{
    fakeplatform::reset();
    gate_ = std::make_shared<Gate>();
    fakeplatform::state().image = [gate = gate_](int index) {
        gate->pass();
        return fakeplatform::solidImage(4, 4, qRgb(index, 0, 0));
    };
    fakeplatform::state().bounds = [] { return QRectF(1, 2, 4, 4); };
}

void WindowSamplingTest::sampleIsTheSources()
{
    WindowSampling sampling(window);
    QCOMPARE(fakeplatform::state().openedWindows, std::vector<quint32>{window});
    const auto first = sampling.sample(true);
    QVERIFY(first);
    QCOMPARE(qRed(first->image.pixel(0, 0)), 0);
    QCOMPARE(first->bounds, QRectF(1, 2, 4, 4));
    QCOMPARE(first->changedRows, RowSet(0, 4));
    const auto second = sampling.sample(false);
    QVERIFY(second);
    QCOMPARE(qRed(second->image.pixel(0, 0)), 1);
    QVERIFY(!second->bounds);
}

void WindowSamplingTest::samplesComeFromOneThreadOfTheirOwn()
{
    std::vector<std::thread::id> threads;
    fakeplatform::state().pointer = [&threads]() -> std::optional<QPointF> {
        threads.push_back(std::this_thread::get_id());
        return {};
    };
    {
        WindowSampling sampling(window);
        QVERIFY(sampling.sample(true));
        QVERIFY(sampling.sample(true));
    }
    QCOMPARE(threads.size(), std::size_t(2));
    QVERIFY(threads[0] != std::this_thread::get_id());
    QVERIFY(threads[0] == threads[1]);
    QCOMPARE(fakeplatform::openWindows().load(), 0);
}

void WindowSamplingTest::systemThatHangsHoldsUpNobody()
{
    WindowSampling sampling(window, impatient);
    gate_->isClosed = true;
    QVERIFY(!sampling.sample(true));
    QVERIFY(!sampling.sample(true));
    QCOMPARE(gate_->asked.load(), 1); // and not asked again meanwhile
    gate_->open();
    QTRY_VERIFY(sampling.sample(true));
}

void WindowSamplingTest::lateAnswerIsNotUsed()
{
    WindowSampling sampling(window, impatient);
    gate_->isClosed = true;
    QVERIFY(!sampling.sample(true));
    gate_->open();
    std::optional<platform::WindowSample> sample;
    while (!sample)
        sample = sampling.sample(true);
    QCOMPARE(qRed(sample->image.pixel(0, 0)), 1);
}

void WindowSamplingTest::endDoesNotWaitForASystemThatHangs()
{
    {
        WindowSampling sampling(window, impatient);
        gate_->isClosed = true;
        QVERIFY(!sampling.sample(true));
    }
    QCOMPARE(fakeplatform::openWindows().load(), 1);
    gate_->open();
    QTRY_COMPARE(fakeplatform::openWindows().load(), 0); // then it is closed after all
}

void WindowSamplingTest::exceptionComesThrough()
{
    WindowSampling sampling(window);
    fakeplatform::state().bounds = []() -> std::optional<QRectF> { throw std::runtime_error("bounds"); };
    QVERIFY_THROWS_EXCEPTION(std::runtime_error, sampling.sample(true));
    fakeplatform::state().bounds = nullptr;
    QVERIFY(sampling.sample(true));
}

void WindowSamplingTest::lateExceptionIsNotUsed()
{
    WindowSampling sampling(window, impatient);
    gate_->isClosed = true;
    fakeplatform::state().bounds = [calls = 0]() mutable -> std::optional<QRectF> {
        if (calls++ == 0)
            throw std::runtime_error("late");
        return {};
    };
    QVERIFY(!sampling.sample(true));
    gate_->open();
    QTRY_VERIFY(sampling.sample(true));
}

void WindowSamplingTest::slowSampleIsToldOfOnce()
{
    const QString text = QStringLiteral("Window capture takes longer than 30 ms; frames are missing. Told once.");
    LogCapture log;
    WindowSampling sampling(window, {10ms, 30ms});
    for (int i = 0; i < 2; ++i) {
        gate_->isClosed = true;
        int unanswered = 0;
        while (unanswered < 10) // 10 ms each
            unanswered += sampling.sample(true) ? 0 : 1;
        gate_->open();
        QTRY_VERIFY(sampling.sample(true));
    }
    QCOMPARE(log.count(text), 1);
}

void WindowSamplingTest::quickSampleIsNotToldOf()
{
    LogCapture log;
    WindowSampling sampling(window, {10s, 10s});
    QVERIFY(sampling.sample(true));
    QVERIFY(log.messages().isEmpty());
}

ORVANTIS_TEST(WindowSamplingTest)
#include "windowsampling_test.moc"
