// A whole recording of an animated window, measured in the file: frames, times, colours, pointer, click markers;
// and the log that goes with it.
#include "desktop.h"
#include "mediafile.h"
#include "privatexserver.h"
#include "recordedfile.h"
#include "recordingscene.h"
#include "testregistry.h"
#include "truthcode.h"
#include "truthreport.h"
#include "truthreporttext.h"
#include "truthscene.h"
#include "truthwindowprocess.h"

#include <QDateTime>
#include <QRegularExpression>
#include <QTest>

#include <algorithm>
#include <cmath>

namespace {

const QRect windowPlace(120, 90, 1280, 720); // pixels of the screen
const QPoint pointerInWindow(1100, 600);
constexpr double arrowAway = 60.0; // pixels: no marker touches the arrow
constexpr int timedClick = 1; // places in the list of clicks
constexpr int lateClick = 4;

/// A click of the run, as the launcher reports it.
struct Click {
    QPointF inWindow; // pixels
    qint64 atMs; // wall clock; the report may be later
    // As the log tells it, in recording time; below 0 when it does not.
    qint64 rawMs = -1;
    qint64 keyMs = -1;
    qint64 delayMs = 0; // from the click to its report
};

/// A frame's time in the file and the time at which the window painted what it shows.
struct Shown {
    double ptsMs;
    qint64 paintedAtMs; // wall clock
    bool key; // the encoder started anew
};

QByteArray clickLine(const Click& click, bool withTime)
{
    const QPointF onScreen = click.inWindow + windowPlace.topLeft();
    QByteArray line = "click|" + QByteArray::number(onScreen.x()) + '|' + QByteArray::number(onScreen.y()) + '|'
        + QByteArray::number(click.inWindow.x() / windowPlace.width(), 'f', 6) + '|'
        + QByteArray::number(click.inWindow.y() / windowPlace.height(), 'f', 6);
    if (withTime)
        line += '|' + QByteArray::number(click.atMs);
    return line + '\n';
}

qint64 wallClockMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

/// Of the marker while it is large. The encoder may leave a trail of a shrinking small one.
double worstErrorPx(const TruthMarker& marker)
{
    constexpr double largeRadius = 8.0; // pixels; the first second
    double worst = 0.0;
    for (const TruthMarker::Sample& sample : marker.samples) {
        if (sample.radius >= largeRadius)
            worst = std::max(worst, sample.errorPx);
    }
    return worst;
}

QList<Shown> shownIn(const QString& path)
{
    QList<Shown> list;
    MediaFile file(path);
    const qint64 nowMs = wallClockMs();
    file.forEachFrame([&](const MediaFrame& frame) {
        const QRectF where = truthscene::letterboxed(windowPlace.size(), frame.image.size());
        if (const auto stamp = truthcode::decode(frame.image, where))
            list.append({frame.ptsMs, nowMs - quint32(quint32(nowMs) - stamp->clockMs), frame.key});
        return true;
    });
    return list;
}

}

/// One recording is made; every test function looks at one side of it.
class RecordingTest : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void replies();
    void container();
    void times();
    void frames();
    void pointer();
    void clickMarkers();
    void clickTimes();
    void logOfTheMainThread();
    void logOfTheWorker();
    void nothingElseInTheLog();

private:
    void record();
    void reportClicks();
    void readKeys();
    /// The wall clock at the start of the recording clock, from a click whose time the recorder was told.
    qint64 startedAtMs() const { return clicks_[timedClick].atMs - clicks_[timedClick].rawMs; }

    PrivateXServer server_;
    std::unique_ptr<TruthWindowProcess> window_;
    std::unique_ptr<RecordingScene> scene_;
    QList<Click> clicks_;
    QByteArray ready_; // what the launcher got before it asked for the stop
    std::optional<qint64> durationMs_;
    QByteArray afterStop_;
    QList<LogLine> log_;
    TruthReport report_;
    QList<Shown> shown_;
};

void RecordingTest::initTestCase()
{
    QVERIFY2(server_.isRunning(), qPrintable(server_.errorString()));
    Desktop desktop(server_.display());
    window_ = std::make_unique<TruthWindowProcess>(server_.display(), windowPlace, 120);
    QVERIFY2(window_->id() != 0, qPrintable(window_->errorString()));
    desktop.movePointer(windowPlace.topLeft() + pointerInWindow);

    scene_ = std::make_unique<RecordingScene>(server_.display(), window_->id());
    scene_->command.canvasWidth = QString::number(windowPlace.width());
    scene_->command.canvasHeight = QString::number(windowPlace.height());
    scene_->command.scale = QStringLiteral("2");
    record();
    if (QTest::currentTestFailed())
        return;

    log_ = scene_->log();
    readKeys();
    TruthQuery query{windowPlace.size(), std::nullopt, QPointF(pointerInWindow), {}};
    for (const Click& click : std::as_const(clicks_))
        query.markers << click.inWindow;
    report_ = measureTruth(scene_->command.output, query);
    QVERIFY2(report_.error.isEmpty(), qPrintable(report_.error));
    shown_ = shownIn(scene_->command.output);
    qInfo().noquote() << truthReportTable(report_);
}

