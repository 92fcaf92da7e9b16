// How long captured audio takes to be heard: a graph in, a latency out.
#include "pipewirelatency.h"
#include "testregistry.h"

#include <QTest>

#include <cmath>
#include <limits>
#include <string>

using namespace pipewire;

namespace {

constexpr qint64 nsPerMs = 1'000'000;
constexpr CycleLength length{20 * nsPerMs, 1e9 / 48000};

constexpr uint32_t speakers = 10; // the default sink
constexpr uint32_t headphones = 20;
constexpr uint32_t player = 30;
constexpr uint32_t recorder = 40;

spa_latency_info milliseconds(quint64 least, quint64 most)
{
    spa_latency_info latency{};
    latency.min_ns = least * nsPerMs;
    latency.max_ns = most * nsPerMs;
    return latency;
}

void addNode(Graph& graph, uint32_t id, const std::string& name, const std::string& mediaClass)
{
    graph.nodes[id] = Node();
    graph.nodes[id]->name = name;
    graph.nodes[id]->mediaClass = mediaClass;
}

/// Its input port has the number of the node and 1, its output port (a monitor, of a sink) that and 2.
void addSink(Graph& graph, uint32_t id, const std::string& name, std::optional<spa_latency_info> latency)
{
    addNode(graph, id, name, "Audio/Sink");
    graph.ports[id + 1] = {id, false, false, "FL", latency};
    graph.ports[id + 2] = {id, true, true, "FL"};
}

void addPlayer(Graph& graph, uint32_t id)
{
    addNode(graph, id, "player", playbackClass);
    graph.ports[id + 2] = {id, true, false, "FL"};
}

void link(Graph& graph, uint32_t from, uint32_t to)
{
    graph.links[100 + uint32_t(graph.links.size())] = {from, from + 2, to, to + 1};
}

/// Speakers without latency, headphones with 200 ms, a player and a recorder that tells nothing.
Graph usualGraph()
{
    Graph graph;
    graph.defaultSink = "speakers";
    addSink(graph, speakers, "speakers", milliseconds(0, 0));
    addSink(graph, headphones, "headphones", milliseconds(200, 200));
    addPlayer(graph, player);
    addNode(graph, recorder, captureNodeName, "Stream/Input/Audio");
    graph.ports[recorder + 1] = {recorder, false, false, "FL", milliseconds(0, 0)};
    return graph;
}

double playbackMs(const Graph& graph, uint32_t node = player)
{
    return double(latencyNs(playbackLatency(graph, node), length)) / nsPerMs;
}

}

class PipewireLatencyTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void sinkTells();
    void playerIsToldByItsSink();
    void recordersDoNotCount();
    void severalConsumers();
    void playerWithoutALink();
    void portThatHasNotTold();
    void longestOfSeveral();
    void changes();
    void partsAreAdded_data();
    void partsAreAdded();
    void bounds_data();
    void bounds();
};

void PipewireLatencyTest::sinkTells()
{
    Graph graph = usualGraph();
    graph.ports[50] = {headphones, false, false, "FR", milliseconds(100, 220)}; // the sides need not agree
    QCOMPARE(latencyNs(sinkLatency(graph, headphones), length), 160 * nsPerMs);
    QCOMPARE(latencyNs(sinkLatency(graph, speakers), length), 0 * nsPerMs);
    QCOMPARE(latencyNs(sinkLatency(graph, 99), length), 0 * nsPerMs);
}

void PipewireLatencyTest::playerIsToldByItsSink()
{
    Graph graph = usualGraph();
    link(graph, player, headphones);
    QCOMPARE(playbackMs(graph), 200.0);
    graph.links[99] = {headphones, headphones + 2, speakers, speakers + 1}; // somebody else's link
    QCOMPARE(playbackMs(graph), 200.0);
}

/// Neither this one nor another: what they tell they only repeat, and two would hold each other to an old value.
void PipewireLatencyTest::recordersDoNotCount()
{
    Graph graph = usualGraph();
    link(graph, player, headphones);
    link(graph, player, recorder);
    QCOMPARE(playbackMs(graph), 200.0);
    graph.ports[recorder + 1].latency = milliseconds(500, 500);
    QCOMPARE(playbackMs(graph), 200.0);
}

/// The player believes in the middle, and shows its video by that.
void PipewireLatencyTest::severalConsumers()
{
    Graph graph = usualGraph();
    link(graph, player, headphones);
    link(graph, player, speakers);
    QCOMPARE(playbackMs(graph), 100.0);
    const spa_latency_info told = playbackLatency(graph, player);
    QCOMPARE(told.min_ns, quint64(0));
    QCOMPARE(told.max_ns, quint64(200 * nsPerMs));
}

