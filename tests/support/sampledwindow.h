// Sampled: a source of window samples, of which tests ask for one thing at a time.
#pragma once

#include "platform/screen.h"

#include <QImage>
#include <QPointF>
#include <QRectF>

#include <optional>
#include <utility>

template <typename Source>
class Sampled {
public:
    template <typename... Arguments>
    explicit Sampled(Arguments&&... arguments) : source_(std::forward<Arguments>(arguments)...)
    {
    }

    const platform::WindowSample& sample()
    {
        if constexpr (requires { source_.sample(true); })
            last_ = source_.sample(true);
        else
            last_ = source_.sample();
        return last_;
    }

    QImage image() { return sample().image; }
    /// Of the last sample.
    std::optional<QRectF> bounds() const { return last_.bounds; }
    /// Now.
    std::optional<QPointF> pointerLocation() { return sample().pointer; }

private:
    Source source_;
    platform::WindowSample last_;
};

using SampledWindow = Sampled<platform::WindowSource>;
