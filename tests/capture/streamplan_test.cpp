// Which streams the recorder has for which players: graphs in, plans out.
#include "streamplan.h"

#include "pipewirelatency.h"
#include "testregistry.h"

#include <QTest>

#include <algorithm>
#include <string>

using namespace pipewire;

namespace {

using Nodes = std::set<uint32_t>;
using Streams = std::vector<StreamPlan::Stream>;

constexpr uint32_t firstSink = 100; ///< sinks are this and the following, each with 10 ms more than the one before
constexpr uint32_t firstPlayer = 200;

/// The default is the first.
Graph sinks(uint32_t count)
{
    Graph graph;
    graph.defaultSink = "100";
    for (uint32_t sink = firstSink; sink < firstSink + count; ++sink) {
        graph.nodes[sink] = Node();
        graph.nodes[sink]->name = std::to_string(sink);
        graph.nodes[sink]->mediaClass = "Audio/Sink";
        Port port{sink, false, false, "FL"};
        port.latency.emplace();
        port.latency->min_ns = (sink - firstSink) * 10'000'000;
        port.latency->max_ns = port.latency->min_ns;
        graph.ports[1000 + sink] = port;
    }
    return graph;
}

void play(Graph& graph, uint32_t player, const Nodes& to)
{
    graph.nodes[player] = Node();
    std::erase_if(graph.links, [player](const auto& entry) { return entry.second.outputNode == player; });
    for (const uint32_t sink : to)
        graph.links[player * 1000 + sink] = {player, player + 1000, sink, sink + 1000};
}

/// The stream that captures the node; nothing when there is none or more than one.
std::optional<StreamPlan::Stream> streamOf(const Streams& streams, uint32_t node)
{
    std::optional<StreamPlan::Stream> found;
    for (const StreamPlan::Stream& stream : streams) {
        if (stream.nodes.count(node) == 0)
            continue;
        if (found)
            return std::nullopt;
        found = stream;
    }
    return found;
}

qint64 latencyMs(const std::optional<StreamPlan::Stream>& stream)
{
    return stream ? usualLatencyNs(stream->latency) / 1'000'000 : -1;
}

}

class StreamPlanTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void oneStreamForNobody();
    void playersOfOneSinkShareAStream();
    void eachSinkHasItsStream();
    void latencyThatChangesKeepsTheStream();
    void playerThatMovesKeepsTheStream();
    void oneOfSeveralThatMoves();
    void playerWithoutALinkBelongsToTheDefaultSink();
    void playerOfSeveralSinks();
    void streamsAreBounded();
    void latencyIsBounded();
};

void StreamPlanTest::oneStreamForNobody()
{
    StreamPlan plan;
    const Graph graph = sinks(2);
    QCOMPARE(plan.update(graph, {}).size(), std::size_t(1));
    QCOMPARE(plan.update(graph, {})[0].id, 0U);
}

void StreamPlanTest::playersOfOneSinkShareAStream()
{
    StreamPlan plan;
    Graph graph = sinks(2);
    play(graph, 200, {101});
    play(graph, 201, {101});
    const Streams& streams = plan.update(graph, {200, 201});
    QCOMPARE(streams.size(), std::size_t(1));
    QVERIFY(streams[0].nodes == (Nodes{200, 201}));
    QCOMPARE(streams[0].id, 0U); // the one that is there
    QCOMPARE(latencyMs(streams[0]), qint64(10));
}

void StreamPlanTest::eachSinkHasItsStream()
{
    StreamPlan plan;
    Graph graph = sinks(2);
    play(graph, 200, {100});
    play(graph, 201, {101});
    QCOMPARE(plan.update(graph, {200, 201}).size(), std::size_t(2));
    QCOMPARE(latencyMs(streamOf(plan.update(graph, {200, 201}), 200)), qint64(0));
    QCOMPARE(latencyMs(streamOf(plan.update(graph, {200, 201}), 201)), qint64(10));
    QCOMPARE(plan.update(graph, {201}).size(), std::size_t(1)); // the other does not play any more
    QCOMPARE(latencyMs(streamOf(plan.update(graph, {201}), 201)), qint64(10));
    QVERIFY(plan.update(graph, {200, 201})[1].id == 2); // and is new when it comes back
}

