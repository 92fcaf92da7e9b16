// NoMemoryWarning: the line that tells of frames which are missing for want of memory.
#pragma once

#include <QDebug>

class NoMemoryWarning {
public:
    /// Once: one that comes with every frame would fill the log.
    void give()
    {
        if (given_)
            return;
        qWarning() << "No memory for the image of a window; the frame is left out. Told once.";
        given_ = true; // unless there was no memory for the line, either
    }

private:
    bool given_ = false;
};
