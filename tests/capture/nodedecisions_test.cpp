// Decisions on nodes: asked once, elsewhere, and nobody waits.
#include "nodedecisions.h"

#include "pipewiregraph.h"
#include "testregistry.h"

#include <QTest>

#include <array>
#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <semaphore>
#include <thread>
#include <vector>

using namespace pipewire;
using namespace std::chrono_literals;

namespace {

constexpr int limitMs = 30'000; // against hanging

/// A question that is answered when the test says so.
struct SlowQuestion {
    std::binary_semaphore asked{0};
    std::binary_semaphore answered{0};
    std::thread::id asker;

    Question question()
    {
        return [this] {
            asker = std::this_thread::get_id();
            asked.release();
            answered.acquire();
            return std::optional(true);
        };
    }
};

Graph graphOf(std::initializer_list<uint32_t> nodes)
{
    Graph graph;
    for (const uint32_t node : nodes)
        graph.nodes[node] = Node();
    return graph;
}

}

class NodeDecisionsTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void knownAtOnce();
    void unknownProcessIsNotAskedFor();
    void processThatBecomesKnown();
    void nobodyWaitsForAQuestion();
    void severalQuestions();
    void answerAfterTheEnd();
    void nodesThatHaveGoneAreForgotten();
    void questionWithoutAnAnswerIsAskedAgain();
    void questionsWithoutAnAnswerHoldUpNoOther();
    void nodesThatHaveGoneAreNotAskedFor();
    void noAnswerTakesNoDecisionAway();
    void questionThatThrowsIsAskedAgain();
    void filterThatThrowsIsAskedAgain();
};

void NodeDecisionsTest::knownAtOnce()
{
    int asked = 0;
    NodeDecisions decisions(
        [&asked](qint64 pid) -> Verdict {
            ++asked;
            return pid == 7;
        },
        [] { QFAIL("nothing was asked elsewhere"); });
    QCOMPARE(decisions.of(1, 7), std::optional(true));
    QCOMPARE(decisions.of(2, 8), std::optional(false));
    QCOMPARE(decisions.of(1, 7), std::optional(true));
    QCOMPARE(asked, 2);
}

/// It could be a program that is left out.
void NodeDecisionsTest::unknownProcessIsNotAskedFor()
{
    int asked = 0;
    NodeDecisions decisions(
        [&asked](qint64) -> Verdict {
            ++asked;
            return true;
        },
        [] {});
    QCOMPARE(decisions.of(1, 0), std::optional<bool>());
    QCOMPARE(decisions.of(1, -1), std::optional<bool>());
    QCOMPARE(asked, 0);
}

void NodeDecisionsTest::processThatBecomesKnown()
{
    NodeDecisions decisions([](qint64 pid) -> Verdict { return pid == 7; }, [] {});
    QCOMPARE(decisions.of(1, 0), std::optional<bool>());
    QCOMPARE(decisions.of(1, 8), std::optional(false));
    QCOMPARE(decisions.of(1, 7), std::optional(true));
}

void NodeDecisionsTest::nobodyWaitsForAQuestion()
{
    SlowQuestion slow;
    std::atomic<int> decided = 0;
    NodeDecisions decisions(
        [&slow](qint64 pid) -> Verdict {
            if (pid == 7)
                return slow.question();
            return pid == 8;
        },
        [&decided] { ++decided; });
    QCOMPARE(decisions.of(1, 7), std::optional<bool>());
    slow.asked.acquire();
    QCOMPARE(decisions.of(1, 7), std::optional<bool>());
    QCOMPARE(decisions.of(2, 8), std::optional(true)); // nor does what is known wait for it
    QCOMPARE(decided.load(), 0);
    slow.answered.release();
    QTRY_COMPARE_WITH_TIMEOUT(decided.load(), 1, limitMs);
    QCOMPARE(decisions.of(1, 7), std::optional(true));
    QVERIFY(slow.asker != std::this_thread::get_id());
}

