// Which ports are linked to the capture's: a graph in, pairs of ports out.
#include "pipewirelinks.h"
#include "testregistry.h"

#include <QTest>

#include <string>
#include <vector>

using namespace pipewire;

namespace {

constexpr uint32_t captureNode = 10;
constexpr uint32_t captureLeft = 11;
constexpr uint32_t captureRight = 12;

Node nodeOf(const std::string& mediaClass, std::optional<uint32_t> client, const std::string& name = "node")
{
    Node node;
    node.mediaClass = mediaClass;
    node.client = client;
    node.name = name;
    return node;
}

Port portOf(uint32_t node, const std::string& channel, bool output = true, bool monitor = false)
{
    return {node, output, monitor, channel};
}

/// The capture's node and ports, of the client 1.
Graph graphWithCapture()
{
    Graph graph;
    graph.clients[1] = Client();
    graph.nodes[captureNode] = nodeOf("Stream/Input/Audio", 1);
    graph.ports[captureLeft] = portOf(captureNode, "FL", false);
    graph.ports[captureRight] = portOf(captureNode, "FR", false);
    return graph;
}

QString sides(const std::set<PortPair>& pairs, uint32_t port)
{
    QString text;
    for (const PortPair& pair : pairs) {
        if (pair.outputPort == port && pair.inputNode == captureNode)
            text += pair.inputPort == captureLeft ? QLatin1Char('L') : QLatin1Char('R');
    }
    return text;
}

}

class PipewireLinksTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void channelsGoToTheirSide_data();
    void channelsGoToTheirSide();
    void sinkIsHeardThroughItsMonitor();
    void programsAreHeardThroughTheirOutputs();
    void onlyWantedProgramsAreHeard();
    void capturesPortsMustBeThere();
    void playbackNodesAreThoseOfPrograms();
    void defaultSinkIsFoundByName();
    void sinkNameIsReadFromTheNote_data();
    void sinkNameIsReadFromTheNote();
    void ownerIsTheProgramItself_data();
    void ownerIsTheProgramItself();
};

void PipewireLinksTest::channelsGoToTheirSide_data()
{
    QTest::addColumn<QString>("channel");
    QTest::addColumn<QString>("expected");
    for (const char* channel : {"FL", "SL", "RL", "FLC", "TFL"})
        QTest::newRow(channel) << channel << "L";
    for (const char* channel : {"FR", "SR", "RR", "FRC", "TFR"})
        QTest::newRow(channel) << channel << "R";
    for (const char* channel : {"FC", "LFE", "RC", "MONO", "AUX0", "UNK", "something"})
        QTest::newRow(channel) << channel << "LR";
    QTest::newRow("none") << QString() << "LR";
}

void PipewireLinksTest::channelsGoToTheirSide()
{
    QFETCH(QString, channel);
    Graph graph = graphWithCapture();
    graph.ports[30] = portOf(20, channel.toStdString());
    graph.ports[31] = portOf(21, channel.toStdString(), true, true);
    QTEST(sides(playbackLinks(graph, {20}, captureNode), 30), "expected");
    QTEST(sides(sinkLinks(graph, 21, captureNode), 31), "expected");
}

void PipewireLinksTest::sinkIsHeardThroughItsMonitor()
{
    Graph graph = graphWithCapture();
    graph.ports[30] = portOf(20, "FL", false); // where the sink is played to
    graph.ports[31] = portOf(20, "FL", true, true);
    graph.ports[32] = portOf(20, "FR", true, true);
    graph.ports[33] = portOf(20, "FL", true, false); // of a card that records, too
    graph.ports[34] = portOf(21, "FL", true, true); // of another sink
    const std::set<PortPair> expected = {{20, 31, captureNode, captureLeft}, {20, 32, captureNode, captureRight}};
    QVERIFY(sinkLinks(graph, 20, captureNode) == expected);
}

void PipewireLinksTest::programsAreHeardThroughTheirOutputs()
{
    Graph graph = graphWithCapture();
    graph.ports[30] = portOf(20, "FL");
    graph.ports[31] = portOf(20, "FR");
    graph.ports[32] = portOf(20, "FL", true, true);
    graph.ports[33] = portOf(20, "FL", false);
    const std::set<PortPair> expected = {{20, 30, captureNode, captureLeft}, {20, 31, captureNode, captureRight}};
    QVERIFY(playbackLinks(graph, {20}, captureNode) == expected);
}

void PipewireLinksTest::onlyWantedProgramsAreHeard()
{
    Graph graph = graphWithCapture();
    graph.ports[30] = portOf(20, "MONO");
    graph.ports[31] = portOf(21, "MONO");
    graph.ports[32] = portOf(22, "MONO");
    const auto links = playbackLinks(graph, {20, 22}, captureNode);
    QCOMPARE(sides(links, 30), QStringLiteral("LR"));
    QCOMPARE(sides(links, 31), QString());
    QCOMPARE(sides(links, 32), QStringLiteral("LR"));
    QVERIFY(playbackLinks(graph, {}, captureNode).empty());
}

void PipewireLinksTest::capturesPortsMustBeThere()
{
    Graph graph = graphWithCapture();
    graph.ports[30] = portOf(20, "MONO");
    graph.ports.erase(captureRight);
    QCOMPARE(sides(playbackLinks(graph, {20}, captureNode), 30), QStringLiteral("L"));
    graph.ports.erase(captureLeft);
    QVERIFY(playbackLinks(graph, {20}, captureNode).empty());
}

