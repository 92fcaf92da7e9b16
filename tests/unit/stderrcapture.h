// StderrCapture: what the process writes to stderr while a test watches.
#pragma once

#include <QByteArray>
#include <QFile>
#include <QTemporaryFile>

#include <cstdio>
#include <unistd.h>

/// Points descriptor 2 at a temporary file for its lifetime. One at a time.
class StderrCapture {
public:
    StderrCapture()
    {
        if (!file_.open())
            qFatal("No temporary file for stderr: %s", qUtf8Printable(file_.errorString()));
        std::fflush(stderr);
        saved_ = ::dup(STDERR_FILENO);
        ::dup2(file_.handle(), STDERR_FILENO);
    }

    ~StderrCapture()
    {
        std::fflush(stderr);
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
    }

    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    /// Everything written so far.
    QByteArray text() const
    {
        QFile reader(file_.fileName());
        return reader.open(QIODevice::ReadOnly) ? reader.readAll() : QByteArray();
    }

private:
    QTemporaryFile file_;
    int saved_ = -1;
};
