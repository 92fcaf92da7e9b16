// RunStory: what one run of the recorder's log tells, event by event.
#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

/// The log's lines carry no time. What can be known: the recorder's start is in the name of the file, and a click has
/// both a wall-clock time and its place in the recording. The memory is bounded, whatever the lines hold.
class RunStory {
public:
    /// startedAt: invalid when the name of the file does not tell.
    explicit RunStory(const QDateTime& startedAt = QDateTime()) : startedAt_(startedAt) { }

    /// Whether a run begins with this line.
    static bool begins(const QByteArray& line);

    void add(const QByteArray& line);
    /// Whether no line was one of the recorder's.
    bool isEmpty() const { return !isRecognised_; }

    /// For people. isCutOff: the file ends in the middle of a line.
    QStringList toLines(bool isCutOff) const;

private:
    struct Event {
        std::optional<qint64> atMs; ///< since the first frame
        QString text;
        QString meaning; ///< of a warning or worse, and what to do; else empty
        qint64 count = 1;
        bool isStart = false;
    };

    bool addStart(const QByteArray& line);
    bool addStreams(const QByteArray& line);
    bool addCourse(const QByteArray& line);
    bool addEnd(const QByteArray& line);
    bool addClick(const QByteArray& line);
    bool addComplaint(const QByteArray& line);
    void append(Event event, const QString& key);
    void tell(const QString& text, std::optional<qint64> atMs = std::nullopt);
    void tellVersion(const QString& version);
    /// atMs: when it was, if this line tells.
    void tellReadiness(std::optional<qint64> atMs, bool launcherIsTold);
    /// When the first frame came, since the start of the recorder.
    std::optional<qint64> firstFrameMs() const;
    QString timeOf(const Event& event) const;

    QDateTime startedAt_;
    QList<Event> events_;
    QHash<QString, qsizetype> places_; // of the events, by what makes two of them the same
    std::optional<qint64> firstFrameWallMs_; // since 1970
    qint64 clicks_ = 0;
    qint64 leftOut_ = 0; // events beyond the bound
    qint64 complaints_ = 0; // warnings and worse
    bool hasVersion_ = false;
    bool launcherIsTold_ = false; // of the readiness
    bool hasStopped_ = false;
    bool hasEnded_ = false;
    bool isRecognised_ = false;
};
