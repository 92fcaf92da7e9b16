// Memory that is refused to the recorder and its libraries (refusedmemory.cpp), each allocation of a short recording
// in turn: the file is whole, or a line says why not; nothing hangs, and it is never the project's own code that ends
// the process. ORVANTIS_REFUSALS says how many are taken at most.
#include "audioscene.h"
#include "privateaudioserver.h"
#include "privatexserver.h"
#include "recordedfile.h"
#include "testregistry.h"
#include "truthwindowprocess.h"

#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <algorithm>
#include <csignal>
#include <map>
#include <memory>
#include <vector>

namespace {

constexpr int everydayRuns = 32;
constexpr int runsAtOnce = 16;
constexpr int readyLimitMs = 15'000; // of a recorder that has lost its launcher, its window or its output, maybe
constexpr int endLimitMs = 90'000; // the process gives its worker 60 s
constexpr int recordedMs = 800; // 500 of them before the recording clock starts
const QByteArray lastLine = "Fatal: recorder is ended by a fault of the program or for want of memory; ";

/// A recording of which one allocation is refused.
class RefusedScene {
public:
    RefusedScene(
        const QByteArray& display, quint32 window, const PrivateAudioServer& audio, bool hasAudio, qint64 refused)
        : scene(display, window, audio, hasAudio ? QString() : QStringLiteral("app-pid:none"))
    {
        scene.command.canvasWidth = QStringLiteral("320");
        scene.command.canvasHeight = QStringLiteral("240");
        scene.recorder.setVariable(QStringLiteral("LD_PRELOAD"), QStringLiteral(REFUSED_MEMORY));
        scene.recorder.setVariable(QStringLiteral("REFUSED_MEMORY_NTH"), QString::number(refused));
        scene.recorder.setVariable(QStringLiteral("REFUSED_MEMORY_REPORT"), reportPath());
    }

    bool start() { return scene.launcher.isListening() && scene.recorder.start(scene.command.arguments()); }

    /// Ready, or not to be expected to get so.
    bool isReady()
    {
        const QByteArray lines = scene.recorder.standardError();
        return scene.launcher.received().contains('1') || !scene.recorder.isRunning()
            || lines.contains("\nCritical: ")
            || lines.contains("Unable to connect to browser recorder control socket");
    }
    bool isAnswered() { return scene.launcher.received().contains('\n') || !scene.recorder.isRunning(); }

    QByteArray report() const
    {
        QFile file(reportPath());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    /// How many allocations there were; after an orderly end.
    qint64 counted() const
    {
        const QByteArray text = report();
        const qsizetype place = text.lastIndexOf("counted ");
        return place < 0 ? 0 : text.mid(place + 8).trimmed().toLongLong();
    }

    /// The program itself asked for the memory: its own code is the first caller that is not the C++ library's.
    bool wasOwnAllocation() const { return firstModuleIn(section("refused ")).startsWith("orvantis-recorder"); }
    /// It was in its own code when the fault came. The C library's first frame is the one that calls the handler.
    bool wasOwnFault() const
    {
        const QByteArray callers = section("raised ");
        return firstModuleIn(callers.mid(callers.indexOf("/libc.so"))).startsWith("orvantis-recorder");
    }

    AudioScene scene;

private:
    /// The report from a line on.
    QByteArray section(const QByteArray& start) const
    {
        const QByteArray text = report();
        const qsizetype place = text.indexOf(start);
        return place < 0 ? QByteArray() : text.mid(place);
    }

    /// Of the callers that are listed there, without those of the shared libraries below C++.
    static QByteArray firstModuleIn(const QByteArray& callers)
    {
        for (const QByteArray& line : callers.split('\n')) {
            const QByteArray module = line.left(line.indexOf('(')).split('/').last();
            const bool isBelow = module.startsWith("libstdc++") || module.startsWith("libc.so")
                || module.startsWith("libgcc") || module == "librefusedmemory.so";
            if (line.contains('(') && !isBelow)
                return module;
        }
        return QByteArray();
    }

    QString reportPath() const { return scene.directory.filePath(QStringLiteral("report")); }
};

using Batch = std::vector<std::unique_ptr<RefusedScene>>;

/// The recorder itself tells of something besides the lines of a recording that went well; what a library prints does
/// not count.
bool saysWhy(const QByteArray& lines)
{
    const QList<QByteArray> all = lines.split('\n');
    return std::any_of(all.begin(), all.end(), [](const QByteArray& line) {
        const bool isTold
            = line.startsWith("Warning: ") || line.startsWith("Critical: ") || line.startsWith("Fatal: ");
        const bool isUsual
            = line.contains("invalid app-pid device") || line.contains("Continuing video recording without audio");
        return isTold && !isUsual;
    });
}

/// Empty when it ended as it may.
QByteArray objectionTo(RefusedScene& run)
{
    AudioScene& scene = run.scene;
    if (scene.recorder.isRunning())
        return "it hangs";
    const int code = scene.recorder.exitCode();
    const QByteArray lines = scene.recorder.standardError();
    const Playback file = playBack(scene.command.output);
    const bool isWhole = file.isWhole() || playBack(scene.directory.filePath(QStringLiteral("out.mkv"))).plays();
    if (code < 0) {
        if (run.wasOwnAllocation() || run.wasOwnFault())
            return "the program's own code ended it by signal " + QByteArray::number(-code);
        if (!lines.contains(lastLine))
            return "it ended by signal " + QByteArray::number(-code) + " without a last line";
    } else if (code != 128 + SIGTERM && code > 2) {
        return "exit code " + QByteArray::number(code);
    } else if (!isWhole && !saysWhy(lines)) {
        return "no whole file, and no line that says why";
    }
    // Without a fragment there is nothing to be played.
    const bool hasFrames = topLevelBoxes(scene.command.output).contains("mdat");
    return hasFrames && !file.plays() ? "the file does not play: " + file.description() : QByteArray();
}

}

class RefusedMemoryTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void mainThreadIsRefusedMemory();
    void anyAllocationIsRefused_data();
    void anyAllocationIsRefused();

private:
    std::unique_ptr<RefusedScene> sceneWith(bool hasAudio, qint64 refused) const;
    static void run(Batch& batch);