void NodeDecisionsTest::severalQuestions()
{
    std::atomic<int> decided = 0;
    std::atomic<int> atOnce = 0;
    std::atomic<int> most = 0;
    NodeDecisions decisions(
        [&](qint64 pid) -> Verdict {
            return [&, pid] {
                most = std::max(most.load(), ++atOnce);
                std::this_thread::yield();
                --atOnce;
                return std::optional(pid % 2 == 1);
            };
        },
        [&decided] { ++decided; });
    for (uint32_t node = 1; node <= 50; ++node)
        decisions.of(node, qint64(node));
    QTRY_COMPARE_WITH_TIMEOUT(decided.load(), 50, limitMs);
    for (uint32_t node = 1; node <= 50; ++node)
        QCOMPARE(decisions.of(node, qint64(node)), std::optional(node % 2 == 1));
    QCOMPARE(most.load(), 1);
}

/// The end does not wait for it, and nobody is told.
void NodeDecisionsTest::answerAfterTheEnd()
{
    const auto slow = std::make_shared<SlowQuestion>();
    std::atomic<int> decided = 0;
    const auto returned = std::make_shared<std::atomic<bool>>(false);
    {
        NodeDecisions decisions(
            [&](qint64) -> Verdict {
                return [question = slow->question(), slow, returned] {
                    const std::optional<bool> answer = question();
                    *returned = true;
                    return answer;
                };
            },
            [&decided] { ++decided; });
        decisions.of(1, 7);
        slow->asked.acquire();
        decisions.of(2, 8); // is not asked any more
    }
    slow->answered.release();
    QTRY_VERIFY_WITH_TIMEOUT(returned->load(), limitMs);
    QTest::qWait(50);
    QCOMPARE(decided.load(), 0);
    QVERIFY(!slow->asked.try_acquire());
}

void NodeDecisionsTest::nodesThatHaveGoneAreForgotten()
{
    int asked = 0;
    NodeDecisions decisions(
        [&asked](qint64) -> Verdict {
            ++asked;
            return true;
        },
        [] {});
    decisions.of(1, 7);
    decisions.of(2, 7);
    decisions.keepNodesOf(graphOf({2}));
    decisions.of(2, 7);
    QCOMPARE(asked, 2);
    decisions.of(1, 7);
    QCOMPARE(asked, 3);
}

/// Less and less often, and until there is an answer.
void NodeDecisionsTest::questionWithoutAnAnswerIsAskedAgain()
{
    using std::chrono::steady_clock;
    std::atomic<int> decided = 0;
    std::vector<steady_clock::time_point> asked;
    NodeDecisions decisions(
        [&asked](qint64) -> Verdict {
            return [&asked]() -> std::optional<bool> {
                asked.push_back(steady_clock::now());
                return asked.size() < 5 ? std::nullopt : std::optional(true);
            };
        },
        [&decided] { ++decided; }, {20ms, 40ms});
    QCOMPARE(decisions.of(1, 7), std::optional<bool>());
    QTRY_COMPARE_WITH_TIMEOUT(decided.load(), 1, limitMs);
    QCOMPARE(decisions.of(1, 7), std::optional(true));
    QCOMPARE(asked.size(), std::size_t(5));
    constexpr std::array pauses{20ms, 40ms, 40ms, 40ms}; // at least
    for (std::size_t i = 0; i < pauses.size(); ++i)
        QVERIFY(asked[i + 1] - asked[i] >= pauses[i]);
}

void NodeDecisionsTest::questionsWithoutAnAnswerHoldUpNoOther()
{
    std::atomic<int> decided = 0;
    NodeDecisions decisions(
        [](qint64 pid) -> Verdict { return [pid] { return pid == 7 ? std::nullopt : std::optional(true); }; },
        [&decided] { ++decided; }, {24h, 24h});
    decisions.of(1, 7);
    decisions.of(2, 8);
    QTRY_COMPARE_WITH_TIMEOUT(decided.load(), 1, limitMs);
    decisions.of(3, 9); // while the thread waits
    QTRY_COMPARE_WITH_TIMEOUT(decided.load(), 2, limitMs);
    QCOMPARE(decisions.of(1, 7), std::optional<bool>());
}

