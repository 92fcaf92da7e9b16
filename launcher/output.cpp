// Standard output may block on its reader, standard error may not.
#include "output.h"

#include "stderrlines.h"

#include <cstdio>

void output::print(const QByteArray& text)
{
    std::fwrite(text.constData(), 1, std::size_t(text.size()), stdout);
    std::fflush(stdout);
}

void output::printError(const QString& error)
{
    stderrlines::write("record-window: " + error.toLocal8Bit() + '\n');
}
