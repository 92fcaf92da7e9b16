// What record-window writes to its two streams.
#pragma once

#include <QByteArray>
#include <QString>

namespace output {

/// To standard output, at once.
void print(const QByteArray& text);

/// One sentence to standard error, behind the program's name.
void printError(const QString& error);

}