void RecordingTest::record()
{
    QVERIFY2(scene_->startRecording(), scene_->story());
    QVERIFY2(scene_->waitUntilRecorded(300), scene_->story());
    reportClicks();
    QVERIFY2(scene_->waitUntilRecorded(5000), scene_->story());
    ready_ = scene_->launcher.received();
    durationMs_ = scene_->stop();
    QVERIFY2(durationMs_, scene_->story());
    scene_->launcher.clearReceived();
    QVERIFY2(scene_->exit(), scene_->story());
    afterStop_ = scene_->launcher.received();
    QCOMPARE(scene_->recorder.exitCode(), 0);
}

void RecordingTest::reportClicks()
{
    LauncherServer& launcher = scene_->launcher;
    // Without a time: the moment of arrival counts.
    clicks_.append({QPointF(150, 330), wallClockMs()});
    QVERIFY(launcher.send(clickLine(clicks_.last(), false)));
    // With a time, at once.
    QTest::qWait(150);
    clicks_.append({QPointF(300, 420), wallClockMs()});
    QVERIFY(launcher.send(clickLine(clicks_.last(), true)));
    // With a time, reported 2.8 s later: its frame is about to leave the queue.
    QTest::qWait(150);
    const Click late{QPointF(450, 330), wallClockMs()};
    // Two of the old form, which tells no time and needs no line feed.
    QTest::qWait(300);
    clicks_.append({QPointF(600, 420), wallClockMs()});
    clicks_.append({QPointF(750, 330), wallClockMs()});
    QByteArray list;
    for (const Click& click : {clicks_[2], clicks_[3]}) {
        const QPointF onScreen = click.inWindow + windowPlace.topLeft();
        list += '|' + QByteArray::number(onScreen.x()) + '|' + QByteArray::number(onScreen.y());
    }
    QVERIFY(launcher.send(list));
    QTest::qWait(int(std::max<qint64>(late.atMs + 2800 - wallClockMs(), 0)));
    clicks_.append(late);
    QVERIFY(launcher.send(clickLine(late, true)));
}

void RecordingTest::readKeys()
{
    static const QRegularExpression form(
        QStringLiteral("^Recorder mouse click received global QPointF\\((-?[\\d.]+),(-?[\\d.]+)\\) normalized "
                       "QPointF\\([\\d.]+,[\\d.]+\\) has normalized (true|false) timestamp \\d+ receive delay ms "
                       "(-?\\d+) raw recording "
                       "ms (\\d+) overlay delay ms 0 display recording ms (\\d+)$"));
    for (const LogLine& line : std::as_const(log_)) {
        const QRegularExpressionMatch match = form.match(line.text);
        if (!match.hasMatch())
            continue;
        const QPointF inWindow
            = QPointF(match.captured(1).toDouble(), match.captured(2).toDouble()) - windowPlace.topLeft();
        for (Click& click : clicks_) {
            if (click.inWindow != inWindow)
                continue;
            click.delayMs = match.captured(4).toLongLong();
            click.rawMs = match.captured(5).toLongLong();
            click.keyMs = match.captured(6).toLongLong();
        }
    }
}

void RecordingTest::replies()
{
    QCOMPARE(ready_, "1");
    QVERIFY(durationMs_);
    QCOMPARE(afterStop_, "");
}

void RecordingTest::container()
{
    const QList<QByteArray> boxes = topLevelBoxes(scene_->command.output);
    QVERIFY(boxes.size() > 4);
    QCOMPARE(boxes[0], "ftyp");
    QCOMPARE(boxes[1], "moov");
    QCOMPARE(boxes.last(), "mfra");
    for (qsizetype i = 2; i + 1 < boxes.size(); ++i)
        QCOMPARE(boxes[i], i % 2 == 0 ? "moof" : "mdat");
    // A fragment at every 24th frame, and another one when these take longer than a second.
    const qsizetype least = (report_.framesInFile + 23) / 24;
    const qsizetype fragments = boxes.count("moof");
    QVERIFY2(fragments >= least && fragments <= least + *durationMs_ / 1000 + 1, QByteArray::number(fragments));

    const MediaFile file(scene_->command.output);
    QCOMPARE(file.streams().size(), 1);
    QCOMPARE(file.videoStream()->codecId, AV_CODEC_ID_MPEG4);
    QCOMPARE(file.videoStream()->size, windowPlace.size());
}

