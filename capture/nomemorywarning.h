// NoMemoryWarning: the line that tells of what is missing in frames for want of memory; mostly they are missing
// themselves.
#pragma once

#include <QDebug>

#include <memory>

/// A copy is the same warning. One thread at a time has it and its copies.
class NoMemoryWarning {
public:
    enum class Missing { Frame, Popup };

    explicit NoMemoryWarning(Missing missing = Missing::Frame) : missing_(missing) { }

    /// Once: one that comes with every frame would fill the log.
    void give()
    {
        if (*given_)
            return;
        if (missing_ == Missing::Frame)
            qWarning() << "No memory for the image of a window; the frame is left out. Told once.";
        else
            qWarning() << "No memory for what pops out of a window; it is left out. Told once.";
        *given_ = true; // unless there was no memory for the line, either
    }

private:
    Missing missing_;
    std::shared_ptr<bool> given_ = std::make_shared<bool>(false);
};
