// NewFile: a file that appears under its name when it is whole, and not before.
#pragma once

#include <QByteArray>
#include <QString>

/// Written under a temporary name beside its own; without commit() nothing of it is left. For the user alone (mode
/// 0600). One thread.
class NewFile {
public:
    NewFile() = default;
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    /// Makes the temporary file, empty. Empty, or why not, in one sentence.
    QString make(const QString& path, bool overwriting);
    const QString& temporaryPath() const { return temporary_; }
    /// Gives it its name. Without overwriting a file that has come there meanwhile stays. Empty, or why not.
    QString commit();

private:
    QByteArray path_;
    QString temporary_; // empty: there is none
    bool overwriting_ = false;
};

/// A name that the command line gives to a file that is to be made.
struct NewFileName {
    QString path; ///< absolute
    QString error; ///< not empty: the name is refused, in one sentence
};

/// option: what to call it in the sentence. suffix: what the name has to end in, like ".webm". madeDirectory: a
/// directory that will be there by then; can be empty. Makes nothing.
NewFileName chooseNewFile(const QString& option, const QString& given, const QString& suffix, bool overwriting,
    const QString& madeDirectory);

/// Whether both names lead to one file that is there.
bool isSameFile(const QString& one, const QString& other);
