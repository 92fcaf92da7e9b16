// OutputClaim: the output file, held for one recording from before the recorder starts until after it has ended.
#pragma once

#include <QByteArray>
#include <QString>

/// Of two claims to one file the second is refused, also in another process. A file that the claim has made and that
/// is still empty goes with it. One thread.
class OutputClaim {
public:
    OutputClaim() = default;
    ~OutputClaim();
    OutputClaim(const OutputClaim&) = delete;
    OutputClaim& operator=(const OutputClaim&) = delete;

    /// path: absolute, in a directory that exists. Without overwriting a file that is there is refused. Empty, or why
    /// the file cannot be had, in one sentence.
    QString take(const QString& path, bool overwriting);

    /// Removes the file and, when there was none, the fallback's, unless they were there before.
    void discard(const QString& written);

private:
    QByteArray path_;
    QByteArray fallback_;
    int descriptor_ = -1;
    bool made_ = false; // there was no such file
    bool fallbackWasThere_ = false;
};