void RecordingTest::times()
{
    MediaFile file(scene_->command.output);
    const QList<MediaPacket> packets = file.packets();
    QCOMPARE(packets.size(), report_.framesInFile);
    // How many slots were missed depends on what else the machine does; a recorder that never records slower than its
    // source allows and never bursts does not.
    QVERIFY(packets.first().ptsMs >= 0.0);
    for (qsizetype i = 1; i < packets.size(); ++i)
        QVERIFY2(packets[i].ptsMs > packets[i - 1].ptsMs, qPrintable(QString::number(packets[i].ptsMs)));
    const double lastMs = packets.last().ptsMs;
    QVERIFY2(double(packets.size() - 1) <= lastMs / 41.0 + 2.0, qPrintable(QString::number(packets.size())));
    QVERIFY(double(packets.size() + report_.missedSlots) >= lastMs / 41.0 - 2.0);
    QVERIFY2(lastMs <= double(*durationMs_), qPrintable(QString::number(lastMs)));
    QVERIFY(*durationMs_ >= 5000);
    // The file ends with its last frame.
    QVERIFY2(
        std::abs(file.durationMs() - double(*durationMs_)) < 1000.0, qPrintable(QString::number(file.durationMs())));

    // No frame is older than the one before it, and none shows what was painted after its time.
    const QList<Shown>& shown = shown_;
    QCOMPARE(shown.size(), packets.size());
    for (qsizetype i = 0; i < shown.size(); ++i) {
        QVERIFY(i == 0 || shown[i].paintedAtMs >= shown[i - 1].paintedAtMs);
        constexpr double roundingMs = 1.0;
        QVERIFY(double(shown[i].paintedAtMs) <= double(startedAtMs()) + shown[i].ptsMs + roundingMs);
    }
    // A busy machine makes frames late, and the window, too. What the recorder itself puts between painting and time
    // shows in the frame that was held up least.
    const auto ageMs
        = [this](const Shown& frame) { return double(startedAtMs()) + frame.ptsMs - double(frame.paintedAtMs); };
    const auto freshest = std::min_element(
        shown_.begin(), shown_.end(), [&](const Shown& a, const Shown& b) { return ageMs(a) < ageMs(b); });
    QVERIFY2(ageMs(*freshest) < 41.0, QByteArray::number(ageMs(*freshest)));
}

void RecordingTest::frames()
{
    QVERIFY(report_.coloursTagged);
    QCOMPARE(report_.framesDecoded, report_.framesInFile);
    for (const TruthPatch& patch : std::as_const(report_.patches)) {
        for (std::size_t channel = 0; channel < patch.mean.size(); ++channel) {
            QVERIFY2(patch.mean[channel] <= 5.0, qPrintable(truthReportTable(report_)));
            QVERIFY2(patch.max[channel] <= 16, qPrintable(truthReportTable(report_)));
        }
    }
}

void RecordingTest::pointer()
{
    QVERIFY(report_.pointer);
    QCOMPARE(report_.pointer->framesSeen, report_.framesInFile);
    QVERIFY2(report_.pointer->worstErrorPx <= 1.5, qPrintable(truthReportTable(report_)));
    QVERIFY2(report_.pointer->medianErrorPx <= 0.5, qPrintable(truthReportTable(report_)));
    for (const Click& click : std::as_const(clicks_))
        QVERIFY(std::hypot(click.inWindow.x() - pointerInWindow.x(), click.inWindow.y() - pointerInWindow.y())
            > arrowAway);
}

void RecordingTest::clickMarkers()
{
    const QList<Shown>& shown = shown_;
    QCOMPARE(report_.markers.size(), clicks_.size());
    for (qsizetype i = 0; i < clicks_.size(); ++i) {
        const TruthMarker& marker = report_.markers[i];
        const Click& click = clicks_[i];
        const QByteArray which = QByteArray::number(i) + '\n' + truthReportTable(report_).toUtf8();
        QVERIFY2(click.keyMs >= 0, which);
        QVERIFY2(worstErrorPx(marker) <= 1.5, which);
        QVERIFY2(marker.medianErrorPx <= 1.0, which);

        // From the first frame of its time on (a report that came so late that this frame had left the queue
        // counts from the next ones), for the next 1.5 seconds; then it gets too faint to tell.
        const qint64 fromMs = std::max(click.keyMs, click.keyMs + click.delayMs - 3000);
        const auto first = std::find_if(
            shown.begin(), shown.end(), [&](const Shown& frame) { return frame.ptsMs >= double(fromMs); });
        QVERIFY2(first != shown.end() && first != shown.begin(), which);
        QCOMPARE(marker.firstSeenPtsMs, first->ptsMs);
        const auto frames = std::count_if(
            first, shown.end(), [&](const Shown& frame) { return frame.ptsMs <= double(click.keyMs) + 1500.0; });
        QVERIFY2(marker.samples.size() >= frames, which);
        // Then it is gone; what the encoder leaves of it is gone with the next frame that builds on no other.
        const auto fresh = std::find_if(first, shown.end(),
            [&](const Shown& frame) { return frame.key && frame.ptsMs > double(click.keyMs) + 2000.0; });
        QVERIFY2(fresh != shown.end() && marker.lastSeenPtsMs < fresh->ptsMs, which);
    }
}