    PrivateXServer server_;
    PrivateAudioServer audioServer_;
    std::unique_ptr<TruthWindowProcess> window_;
};

void RefusedMemoryTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    window_ = std::make_unique<TruthWindowProcess>(server_.display());
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
    QVERIFY2(audioServer_.isRunning(), qPrintable(audioServer_.errorString()));
}

std::unique_ptr<RefusedScene> RefusedMemoryTest::sceneWith(bool hasAudio, qint64 refused) const
{
    return std::make_unique<RefusedScene>(server_.display(), window_->id(), audioServer_, hasAudio, refused);
}

/// Records a while, stops and ends them, all at the same time.
void RefusedMemoryTest::run(Batch& batch)
{
    const auto all = [&](bool (RefusedScene::*holds)()) {
        return [&batch, holds] {
            return std::all_of(batch.begin(), batch.end(), [&](const auto& run) { return (run.get()->*holds)(); });
        };
    };
    for (const auto& run : batch)
        QVERIFY(run->start());
    (void)QTest::qWaitFor(all(&RefusedScene::isReady), readyLimitMs);
    QTest::qWait(recordedMs);
    for (const auto& run : batch)
        run->scene.launcher.send("click|10|10|-1|-1\n{\"action\":\"stop\"}\n");
    (void)QTest::qWaitFor(all(&RefusedScene::isAnswered), readyLimitMs);
    for (const auto& run : batch)
        run->scene.recorder.send(SIGTERM);
    for (const auto& run : batch)
        (void)run->scene.recorder.waitForEnd(endLimitMs);
}

/// An unfinished line grows to 512 KiB, and nothing else is as large.
void RefusedMemoryTest::mainThreadIsRefusedMemory()
{
    const auto refused = sceneWith(false, 1);
    RefusedScene& run = *refused;
    run.scene.recorder.setVariable(QStringLiteral("REFUSED_MEMORY_LEAST"), QString::number((512 << 10) - 64));
    run.scene.recorder.setVariable(QStringLiteral("REFUSED_MEMORY_MOST"), QString::number((512 << 10) + 64));
    QVERIFY2(run.scene.startRecording(), run.scene.story());
    QVERIFY2(run.scene.waitUntilRecorded(300), run.scene.story());
    QVERIFY(run.scene.launcher.send(QByteArray(600 << 10, 'x')));
    QVERIFY2(run.scene.recorder.waitForEnd(), run.scene.story());
    QCOMPARE(run.scene.recorder.exitCode(), 1);
    QCOMPARE(countLines(run.scene.log(),
                 QStringLiteral("Recorder was interrupted by an exception; finishing the file and ending: "
                                "std::bad_alloc")),
        1);
    const Playback file = playBack(run.scene.command.output);
    QVERIFY2(file.isWhole(), file.description());
}

void RefusedMemoryTest::anyAllocationIsRefused_data()
{
    QTest::addColumn<bool>("hasAudio");
    QTest::newRow("video") << false;
    QTest::newRow("video and audio") << true;
}

void RefusedMemoryTest::anyAllocationIsRefused()
{
    QFETCH(const bool, hasAudio);
    Batch counting;
    counting.push_back(sceneWith(hasAudio, 0));
    run(counting);
    const qint64 count = counting.front()->counted();
    QVERIFY2(count > 1000, counting.front()->scene.story());
    QCOMPARE(objectionTo(*counting.front()), QByteArray());

    const int wanted = qEnvironmentVariableIntValue("ORVANTIS_REFUSALS");
    const qint64 step = std::max<qint64>(count / (wanted > 0 ? wanted : everydayRuns), 1);
    QByteArrayList objections;
    std::map<QByteArray, int> ends;
    for (qint64 first = 1; first <= count; first += step * runsAtOnce) {
        Batch batch;
        for (qint64 refused = first; refused <= count && int(batch.size()) < runsAtOnce; refused += step)
            batch.push_back(sceneWith(hasAudio, refused));
        run(batch);
        for (std::size_t i = 0; i < batch.size(); ++i) {
            RefusedScene& one = *batch[i];
            if (const QByteArray objection = objectionTo(one); !objection.isEmpty())
                objections << "allocation " + QByteArray::number(first + qint64(i) * step) + ": " + objection + "\n"
                        + one.report().left(3000) + one.scene.recorder.standardError().right(600);
            const bool isWhole = playBack(one.scene.command.output).isWhole();
            ++ends[QByteArray(isWhole ? "whole file" : "no whole file") + ", exit code "
                + QByteArray::number(one.scene.recorder.exitCode())];
        }
    }
    qInfo("%lld allocations", static_cast<long long>(count));
    for (const auto& [end, times] : ends)
        qInfo("%d times %s", times, end.constData());
    QVERIFY2(objections.isEmpty(), objections.join("\n").constData());
}

ORVANTIS_TEST(RefusedMemoryTest)
#include "refusedmemory_test.moc"