void PipewireLinksTest::playbackNodesAreThoseOfPrograms()
{
    Graph graph = graphWithCapture();
    graph.clients[2] = Client();
    graph.clients[3] = std::nullopt; // not yet described
    graph.nodes[20] = nodeOf("Stream/Output/Audio", 2);
    graph.nodes[21] = nodeOf("Stream/Output/Audio", 3);
    graph.nodes[22] = nodeOf("Stream/Output/Audio", 4); // unknown yet
    graph.nodes[23] = nodeOf("Stream/Output/Audio", std::nullopt);
    graph.nodes[24] = std::nullopt;
    graph.nodes[25] = nodeOf("Stream/Input/Audio", 2);
    graph.nodes[26] = nodeOf("Audio/Sink", 2);
    graph.nodes[27] = nodeOf("Stream/Output/Audio", 2);
    graph.nodes[27]->loopback = true;
    graph.nodes[28] = nodeOf("Stream/Output/Audio", 2);
    QCOMPARE(playbackNodes(graph, captureNode), (std::vector<uint32_t>{20, 23, 28}));
    QCOMPARE(playbackNodes(graph, 20), (std::vector<uint32_t>{23, 28}));
}

void PipewireLinksTest::defaultSinkIsFoundByName()
{
    Graph graph = graphWithCapture();
    graph.nodes[19] = nodeOf("Stream/Output/Audio", 1, "speaker"); // a program may call itself what it likes
    graph.nodes[20] = nodeOf("Audio/Sink", 1, "speaker");
    graph.nodes[21] = nodeOf("Audio/Duplex", 1, "headset");
    QVERIFY(!defaultSinkNode(graph));
    graph.defaultSink = "speaker";
    QCOMPARE(defaultSinkNode(graph).value_or(0), uint32_t(20));
    graph.defaultSink = "headset";
    QCOMPARE(defaultSinkNode(graph).value_or(0), uint32_t(21));
    graph.defaultSink = "none such";
    QVERIFY(!defaultSinkNode(graph));
}

void PipewireLinksTest::sinkNameIsReadFromTheNote_data()
{
    QTest::addColumn<QByteArray>("note");
    QTest::addColumn<QString>("expected");
    QTest::newRow("as it is") << QByteArray(R"({ "name": "alsa_output.pci" })") << "alsa_output.pci";
    QTest::newRow("dense") << QByteArray(R"({"name":"a"})") << "a";
    QTest::newRow("escapes") << QByteArray(R"({"name":"a\"b\\c"})") << R"(a"b\c)";
    QTest::newRow("among others") << QByteArray(R"({"x":{"name":"no"},"y":[1,2],"name":"yes"})") << "yes";
    QTest::newRow("not there") << QByteArray(R"({"x":"name"})") << QString();
    QTest::newRow("cut off") << QByteArray(R"({"name":)") << QString();
    QTest::newRow("no object") << QByteArray("17") << QString();
    QTest::newRow("empty") << QByteArray("") << QString();
    QTest::newRow("null") << QByteArray() << QString();
}

void PipewireLinksTest::sinkNameIsReadFromTheNote()
{
    QFETCH(QByteArray, note);
    const char* json = note.isNull() ? nullptr : note.constData();
    QTEST(QString::fromStdString(sinkName(json)), "expected");
}

void PipewireLinksTest::ownerIsTheProgramItself_data()
{
    QTest::addColumn<QString>("api");
    QTest::addColumn<qint64>("peer");
    QTest::addColumn<qint64>("clientSays");
    QTest::addColumn<qint64>("nodeSays");
    QTest::addColumn<qint64>("expected");
    QTest::addColumn<QString>("program"); // of the peer
    const auto row = [](const char* name, const char* api, qint64 peer, qint64 client, qint64 node, qint64 expected,
                         const char* program = "") {
        QTest::newRow(name) << QString::fromLatin1(api) << peer << client << node << expected
                            << QString::fromLatin1(program);
    };
    row("the kernel knows", "", 100, 200, 300, 100);
    row("the kernel does not", "", 0, 200, 300, 200);
    row("PulseAudio: the node says", "pipewire-pulse", 100, 200, 300, 300);
    row("PulseAudio: the client says", "pipewire-pulse", 100, 200, 0, 200);
    row("PulseAudio: nobody says", "pipewire-pulse", 100, 0, 0, 0);
    row("nobody", "", 0, 0, 300, 0);
    row("PulseAudio by its own program", "pipewire-pulse", 100, 200, 300, 300, "pipewire-pulse");
    row("PulseAudio within the server", "pipewire-pulse", 100, 200, 300, 300, "pipewire");
    row("another program says it is PulseAudio", "pipewire-pulse", 100, 200, 300, 100, "player");
    row("the same without its process", "pipewire-pulse", 0, 200, 300, 300, "player");
}

void PipewireLinksTest::ownerIsTheProgramItself()
{
    QFETCH(QString, api);
    QFETCH(qint64, peer);
    QFETCH(qint64, clientSays);
    QFETCH(qint64, nodeSays);
    QFETCH(QString, program);
    Graph graph;
    graph.clients[2] = Client();
    graph.clients[2]->api = api.toStdString();
    graph.clients[2]->peerProcessId = peer;
    graph.clients[2]->peerProgram = program.toStdString();
    graph.clients[2]->processId = clientSays;
    Node node = nodeOf("Stream/Output/Audio", 2);
    node.processId = nodeSays;
    QVERIFY(isOwnerKnown(graph, node));
    QTEST(ownerProcess(graph, node), "expected");
    node.client = std::nullopt; // the server's own
    QVERIFY(isOwnerKnown(graph, node));
    QCOMPARE(ownerProcess(graph, node), nodeSays);
    node.client = 3;
    QVERIFY(!isOwnerKnown(graph, node));
}

ORVANTIS_TEST(PipewireLinksTest)
#include "pipewirelinks_test.moc"
