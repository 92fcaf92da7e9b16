// The contact sheet: frames of a recording, spread evenly over it, in one image.
#pragma once

#include <QImage>
#include <QString>

struct ContactSheet {
    QImage image; ///< null when there is none
    QString error; ///< why, in one sentence
};

/// Four frames in a row and three rows at most, from the first frame to the last, each with its time since the first
/// one. Blocks; no application object is needed.
ContactSheet drawContactSheet(const QString& recording);