void NodeDecisionsTest::nodesThatHaveGoneAreNotAskedFor()
{
    std::atomic<int> asked = 0;
    std::atomic<int> decided = 0;
    NodeDecisions decisions(
        [&asked](qint64 pid) -> Verdict {
            return [&asked, pid] {
                asked += pid == 7 ? 1 : 0;
                return pid == 7 ? std::nullopt : std::optional(true);
            };
        },
        [&decided] { ++decided; }, {1ms, 1ms});
    decisions.of(1, 7);
    QTRY_VERIFY_WITH_TIMEOUT(asked.load() > 3, limitMs);
    decisions.keepNodesOf(graphOf({}));
    decisions.of(2, 8);
    QTRY_COMPARE_WITH_TIMEOUT(decided.load(), 1, limitMs); // what was being asked then is over
    const int before = asked;
    QTest::qWait(50);
    QCOMPARE(asked.load(), before);
}

/// A player that makes its stream anew, with the same id, while it is asked about the one before: that is answered,
/// and the second question meets a server that hangs.
void NodeDecisionsTest::noAnswerTakesNoDecisionAway()
{
    SlowQuestion first;
    std::atomic<int> second = 0;
    std::atomic<int> decided = 0;
    int asked = 0;
    NodeDecisions decisions(
        [&](qint64 pid) -> Verdict {
            if (pid == 8)
                return [] { return std::optional(true); };
            if (++asked == 1)
                return first.question();
            return [&second]() -> std::optional<bool> {
                ++second;
                return std::nullopt;
            };
        },
        [&decided] { ++decided; }, {1ms, 1ms});
    decisions.of(50, 9);
    first.asked.acquire();
    decisions.keepNodesOf(graphOf({}));
    QCOMPARE(decisions.of(50, 9), std::optional<bool>());
    QCOMPARE(asked, 2);
    first.answered.release();
    QTRY_COMPARE_WITH_TIMEOUT(decided.load(), 1, limitMs);
    QTRY_VERIFY_WITH_TIMEOUT(second.load() > 0, limitMs);
    decisions.of(51, 8);
    QTRY_COMPARE_WITH_TIMEOUT(decided.load(), 2, limitMs); // what was being asked then is over
    QCOMPARE(decisions.of(50, 9), std::optional(true));
    QCOMPARE(second.load(), 1);
}

void NodeDecisionsTest::questionThatThrowsIsAskedAgain()
{
    std::atomic<int> decided = 0;
    std::atomic<int> asked = 0;
    NodeDecisions decisions(
        [&asked](qint64) -> Verdict {
            return [&asked]() -> std::optional<bool> {
                if (++asked == 1)
                    throw std::bad_alloc();
                return true;
            };
        },
        [&decided] {
            ++decided;
            throw std::bad_alloc(); // nor is that the end of the thread
        },
        {1ms, 1ms});
    decisions.of(1, 7);
    decisions.of(2, 7);
    QTRY_COMPARE_WITH_TIMEOUT(decided.load(), 2, limitMs);
    QCOMPARE(decisions.of(1, 7), std::optional(true));
    QCOMPARE(decisions.of(2, 7), std::optional(true));
}

void NodeDecisionsTest::filterThatThrowsIsAskedAgain()
{
    int asked = 0;
    NodeDecisions decisions(
        [&asked](qint64) -> Verdict {
            if (++asked == 1)
                throw std::bad_alloc();
            return true;
        },
        [] {});
    QVERIFY_EXCEPTION_THROWN(decisions.of(1, 7), std::bad_alloc);
    QCOMPARE(decisions.of(1, 7), std::optional(true));
}

ORVANTIS_TEST(NodeDecisionsTest)
#include "nodedecisions_test.moc"
