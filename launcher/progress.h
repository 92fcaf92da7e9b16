// Progress: what record-window tells people while it works. Everything goes to standard error; what that does not
// take at once is left out, for nobody who does not read may hold up the recording.
#pragma once

#include <QElapsedTimer>
#include <QString>

class Progress {
public:
    /// quiet: warnings only. On a terminal that can do it the progress is one line that changes, elsewhere one
    /// line after another.
    explicit Progress(bool quiet);
    ~Progress() { closeLine(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// A step that happened.
    void step(const QString& text);
    /// A warning; shown also when quiet was asked for.
    void warn(const QString& text);
    /// How far the recording has come.
    struct Recorded {
        qint64 elapsedMs = 0;
        qint64 frames = -1; ///< in the file; below 0: not known yet
        qint64 fileSize = -1; ///< bytes; below 0: not known yet
        qint64 clicks = 0; ///< reported to the recorder
    };
    void recorded(const Recorded& recorded);
    /// How far the copy has come, from 0 to 1, when it is made. May be called all the time.
    void copied(double done);

private:
    void show(const QString& line);
    void closeLine();

    bool quiet_;
    bool changesOneLine_;
    bool lineIsOpen_ = false;
    int percentShown_ = -1; // of the copy
    QElapsedTimer shownAt_; // likewise
};

/// "1:02:03", or "02:03" in the first hour
QString timeText(qint64 elapsedMs);

/// "4.2 MB"
QString sizeText(qint64 bytes);
