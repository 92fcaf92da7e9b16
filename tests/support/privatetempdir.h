// PrivateTempDir: a temporary directory that no other test and no user's recorder shares.
#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>
#include <QtGlobal>

/// Makes a directory with mode 0700 and points TMPDIR at it for its lifetime; at the end the directory is removed
/// and TMPDIR gets its old value back. The control socket lies in TMPDIR, and a socket's path has room for
/// about 100 bytes, so the name is short. Make it before any thread starts: the environment is the whole
/// process's.
class PrivateTempDir {
public:
    PrivateTempDir() : hadTmpDir_(qEnvironmentVariableIsSet("TMPDIR")), oldTmpDir_(qgetenv("TMPDIR"))
    {
        if (!directory_.isValid())
            qFatal("No private temporary directory: %s", qUtf8Printable(directory_.errorString()));
        qputenv("TMPDIR", directory_.path().toLocal8Bit());
    }

    ~PrivateTempDir()
    {
        if (hadTmpDir_)
            qputenv("TMPDIR", oldTmpDir_);
        else
            qunsetenv("TMPDIR");
    }

    PrivateTempDir(const PrivateTempDir&) = delete;
    PrivateTempDir& operator=(const PrivateTempDir&) = delete;

    QString path() const { return directory_.path(); }
    QString filePath(const QString& name) const { return directory_.filePath(name); }

private:
    QTemporaryDir directory_{QStringLiteral("/tmp/ov-XXXXXX")};
    bool hadTmpDir_;
    QByteArray oldTmpDir_;
};