void StreamPlanTest::latencyThatChangesKeepsTheStream()
{
    StreamPlan plan;
    Graph graph = sinks(2);
    play(graph, 200, {100});
    play(graph, 201, {101});
    const auto before = streamOf(plan.update(graph, {200, 201}), 201);
    graph.ports[1101].latency->min_ns = graph.ports[1101].latency->max_ns = 400'000'000;
    const auto after = streamOf(plan.update(graph, {200, 201}), 201);
    QVERIFY(before && after && before->id == after->id);
    QCOMPARE(latencyMs(after), qint64(400));
}

void StreamPlanTest::playerThatMovesKeepsTheStream()
{
    StreamPlan plan;
    Graph graph = sinks(3);
    play(graph, 200, {100});
    play(graph, 201, {101});
    const auto before = streamOf(plan.update(graph, {200, 201}), 201);
    play(graph, 201, {102});
    const auto after = streamOf(plan.update(graph, {200, 201}), 201);
    QVERIFY(before && after && before->id == after->id);
    QCOMPARE(latencyMs(after), qint64(20));
}

void StreamPlanTest::oneOfSeveralThatMoves()
{
    StreamPlan plan;
    Graph graph = sinks(2);
    play(graph, 200, {100});
    play(graph, 201, {100});
    plan.update(graph, {200, 201});
    play(graph, 201, {101});
    const Streams& streams = plan.update(graph, {200, 201});
    QCOMPARE(streams.size(), std::size_t(2));
    QCOMPARE(streamOf(streams, 200)->id, 0U);
    QCOMPARE(latencyMs(streamOf(streams, 200)), qint64(0));
    QCOMPARE(latencyMs(streamOf(streams, 201)), qint64(10));
    play(graph, 200, {101}); // the rest follows
    QCOMPARE(plan.update(graph, {200, 201}).size(), std::size_t(1));
    QVERIFY(plan.update(graph, {200, 201})[0].nodes == (Nodes{200, 201}));
}

/// It is about to be linked to that, and counts for no other.
void StreamPlanTest::playerWithoutALinkBelongsToTheDefaultSink()
{
    StreamPlan plan;
    Graph graph = sinks(2);
    play(graph, 200, {});
    play(graph, 201, {101});
    const Streams streams = plan.update(graph, {200, 201});
    QCOMPARE(latencyMs(streamOf(streams, 200)), qint64(0));
    QCOMPARE(latencyMs(streamOf(streams, 201)), qint64(10));
    play(graph, 200, {100});
    QCOMPARE(streamOf(plan.update(graph, {200, 201}), 200)->id, streamOf(streams, 200)->id);
}

void StreamPlanTest::playerOfSeveralSinks()
{
    StreamPlan plan;
    Graph graph = sinks(3);
    play(graph, 200, {100, 102});
    play(graph, 201, {102});
    const Streams& streams = plan.update(graph, {200, 201});
    QCOMPARE(streams.size(), std::size_t(2));
    QCOMPARE(latencyMs(streamOf(streams, 200)), qint64(10)); // the middle, as it is told
    QCOMPARE(latencyMs(streamOf(streams, 201)), qint64(20));
}

/// Beyond the bound the nearest latency counts; those before keep theirs.
void StreamPlanTest::streamsAreBounded()
{
    constexpr uint32_t count = 12;
    StreamPlan plan;
    Graph graph = sinks(count);
    Nodes players;
    for (uint32_t i = 0; i < count; ++i) {
        play(graph, firstPlayer + i, {firstSink + i});
        players.insert(firstPlayer + i);
    }
    for (int turn = 0; turn < 3; ++turn) {
        const Streams& streams = plan.update(graph, players);
        QCOMPARE(streams.size(), StreamPlan::mostStreams);
        for (uint32_t i = 0; i < count; ++i) {
            const auto most = uint32_t(StreamPlan::mostStreams) - 1;
            QCOMPARE(latencyMs(streamOf(streams, firstPlayer + i)), qint64(10 * std::min(i, most)));
        }
    }
}

/// What is told to players has the bound that counts for the audio.
void StreamPlanTest::latencyIsBounded()
{
    StreamPlan plan;
    Graph graph = sinks(1);
    graph.ports[1100].latency->min_ns = graph.ports[1100].latency->max_ns = 3'600'000'000'000;
    play(graph, 200, {100});
    const spa_latency_info told = plan.update(graph, {200})[0].latency;
    QCOMPARE(told.min_ns, quint64(mostLatencyNs));
    QCOMPARE(told.max_ns, quint64(mostLatencyNs));
}

ORVANTIS_TEST(StreamPlanTest)

#include "streamplan_test.moc"
