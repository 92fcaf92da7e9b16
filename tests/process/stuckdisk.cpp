// Preloaded into the recorder: a disk that hangs, as a network's can. STUCK_DISK_AT says where: "open", at the making
// of the video file; "write", once it has taken 4 KiB of it. From when the file STUCK_DISK_HURRY exists, the
// monotonic clock runs twenty times as fast, so that nobody has to wait as long as the recorder does.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr off_t taken = 4096;
constexpr long long perSecond = 1'000'000'000;
constexpr int speed = 20;

bool hangsAt(const char* place)
{
    const char* const where = std::getenv("STUCK_DISK_AT");
    return where && std::strcmp(where, place) == 0;
}

bool isVideo(const char* path)
{
    const std::size_t size = std::strlen(path);
    return size > 4 && std::strcmp(path + size - 4, ".mp4") == 0;
}

bool isVideo(int descriptor)
{
    char link[64] = {};
    char target[4096] = {};
    std::snprintf(link, sizeof(link), "/proc/self/fd/%d", descriptor);
    return ::readlink(link, target, sizeof(target) - 1) > 0 && isVideo(target);
}

[[noreturn]] void hang()
{
    for (;;)
        ::pause();
}

/// Where the clock began to run fast, in nanoseconds; 0 before that.
long long hurriedSince(long long now)
{
    static std::atomic<long long> since{0};
    static const char* const hurry = std::getenv("STUCK_DISK_HURRY");
    long long none = 0;
    if (since.load() == 0 && hurry && ::access(hurry, F_OK) == 0)
        since.compare_exchange_strong(none, now);
    return since.load();
}

}

extern "C" {

int open(const char* path, int flags, ...)
{
    if ((flags & O_CREAT) && isVideo(path) && hangsAt("open"))
        hang();
    std::va_list rest;
    va_start(rest, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    using Open = int (*)(const char*, int, ...);
    static const auto next = reinterpret_cast<Open>(::dlsym(RTLD_NEXT, "open"));
    return next(path, flags, mode);
}

ssize_t write(int descriptor, const void* bytes, size_t size)
{
    if (hangsAt("write") && isVideo(descriptor) && ::lseek(descriptor, 0, SEEK_CUR) >= taken)
        hang();
    using Write = ssize_t (*)(int, const void*, size_t);
    static const auto next = reinterpret_cast<Write>(::dlsym(RTLD_NEXT, "write"));
    return next(descriptor, bytes, size);
}

int clock_gettime(clockid_t clock, timespec* time)
{
    const int status = int(::syscall(SYS_clock_gettime, clock, time));
    if (status != 0 || clock != CLOCK_MONOTONIC)
        return status;
    const long long now = time->tv_sec * perSecond + time->tv_nsec;
    const long long since = hurriedSince(now);
    const long long shown = since == 0 ? now : since + (now - since) * speed;
    time->tv_sec = shown / perSecond;
    time->tv_nsec = shown % perSecond;
    return 0;
}
}
