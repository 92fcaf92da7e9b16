// Memory that is refused: the executable links allocationfaults.cpp's operator new in the place of the library's.
#pragma once

#include <atomic>
#include <cstddef>

namespace allocationfaults {

/// While it lives, an operator new of exactly so many bytes throws std::bad_alloc on every thread but the one that
/// made it. Code of this program only: libraries of the system have their own calls. One at a time.
class Refusal {
public:
    explicit Refusal(std::size_t bytes);
    ~Refusal();
    Refusal(const Refusal&) = delete;
    Refusal& operator=(const Refusal&) = delete;

    /// How often it threw.
    int count() const;
};

/// While it lives, one operator new of the thread that made it throws: the nth from then on of at least so many
/// bytes, 0 is the next; below 0 none does. One a thread at a time.
class RefusedOnce {
public:
    explicit RefusedOnce(int nth, std::size_t leastBytes = 0);
    ~RefusedOnce();
    RefusedOnce(const RefusedOnce&) = delete;
    RefusedOnce& operator=(const RefusedOnce&) = delete;

    /// It threw.
    bool happened() const;
};

}