void RecordingTest::clickTimes()
{
    // With a time, however late the report is: exactly that time.
    QCOMPARE(clicks_[lateClick].rawMs, clicks_[lateClick].atMs - startedAtMs());
    QVERIFY(clicks_[lateClick].delayMs >= 2800);
    // Without: when it came.
    for (const Click& click : {clicks_[0], clicks_[2], clicks_[3]}) {
        const qint64 onTheWayMs = click.rawMs - (click.atMs - startedAtMs());
        QVERIFY2(onTheWayMs >= -1 && onTheWayMs < 2000, qPrintable(QString::number(onTheWayMs)));
        QCOMPARE(click.delayMs, 0);
    }
    // Two at one time take a millisecond each.
    QVERIFY(clicks_[3].keyMs > clicks_[2].keyMs);
}

void RecordingTest::logOfTheMainThread()
{
    const QStringList starts{
        QStringLiteral("0 "),
        QStringLiteral("10 "),
        QStringLiteral("recorder process identity pid "),
        QStringLiteral("recorder environment QT_PLUGIN_PATH "),
        QStringLiteral("recorder Qt library paths "),
        QStringLiteral("FFmpeg recorder starting command \"qt-window-capture\" window "),
        QStringLiteral("macOS CoreGraphics capture requested for window id "),
        QStringLiteral("macOS screen recording preflight before request true"),
        QStringLiteral("macOS CoreGraphics capture configured for window %1").arg(window_->id()),
        QStringLiteral("sending frame come"),
        QStringLiteral("FFmpeg recorder stopped, duration %1").arg(*durationMs_),
        QStringLiteral("recorder exiting 0"),
    };
    qsizetype previous = -1;
    for (const QString& start : starts) {
        QCOMPARE(countLines(log_, start), 1);
        const auto found = std::find_if(
            log_.cbegin(), log_.cend(), [&](const LogLine& line) { return line.text.startsWith(start); });
        QCOMPARE(found->level, "Debug");
        QVERIFY2(found - log_.cbegin() > previous, qPrintable(start));
        previous = found - log_.cbegin();
    }
    QCOMPARE(previous, log_.size() - 1);
}

void RecordingTest::logOfTheWorker()
{
    const QString output = QLatin1Char('"') + scene_->command.output + QLatin1Char('"');
    const QStringList lines{
        QStringLiteral(
            "Warning: macOS ScreenCaptureKit shareable content lookup failed: \"PipeWire cannot be reached: "
            "Host is down\""),
        QStringLiteral("Warning: Continuing video recording without audio."),
        QStringLiteral("Debug: FFmpeg recorder using video encoder \"mpeg4\" output %1 container mp4 pixel format "
                       "yuv420p bitrate 6000000")
            .arg(output),
        QStringLiteral("Debug: Skipping initial window capture warmup frames frames 3 settle ms 0"),
        QStringLiteral("Debug: Recorder ready; delaying first encoded frame 500 ms"),
        QStringLiteral("Debug: FFmpeg recorder finalized output %1 duration %2").arg(output).arg(*durationMs_),
    };
    QStringList all;
    for (const LogLine& line : std::as_const(log_))
        all << QString::fromLatin1(line.level) + QStringLiteral(": ") + line.text;
    qsizetype previous = -1;
    for (const QString& line : lines) {
        QVERIFY2(all.count(line) == 1, qPrintable(line));
        QVERIFY2(all.indexOf(line) > previous, qPrintable(line));
        previous = all.indexOf(line);
    }
    // The file is whole before the stop is acknowledged.
    QVERIFY(previous < all.indexOf(QStringLiteral("Debug: FFmpeg recorder stopped, duration %1").arg(*durationMs_)));
}

void RecordingTest::nothingElseInTheLog()
{
    const int argumentLines = 11;
    const int ofTheMainThread = 11; // of the list above, without the two arguments, and the version
    const int ofTheWorker = 6;
    const int clickLines = countLines(log_, QStringLiteral("Recorder mouse click received global "));
    QCOMPARE(log_.size(), argumentLines + ofTheMainThread + ofTheWorker + clickLines);
}

ORVANTIS_TEST(RecordingTest)
#include "recording_test.moc"
