// LauncherCase: one way in which a recorder behaves, and what a launcher has to make of it.
#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

struct LauncherCase {
    enum class Result { Success, Failure, Either };

    const char* name;
    const char* mode; ///< of the fake recorder
    const char* summary; ///< what the recorder does
    Result result; ///< what the launcher reports with its exit code
    bool readinessComes; ///< before the stop
    bool answers; ///< the stop, with a duration or with something else
    bool endsByItself; ///< without having been told to
    bool launcherIsKilled = false;
};

/// All of them, in the order in which they are tried.
const QList<LauncherCase>& launcherCases();
