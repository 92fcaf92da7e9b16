// What a line of the recorder's log means to the person who records.
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

struct Explanation {
    enum class Meaning {
        NoRecording, ///< before the first image: there will be none
        VideoHarmed, ///< the video is not what was asked for
        AudioHarmed, ///< likewise the audio
        NoImage, ///< the window gives none at the moment
        WindowGone, ///< no frames of it will come any more
        Remark, ///< good to know
    };

    Meaning meaning = Meaning::Remark;
    QString sentence; ///< what happened and what to do; lines that mean the same have the same one
    bool isKnown = true; ///< false: a text that is told as it stands in the log

    /// Nothing when the line is neither a warning nor worse, or tells nothing that another line does not tell better.
    static std::optional<Explanation> of(const QByteArray& line);
};
