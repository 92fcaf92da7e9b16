// What fuzz targets share: how an input is read, how a broken promise ends the process, and where a target is found:
// by libFuzzer in its own program (ORVANTIS_FUZZER), by its name in the test that replays the corpus.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>
#include <vector>

namespace fuzz {

/// One input, read from the front. What is missing at its end is zero.
class Input {
public:
    Input(const uint8_t* data, std::size_t size) : rest_(data, size) { }

    bool isEmpty() const { return rest_.empty(); }

    template <typename Number>
    Number take()
    {
        Number number{};
        const auto bytes = takeBytes(sizeof(number));
        if (!bytes.empty())
            std::memcpy(&number, bytes.data(), bytes.size());
        return number;
    }

    std::span<const uint8_t> takeBytes(std::size_t most)
    {
        const auto bytes = rest_.first(std::min(most, rest_.size()));
        rest_ = rest_.subspan(bytes.size());
        return bytes;
    }

    /// Up to the separator, which is dropped, or all that is left.
    std::string_view takeText(char separator)
    {
        const char* const first = reinterpret_cast<const char*>(rest_.data());
        const std::string_view text = std::string_view(first, rest_.size());
        const std::size_t length = std::min(text.find(separator), text.size());
        rest_ = rest_.subspan(std::min(length + 1, text.size()));
        return text.substr(0, length);
    }

    std::string_view rest() { return {reinterpret_cast<const char*>(rest_.data()), rest_.size()}; }

    /// Any number, and often one at which arithmetic goes wrong.
    double takeDouble();

private:
    std::span<const uint8_t> rest_;
};

inline double Input::takeDouble()
{
    using Limits = std::numeric_limits<double>;
    static constexpr double odd[] = {Limits::quiet_NaN(), Limits::infinity(), -Limits::infinity(), -0.0, 0.5, 1.0,
        Limits::max(), Limits::lowest(), Limits::denorm_min(), 2147483647.0, -2147483648.0, 4294967296.0,
        9007199254740993.0, 9223372036854775808.0};
    const auto kind = take<uint8_t>();
    if (kind < std::size(odd))
        return odd[kind];
    if (kind < 0x80)
        return take<int16_t>();
    if (kind < 0xc0)
        return take<int32_t>() / 65536.0;
    return take<double>();
}

/// Ends the process where a promise of the product does not hold.
void require(bool holds, const char* promise);

using WarningTexts = std::vector<std::string_view>;

struct Target {
    const char* name; ///< of its corpus
    void (*run)(Input input);
    /// How the warnings and errors of the log begin that an input may cause. Any other ends the process.
    WarningTexts warnings;
};

/// Runs a target once, with its log watched. The first time it makes what every target needs.
void run(const Target& target, const uint8_t* data, std::size_t size);

#ifdef ORVANTIS_FUZZER
#define ORVANTIS_FUZZ_TARGET(target)                                                                                 \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)                                     \
    {                                                                                                                \
        fuzz::run(target, data, size);                                                                               \
        return 0;                                                                                                    \
    }
#else
std::vector<const Target*>& targets();
struct Registration {
    explicit Registration(const Target& target) { targets().push_back(&target); }
};
/// Once for each target, at the end of its file.
#define ORVANTIS_FUZZ_TARGET(target) static const fuzz::Registration registrationOf##target(target);
#endif

}