/// What it is going to be told: so nothing jumps when the link comes.
void PipewireLatencyTest::playerWithoutALink()
{
    Graph graph = usualGraph();
    link(graph, player, recorder);
    QCOMPARE(playbackMs(graph), 0.0);
    graph.defaultSink = "headphones";
    QCOMPARE(playbackMs(graph), 200.0);
    graph.defaultSink.clear();
    QCOMPARE(playbackMs(graph), 0.0);
}

void PipewireLatencyTest::portThatHasNotTold()
{
    Graph graph = usualGraph();
    link(graph, player, headphones);
    graph.ports[headphones + 1].latency.reset();
    QCOMPARE(playbackMs(graph), 0.0);
    graph.ports.erase(headphones + 1); // a link may be known longer than its port
    QCOMPARE(playbackMs(graph), 0.0);
}

void PipewireLatencyTest::longestOfSeveral()
{
    Graph graph = usualGraph();
    constexpr uint32_t other = 60;
    addPlayer(graph, other);
    link(graph, player, headphones);
    link(graph, other, speakers);
    QCOMPARE(latencyNs(longestLatency(graph, {player, other}), length), 200 * nsPerMs);
    QCOMPARE(latencyNs(longestLatency(graph, {other}), length), 0 * nsPerMs);
    graph.defaultSink = "headphones";
    QCOMPARE(latencyNs(longestLatency(graph, {}), length), 200 * nsPerMs);
    QCOMPARE(latencyNs(longestLatency(graph, {other}), length), 0 * nsPerMs);
}

void PipewireLatencyTest::changes()
{
    Graph graph = usualGraph();
    link(graph, player, headphones);
    graph.ports[headphones + 1].latency = milliseconds(120, 120);
    QCOMPARE(playbackMs(graph), 120.0);
    graph.links.clear();
    link(graph, player, speakers);
    QCOMPARE(playbackMs(graph), 0.0);
}

void PipewireLatencyTest::partsAreAdded_data()
{
    QTest::addColumn<double>("cycles");
    QTest::addColumn<int>("frames");
    QTest::addColumn<int>("ms");
    QTest::addColumn<double>("expectedMs");
    QTest::newRow("none") << 0.0 << 0 << 0 << 0.0;
    QTest::newRow("a cycle, as hardware tells") << 1.0 << 0 << 0 << 20.0;
    QTest::newRow("frames of the graph") << 0.0 << 480 << 0 << 10.0;
    QTest::newRow("all") << 1.5 << 96 << 7 << 39.0;
}

void PipewireLatencyTest::partsAreAdded()
{
    QFETCH(const double, cycles);
    QFETCH(const int, frames);
    QFETCH(const int, ms);
    spa_latency_info latency = milliseconds(quint64(ms), quint64(ms));
    latency.min_quantum = latency.max_quantum = float(cycles);
    latency.min_rate = latency.max_rate = uint32_t(frames);
    QTEST(double(latencyNs(latency, length)) / nsPerMs, "expectedMs");
}

void PipewireLatencyTest::bounds_data()
{
    QTest::addColumn<float>("cycles");
    QTest::addColumn<quint64>("ns");
    QTest::addColumn<qint64>("expectedNs");
    constexpr float none = 0;
    QTest::newRow("longest that is believed") << none << quint64(mostLatencyNs) << mostLatencyNs;
    QTest::newRow("beyond") << none << quint64(mostLatencyNs) + 1 << mostLatencyNs;
    QTest::newRow("an hour") << none << quint64(3'600'000) * nsPerMs << mostLatencyNs;
    QTest::newRow("beyond 63 bits") << none << std::numeric_limits<quint64>::max() << mostLatencyNs;
    QTest::newRow("below 0") << -3.F << quint64(10 * nsPerMs) << qint64(0);
    QTest::newRow("no number") << std::nanf("") << quint64(10 * nsPerMs) << qint64(0);
    QTest::newRow("infinite") << std::numeric_limits<float>::infinity() << quint64(0) << mostLatencyNs;
}

void PipewireLatencyTest::bounds()
{
    QFETCH(const float, cycles);
    QFETCH(const quint64, ns);
    spa_latency_info latency{};
    latency.min_quantum = latency.max_quantum = cycles;
    latency.min_ns = latency.max_ns = ns;
    QTEST(latencyNs(latency, length), "expectedNs");
}

ORVANTIS_TEST(PipewireLatencyTest)
#include "pipewirelatency_test.moc"
