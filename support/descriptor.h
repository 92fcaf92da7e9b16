// Descriptor: a file descriptor that is closed with the object.
#pragma once

#include <unistd.h>
#include <utility>

/// Below 0 it holds none. Can be moved into another one, not assigned.
class Descriptor {
public:
    explicit Descriptor(int number = -1) : number_(number) { }
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : number_(other.release()) { }
    Descriptor& operator=(Descriptor&&) = delete;

    int number() const { return number_; }
    bool isValid() const { return number_ >= 0; }

    /// From now on somebody else closes it.
    int release() { return std::exchange(number_, -1); }

    void close()
    {
        if (isValid())
            ::close(release());
    }

private:
    int number_;
};
