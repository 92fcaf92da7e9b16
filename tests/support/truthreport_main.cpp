// truth-report: measures a recording of the truth window. Exit code 0 when the file was measured to its end,
// 1 when it could not be, 2 for a wrong command line.
#include "truthreport.h"
#include "truthreporttext.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QRegularExpression>

#include <cstdio>

namespace {

/// The numbers of a text that the pattern describes whole; empty when it does not.
QList<double> numbers(const QString& text, const QString& pattern)
{
    const QRegularExpressionMatch match
        = QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(text);
    QList<double> values;
    if (!match.hasMatch())
        return values;
    for (int i = 1; i <= match.lastCapturedIndex(); ++i)
        values.append(match.captured(i).toDouble());
    return values;
}

/// X,Y; nothing when the text is something else.
std::optional<QPointF> point(const QString& text)
{
    const QString number = QStringLiteral("(\\d+(?:\\.\\d+)?)");
    const QList<double> values = numbers(text, number + QLatin1Char(',') + number);
    return values.size() == 2 ? std::optional(QPointF(values[0], values[1])) : std::nullopt;
}

/// Fills the query; false when the options make none.
bool readQuery(const QCommandLineParser& parser, TruthQuery& query)
{
    const QString size = QStringLiteral("(\\d+)x(\\d+)");
    const QList<double> window = numbers(parser.value(QStringLiteral("window")), size);
    if (window.size() != 2 || parser.positionalArguments().size() != 1)
        return false;
    query.window = QSize(int(window[0]), int(window[1]));

    const QString canvas = parser.value(QStringLiteral("canvas"));
    if (canvas != QStringLiteral("auto")) {
        const QList<double> where = numbers(canvas, size + QStringLiteral("\\+(\\d+)\\+(\\d+)"));
        if (where.size() != 4)
            return false;
        query.whereTheWindowIs = QRectF(where[2], where[3], where[0], where[1]);
    }
    query.beeps = parser.isSet(QStringLiteral("beeps"));
    if (parser.isSet(QStringLiteral("pointer"))) {
        query.pointer = point(parser.value(QStringLiteral("pointer")));
        if (!query.pointer)
            return false;
    }
    for (const QString& text : parser.values(QStringLiteral("marker"))) {
        const std::optional<QPointF> marker = point(text);
        if (!marker)
            return false;
        query.markers.append(*marker);
    }
    return true;
}

}

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Measures a recording of the truth window."));
    parser.addPositionalArgument(QStringLiteral("file"), QStringLiteral("The recording."));
    parser.addOptions({
        {QStringLiteral("window"), QStringLiteral("Size of the truth window, pixels."), QStringLiteral("WxH")},
        {QStringLiteral("canvas"),
            QStringLiteral("Where the frame shows the window: auto (letterboxed) or WxH+X+Y, pixels."),
            QStringLiteral("where"), QStringLiteral("auto")},
        {QStringLiteral("pointer"), QStringLiteral("Where the pointer rested, window pixels."),
            QStringLiteral("X,Y")},
        {QStringLiteral("marker"), QStringLiteral("Where a click was made, window pixels; may be repeated."),
            QStringLiteral("X,Y")},
        {QStringLiteral("beeps"), QStringLiteral("The window beeped: measure the audio against the frame.")},
        {QStringLiteral("json"), QStringLiteral("Print JSON instead of the table.")},
    });
    TruthQuery query;
    if (!parser.parse(QCoreApplication::arguments()) || !readQuery(parser, query)) {
        std::fputs(qUtf8Printable(parser.helpText()), stderr);
        return 2;
    }

    const TruthReport report = measureTruth(parser.positionalArguments().constFirst(), query);
    if (parser.isSet(QStringLiteral("json")))
        std::fputs(truthReportJson(report).constData(), stdout);
    else
        std::fputs(qUtf8Printable(truthReportTable(report)), stdout);
    return report.error.isEmpty() && report.framesInFile > 0 ? 0 : 1;
}
