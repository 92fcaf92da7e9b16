// Recordings of a window that is a node of PipeWire: no display, no position, a connection that may be inherited.
#include "descriptor.h"
#include "privateaudioserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthoverlay.h"
#include "videonode.h"

#include <QImage>
#include <QPainter>
#include <QTest>

#include <cmath>
#include <memory>

#include <spa/param/video/raw.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

const QSize size(640, 360); // of window and canvas
const QRect field(0, 80, 640, 280);
const QPoint pointer(200, 200);
const QPointF clicked(480, 270);

/// A field as truthoverlay wants it, below something blue.
QImage content()
{
    QImage image(size, QImage::Format_ARGB32);
    image.fill(QColor(128, 128, 128));
    QPainter(&image).fillRect(0, 0, 640, 60, Qt::blue);
    return image;
}

bool isBlue(QRgb pixel)
{
    return qBlue(pixel) > 200 && qRed(pixel) < 60 && qGreen(pixel) < 60;
}

}

class NodeRecordingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void pointerAndClicks();
    void endOfTheStream();
    void inheritedConnection();
    void wrongDescriptor_data();
    void wrongDescriptor();
    void permission();

private:
    std::unique_ptr<RecordingScene> scene(quint32 node) const;

    PrivateAudioServer server_;
    std::unique_ptr<VideoNode> node_;
};

void NodeRecordingTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    server_.apply();
    VideoNode::Options options;
    options.size = size;
    options.format = SPA_VIDEO_FORMAT_BGRx;
    options.atStart = NodeFrame{content(), {}, pointer, {}};
    node_ = std::make_unique<VideoNode>(options);
    QVERIFY(node_->id() != 0);
}

std::unique_ptr<RecordingScene> NodeRecordingTest::scene(quint32 node) const
{
    auto made = std::make_unique<RecordingScene>(QByteArray(), node);
    made->recorder.setVariable(QStringLiteral("ORVANTIS_WINDOW_SOURCE"), QStringLiteral("pipewire"));
    made->recorder.setVariable(
        QStringLiteral("XDG_RUNTIME_DIR"), server_.environment().value(QStringLiteral("XDG_RUNTIME_DIR")));
    return made;
}

/// The global position of the click lies where a window at 0, 0 would be; the fractions of the window count.
void NodeRecordingTest::pointerAndClicks()
{
    const auto recording = scene(node_->id());
    QVERIFY2(recording->startRecording(), recording->story());
    QVERIFY2(recording->waitUntilRecorded(300), recording->story());
    QVERIFY(recording->launcher.send("click|250|150|0.75|0.75\n"));
    QVERIFY2(recording->waitUntilRecorded(800), recording->story());
    QVERIFY2(recording->stopAndExit(), recording->story());
    const Playback file = playBack(recording->command.output);
    QVERIFY2(file.isWhole(), file.description());
    QVERIFY(isBlue(file.last.pixel(320, 30)));
    const auto tip = truthoverlay::findPointer(file.last, field.adjusted(0, 0, -320, 0), 1.0);
    QVERIFY(tip);
    QVERIFY(std::hypot(tip->x() - pointer.x(), tip->y() - pointer.y()) < 1.5);
    const auto markers = truthoverlay::findMarkers(file.last, field);
    QCOMPARE(markers.size(), 1);
    QVERIFY(std::hypot(markers.first().centre.x() - clicked.x(), markers.first().centre.y() - clicked.y()) < 1.5);
}

void NodeRecordingTest::endOfTheStream()
{
    VideoNode::Options options;
    options.size = size;
    options.atStart = NodeFrame{content(), {}, {}, {}};
    auto node = std::make_unique<VideoNode>(options);
    const auto recording = scene(node->id());
    QVERIFY2(recording->startRecording(), recording->story());
    QVERIFY2(recording->waitUntilRecorded(300), recording->story());
    node.reset();
    QVERIFY2(
        recording->waitForLine(QStringLiteral("Window's PipeWire stream has ended; node: ")), recording->story());
    QVERIFY2(recording->stopAndExit(), recording->story());
    QVERIFY2(playBack(recording->command.output).isWhole(), recording->story());
}

/// As of a portal: the recorder finds no server by itself.
void NodeRecordingTest::inheritedConnection()
{
    const QByteArray path
        = server_.environment().value(QStringLiteral("XDG_RUNTIME_DIR")).toLocal8Bit() + "/pipewire-0";
    const Descriptor connection(::socket(AF_UNIX, SOCK_STREAM, 0)); // not closed by exec
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, path.constData(), sizeof(address.sun_path));
    QCOMPARE(::connect(connection.number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    const auto recording = scene(node_->id());
    recording->recorder.setVariable(QStringLiteral("PIPEWIRE_REMOTE"), QStringLiteral("none"));
    recording->recorder.setVariable(QStringLiteral("ORVANTIS_PIPEWIRE_FD"), QString::number(connection.number()));
    QVERIFY2(recording->startRecording(), recording->story());
    QVERIFY2(recording->waitUntilRecorded(300), recording->story());
    QVERIFY2(recording->stopAndExit(), recording->story());
    const Playback file = playBack(recording->command.output);
    QVERIFY2(file.isWhole(), file.description());
    QVERIFY(isBlue(file.last.pixel(320, 30)));
}

void NodeRecordingTest::wrongDescriptor_data()
{
    QTest::addColumn<QString>("number");
    QTest::newRow("not open") << QStringLiteral("987");
    QTest::newRow("stderr") << QStringLiteral("2");
    QTest::newRow("no number") << QStringLiteral("3x");
    QTest::newRow("below 0") << QStringLiteral("-1");
    QTest::newRow("a pipe") << QStringLiteral("pipe");
}

/// It is no reason to look for PipeWire elsewhere.
void NodeRecordingTest::wrongDescriptor()
{
    QFETCH(QString, number);
    int ends[2] = {-1, -1};
    QCOMPARE(::pipe(ends), 0);
    const Descriptor reader(ends[0]);
    const Descriptor writer(ends[1]);
    if (number == QStringLiteral("pipe"))
        number = QString::number(reader.number());
    const auto recording = scene(node_->id());
    recording->recorder.setVariable(QStringLiteral("ORVANTIS_PIPEWIRE_FD"), number);
    QVERIFY(recording->recorder.start(recording->command.arguments()));
    QVERIFY2(recording->recorder.waitForEnd(), recording->story());
    QCOMPARE(recording->recorder.exitCode(), 2);
    QVERIFY(countLines(recording->log(),
                QStringLiteral("PipeWire is not there for the capture of windows: \"ORVANTIS_PIPEWIRE_FD is not the "
                               "descriptor of a connected local socket: %1\"")
                    .arg(number))
        > 0);
}

void NodeRecordingTest::permission()
{
    for (const bool isThere : {true, false}) {
        const auto asked = scene(0);
        if (!isThere)
            asked->recorder.setVariable(QStringLiteral("PIPEWIRE_REMOTE"), QStringLiteral("none"));
        QVERIFY(asked->recorder.start({QStringLiteral("--request-permissions")}));
        QVERIFY2(asked->recorder.waitForEnd(), asked->story());
        QCOMPARE(asked->recorder.exitCode(), isThere ? 0 : 2);
    }
}

ORVANTIS_TEST(NodeRecordingTest)
#include "noderecording_test.moc"
