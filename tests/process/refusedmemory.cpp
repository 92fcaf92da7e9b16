// Preloaded into the recorder: memory that is refused. From main() on it counts the allocations of at least
// REFUSED_MEMORY_LEAST and at most REFUSED_MEMORY_MOST bytes (0: any), by whomever and on every thread, and refuses
// number REFUSED_MEMORY_NTH (0: none) and, when REFUSED_MEMORY_LAST is given, those after it up to that number. The
// file REFUSED_MEMORY_REPORT gets the size and the callers of the first refusal, and how many were counted when the
// process ends in order.
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

std::atomic<bool> counting{false};
std::atomic<long long> counted{0};
long long firstRefused = 0;
long long lastRefused = 0;
std::size_t leastBytes = 0;
std::size_t mostBytes = 0;
int report = -1;
// Not the ordinary kind of thread-local memory, which is allocated when it is first used.
[[gnu::tls_model("initial-exec")]] thread_local bool reporting = false;

long long numberIn(const char* variable)
{
    const char* const text = std::getenv(variable);
    return text ? std::atoll(text) : 0;
}

template <typename Function>
Function* nextNamed(const char* name)
{
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

void write(const char* text, int size)
{
    if (report >= 0 && size > 0 && ::write(report, text, std::size_t(size)) < 0)
        std::abort();
}

void tellWhere(const char* what, std::size_t number)
{
    reporting = true;
    char line[64] = {};
    write(line, std::snprintf(line, sizeof(line), "%s %zu\n", what, number));
    constexpr int depth = 48;
    void* callers[depth] = {};
    ::backtrace_symbols_fd(callers, ::backtrace(callers, depth), report);
    reporting = false;
}

bool isRefused(std::size_t bytes)
{
    if (bytes < leastBytes || (mostBytes != 0 && bytes > mostBytes) || reporting
        || !counting.load(std::memory_order_relaxed))
        return false;
    const long long number = counted.fetch_add(1, std::memory_order_relaxed) + 1;
    if (firstRefused == 0 || number < firstRefused || number > lastRefused)
        return false;
    if (number == firstRefused && report >= 0)
        tellWhere("refused", bytes);
    errno = ENOMEM;
    return true;
}

[[gnu::destructor]] void tellCount()
{
    counting = false;
    char line[64] = {};
    write(line, std::snprintf(line, sizeof(line), "counted %lld\n", counted.load()));
}

}

extern "C" {

void* malloc(std::size_t bytes)
{
    static auto* const next = nextNamed<void*(std::size_t)>("malloc");
    return isRefused(bytes) ? nullptr : next(bytes);
}

void* calloc(std::size_t count, std::size_t size)
{
    static auto* const next = nextNamed<void*(std::size_t, std::size_t)>("calloc");
    return isRefused(count * size) ? nullptr : next(count, size);
}

void* realloc(void* memory, std::size_t bytes)
{
    static auto* const next = nextNamed<void*(void*, std::size_t)>("realloc");
    return bytes > 0 && isRefused(bytes) ? nullptr : next(memory, bytes);
}

int posix_memalign(void** memory, std::size_t alignment, std::size_t bytes)
{
    static auto* const next = nextNamed<int(void**, std::size_t, std::size_t)>("posix_memalign");
    return isRefused(bytes) ? ENOMEM : next(memory, alignment, bytes);
}

void* aligned_alloc(std::size_t alignment, std::size_t bytes)
{
    static auto* const next = nextNamed<void*(std::size_t, std::size_t)>("aligned_alloc");
    return isRefused(bytes) ? nullptr : next(alignment, bytes);
}

int raise(int number)
{
    static auto* const next = nextNamed<int(int)>("raise");
    tellWhere("raised", std::size_t(number));
    return next(number);
}

// The C library's start of a program, which calls main(): what libraries allocate before it is not counted.
using Main = int (*)(int, char**, char**);
int __libc_start_main(Main main, int argc, char** argv, Main init, void (*fini)(), void (*end)(), void* stack);
int __libc_start_main(Main main, int argc, char** argv, Main init, void (*fini)(), void (*end)(), void* stack)
{
    static Main program = nullptr;
    program = main;
    leastBytes = std::size_t(numberIn("REFUSED_MEMORY_LEAST"));
    mostBytes = std::size_t(numberIn("REFUSED_MEMORY_MOST"));
    firstRefused = numberIn("REFUSED_MEMORY_NTH");
    lastRefused = numberIn("REFUSED_MEMORY_LAST");
    if (lastRefused == 0)
        lastRefused = firstRefused;
    if (const char* const path = std::getenv("REFUSED_MEMORY_REPORT"))
        report = ::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    void* loadsTheUnwinder[1] = {};
    ::backtrace(loadsTheUnwinder, 1);
    auto* const next = nextNamed<decltype(__libc_start_main)>("__libc_start_main");
    const Main counted = [](int count, char** arguments, char** environment) {
        counting = true;
        return program(count, arguments, environment);
    };
    return next(counted, argc, argv, init, fini, end, stack);
}
}
