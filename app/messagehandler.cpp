// The line format and the order of the two outputs.
#include "messagehandler.h"

#include "stderrlines.h"

#include <QByteArray>
#include <QString>

#include <new>
#include <string_view>

std::FILE* logFilePtr = nullptr;

namespace {

/// In the place of a line that there was no memory for; it needs none.
constexpr std::string_view lostLine = "Warning: a line of the log is missing for want of memory (:0, )\n";

/// What a line of the type starts with; null for an unknown type.
const char* levelName(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return "Debug";
    case QtWarningMsg:
        return "Warning";
    case QtCriticalMsg:
        return "Critical";
    case QtFatalMsg:
        return "Fatal";
    case QtInfoMsg:
        return "Info";
    }
    return nullptr;
}

/// "Debug: text (file:line, function)" and a line feed.
QByteArray formatted(const char* level, const QByteArray& text, const QMessageLogContext& context)
{
    QByteArray line(level);
    line += ": ";
    line += text.constData(); // up to a null byte
    line += " (";
    line += context.file ? context.file : "";
    line += ':' + QByteArray::number(unsigned(context.line)) + ", ";
    line += context.function ? context.function : "";
    line += ")\n";
    return line;
}

void writeToLogFile(const QByteArray& line)
{
    if (logFilePtr)
        std::fwrite(line.constData(), 1, std::size_t(line.size()), logFilePtr);
}

/// The file first, then stderr. Lines that stderr did not take are reported in both as soon as it takes one.
void writeLine(const QByteArray& line)
{
    writeToLogFile(line);
    const quint64 dropped = stderrlines::write(line);
    if (dropped == 0)
        return;
    const QByteArray text = "stderr has not taken " + QByteArray::number(dropped) + " earlier lines";
    const QByteArray report = formatted(levelName(QtWarningMsg), text, QMessageLogContext());
    writeToLogFile(report);
    stderrlines::write(report);
}

void writeLostLine()
{
    try {
        writeLine(QByteArray::fromRawData(lostLine.data(), qsizetype(lostLine.size())));
    } catch (const std::bad_alloc&) { // only for what would have been told beside it
    }
}

}

void MessageHandlerImpl(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    try {
        if (const char* const level = levelName(type))
            writeLine(formatted(level, message.toLocal8Bit(), context));
    } catch (const std::bad_alloc&) { // Qt calls this where nothing may be thrown
        writeLostLine();
    }
    if (logFilePtr)
        std::fflush(logFilePtr);
}
