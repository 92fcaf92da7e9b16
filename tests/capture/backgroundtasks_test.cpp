// Tasks on threads of their own, and what becomes of one that throws.
#include "backgroundtasks.h"

#include "logcapture.h"
#include "testregistry.h"

#include <QTest>

#include <new>
#include <semaphore>
#include <thread>

class BackgroundTasksTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void runsElsewhere();
    void taskThatThrowsEndsAlone();
};

void BackgroundTasksTest::runsElsewhere()
{
    std::binary_semaphore ran{0};
    std::thread::id runner;
    QVERIFY(backgroundtasks::start([&](const std::stop_token&) {
        runner = std::this_thread::get_id();
        ran.release();
    }));
    ran.acquire();
    QVERIFY(runner != std::this_thread::get_id());
}

/// The process goes on, the log says it once.
void BackgroundTasksTest::taskThatThrowsEndsAlone()
{
    const LogCapture log;
    std::counting_semaphore<> threw{0};
    QVERIFY(backgroundtasks::start([&](const std::stop_token&) {
        threw.release();
        throw std::bad_alloc();
    }));
    QVERIFY(backgroundtasks::start([&](const std::stop_token&) {
        threw.release();
        throw 7;
    }));
    threw.acquire();
    threw.acquire();
    runsElsewhere();
    QTRY_COMPARE_WITH_TIMEOUT(
        log.countStartingWith(QStringLiteral("Audio capture was interrupted by an exception: ")), 1, 30'000);
}

ORVANTIS_TEST(BackgroundTasksTest)

#include "backgroundtasks_test.moc"
