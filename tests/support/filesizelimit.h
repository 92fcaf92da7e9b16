// FileSizeLimit: a disk that is full, for this process.
#pragma once

#include <QtGlobal>

#include <csignal>
#include <sys/resource.h>

/// No file of this process grows beyond the size: the system refuses the bytes that do not fit, as it does on a full
/// disk.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes) : oldHandler_(std::signal(SIGXFSZ, SIG_IGN))
    {
        if (getrlimit(RLIMIT_FSIZE, &old_) != 0)
            qFatal("No limit of the file size");
        rlimit limit = old_;
        limit.rlim_cur = bytes;
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
            qFatal("The limit of the file size cannot be set");
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &old_);
        std::signal(SIGXFSZ, oldHandler_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    void (*oldHandler_)(int);
    rlimit old_{};
};
