// The name of the file that a recording goes to, from what the command line says.
#pragma once

#include <QDateTime>
#include <QString>

struct OutputName {
    QString path; ///< absolute, with the suffix that the recorder leaves as it is
    QString remark; ///< what to tell when the name is not the one that was given; mostly empty
    QString error; ///< not empty: the name is refused, in one sentence
};

/// given: the option's value; empty for a name in the current directory that has the time in it. Looks at what lies
/// there, and makes nothing.
OutputName chooseOutputName(const QString& given, bool isGiven, const QDateTime& now);

/// The file that the recorder falls back to when FFmpeg has no usable encoder for an MP4.
QString fallbackName(const QString& path);
