// The line formats and the order of the two outputs.
#include "messagehandler.h"

#include <QByteArray>
#include <QString>

std::FILE* logFilePtr = nullptr;

namespace {

/// Writes one line in the format of its type; an unknown type writes nothing.
void writeLine(std::FILE* file, QtMsgType type, const char* text, const QMessageLogContext& context)
{
    const char* name = context.file ? context.file : "";
    const unsigned line = unsigned(context.line);
    const char* function = context.function ? context.function : "";
    switch (type) {
    case QtDebugMsg:
        std::fprintf(file, "Debug: %s (%s:%u, %s)\n", text, name, line, function);
        break;
    case QtWarningMsg:
        std::fprintf(file, "Warning: %s (%s:%u, %s)\n", text, name, line, function);
        break;
    case QtCriticalMsg:
        std::fprintf(file, "Critical: %s (%s:%u, %s)\n", text, name, line, function);
        break;
    case QtFatalMsg:
        std::fprintf(file, "Fatal: %s (%s:%u, %s)\n", text, name, line, function);
        break;
    case QtInfoMsg:
        std::fprintf(file, "Info: %s (%s:%u, %s)\n", text, name, line, function);
        break;
    }
}

}

void MessageHandlerImpl(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    const QByteArray text = message.toLocal8Bit();
    if (logFilePtr)
        writeLine(logFilePtr, type, text.constData(), context);
    writeLine(stderr, type, text.constData(), context);
    if (logFilePtr)
        std::fflush(logFilePtr);
}
