// The recorder's log as a story for people.
#pragma once

#include <QString>

struct Story {
    QString text; ///< lines with their line feeds
    QString error; ///< not empty: there is no story, in one sentence
};

/// Reads the log, however large, and whoever wrote it: one story for each run that is in it.
Story tellStory(const QString& path);
