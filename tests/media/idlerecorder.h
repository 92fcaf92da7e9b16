// IdleRecorder: a recorder whose worker has ended before it opened anything. The test then drives the media output
// itself, on its own thread, through the probe.
#pragma once

#include "fakeaudio.h"
#include "fakeplatform.h"
#include "launcherserver.h"
#include "logcapture.h"
#include "pacing.h"
#include "privatetempdir.h"
#include "recorderprobe.h"
#include "testimages.h"

#include <QDir>
#include <QList>
#include <QSize>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <memory>
#include <sys/stat.h>

/// How many files this process has open. Pipes and sockets do not count: Qt's threads come and go with theirs.
inline qsizetype openDescriptors()
{
    const auto names
        = QDir(QStringLiteral("/dev/fd")).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    return std::count_if(names.begin(), names.end(), [](const QString& name) {
        struct stat entry = {};
        return ::fstat(name.toInt(), &entry) == 0 && S_ISREG(entry.st_mode);
    });
}

/// The platform refuses the capture, so the worker has nothing to record; the launcher listens, so the constructor
/// does not wait. What all that logs is not kept: the log begins with the test's own calls.
class IdleRecorder {
public:
    /// outputName is relative to the private directory; the canvas is in pixels.
    explicit IdleRecorder(
        const QString& outputName = QStringLiteral("clip.mp4"), const QSize& canvas = QSize(320, 240))
        : recorder_(makeRecorder(directory_.filePath(outputName), canvas)), probe_(*recorder_)
    {
        if (!launcher_.isListening())
            qFatal("The launcher does not listen: %s", qUtf8Printable(launcher_.errorString()));
        probe_.waitForWorker();
        log_.clear();
    }

    RecorderProbe& operator*() { return probe_; }
    RecorderProbe* operator->() { return &probe_; }
    LogCapture& log() { return log_; }
    QString filePath(const QString& name) const { return directory_.filePath(name); }

    QSize canvas() { return QSize(probe_.canvasWidth(), probe_.canvasHeight()); }

    /// The warnings in their order, without those about a platform that has no audio.
    QStringList warnings() const
    {
        QStringList list = log_.messages(QtWarningMsg);
        list.removeAll(QStringLiteral("macOS ScreenCaptureKit shareable content lookup failed: \"%1\"")
                           .arg(fakeplatform::noAudioError));
        list.removeAll(QStringLiteral("Continuing video recording without audio."));
        return list;
    }
    QStringList criticals() const { return log_.messages(QtCriticalMsg); }

    /// Neither a warning nor an error so far.
    bool wasQuiet() const { return warnings().isEmpty() && criticals().isEmpty(); }

    /// Every FFmpeg object and the audio are gone and no header waits for its trailer.
    bool isClosed()
    {
        return !probe_.formatContext() && !probe_.videoCodecContext() && !probe_.videoStream() && !probe_.videoFrame()
            && !probe_.swsContext() && !probe_.headerWritten() && isSilent();
    }

    /// Nothing is left of the audio.
    bool isSilent()
    {
        return !probe_.audioCapture() && !probe_.audioCodecContext() && !probe_.audioStream() && !probe_.audioFifo()
            && !probe_.audioResampler() && !probe_.audioStarted() && !probe_.audioPcmLogged()
            && probe_.audioSamplesWritten() == 0;
    }

    /// One walking frame for each time (recording milliseconds), the first one being number `first`. False when one
    /// was refused.
    bool encode(const QList<qint64>& timesMs, int first = 0)
    {
        for (qsizetype i = 0; i < timesMs.size(); ++i) {
            if (!probe_.encodeImage(testimages::walking(canvas(), first + int(i)), timesMs[i]))
                return false;
        }
        return true;
    }

    /// The end of a recording, as the recording loop makes it.
    bool finish()
    {
        const bool drained = probe_.drainEncoder();
        probe_.closeOutput();
        return drained;
    }

    /// A whole recording.
    bool record(const QList<qint64>& timesMs) { return probe_.openOutput() && encode(timesMs) && finish(); }

    /// Times of `count` frames that come as regularly as the recording loop takes them.
    static QList<qint64> steadyTimes(int count, int first = 0)
    {
        QList<qint64> times;
        for (int i = first; i < first + count; ++i)
            times.append(qint64(i) * pacing::frameIntervalMs);
        return times;
    }

    /// Ends the recorder, as the end of the process's main function would.
    void destroy() { recorder_.reset(); }

private:
    static std::unique_ptr<GstRecorder> makeRecorder(const QString& output, const QSize& canvas)
    {
        fakeplatform::reset();
        fakeplatform::state().preflightAnswers = {false};
        fakeplatform::state().requestAnswer = false;
        return std::make_unique<GstRecorder>(QStringLiteral("qt-window-capture"), output, QStringLiteral("1"), 0, 0,
            canvas.width(), canvas.height(), 1.0, QString(), nullptr);
    }

    PrivateTempDir directory_;
    LogCapture log_;
    LauncherServer launcher_;
    std::unique_ptr<GstRecorder> recorder_;
    RecorderProbe probe_;
};
