// The command line: declaration, help, and the refusal of what is obviously wrong. What the recorder normalises
// itself (odd canvas sizes, other suffixes) is passed on unchanged.
#include "options.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QRegularExpression>

#include <cmath>
#include <limits>

namespace {

constexpr double longestSeconds = 1'000'000; // eleven days: milliseconds still fit the timers
constexpr qint64 usualFinishLimitMs = 65'000; // the recorder itself gives up after 60 s

const auto exitCodeHelp
    = QStringLiteral("\n"
                     "Exit codes:\n"
                     "  0    recorded\n"
                     "  2    bad usage\n"
                     "  3    the recorder could not be started\n"
                     "  4    the recorder ended before it was ready\n"
                     "  5    the window never gave an image\n"
                     "  6    the recorder never confirmed the end of the recording\n"
                     "  7    the end was confirmed, but there is no file, or the recorder\n"
                     "       ended with an error\n"
                     "  130  interrupted twice: the recorder was killed\n"
                     "\n"
                     "Ctrl-C (or SIGTERM, SIGHUP) ends the recording and waits for the file. A\n"
                     "second Ctrl-C, or the same signal again after a second, kills the recorder.\n");

QCommandLineOption option(const char* name, const char* description, const char* valueName = "")
{
    return QCommandLineOption(QLatin1String(name), QLatin1String(description), QLatin1String(valueName), QString());
}

void declareOptions(QCommandLineParser& parser)
{
    parser.setApplicationDescription(QStringLiteral("Records one window into a video file."));
    parser.addOptions({
        option("window", "The window's id, decimal or 0x and hexadecimal (xwininfo shows it). Required.", "ID"),
        option("output", "The file (default: recording.mp4). Its suffix becomes .mp4.", "FILE"),
        option("canvas", "Size of the video in pixels (default: 1280x720).", "WxH"),
        option("seconds", "Length of the recording (default: until Ctrl-C).", "N"),
        option("ready-timeout", "Give up when the window has given no image for so long (default: never).", "N"),
        option("finish-timeout",
            "End the recorder's process when it has not finished the file after so long (default: 65), and kill it "
            "when that takes as long again.",
            "N"),
        option("audio", "app-pid:PID records one application, anything else the whole display (default).", "SOURCE"),
        option("recorder", "The recorder (default: orvantis-recorder beside this program).", "PATH"),
        option("log-dir", "Where the log file goes (default: the output's directory).", "DIR"),
        option("click",
            "Report a click at screen position X,Y, S seconds after the recorder is ready; with +D the report is "
            "D seconds late. May be given several times.",
            "X,Y@S[+D]"),
        option("no-watch-clicks", "Do not report the real mouse clicks over the window."),
        option("quiet", "No progress and no result; errors only."),
        option("json", "Print the result as one line of JSON."),
        option("verbose", "Show what the recorder writes to its standard error, and the clicks beside the window."),
    });
}

/// The value of an option, or its default; the first refusal is kept, later ones are dropped.
class Reader {
public:
    explicit Reader(const QCommandLineParser& parser) : parser_(parser) { }

    QString error() const { return error_; }

    QString text(const char* name, const QString& defaultText = QString()) const
    {
        const QLatin1String key(name);
        return parser_.isSet(key) ? parser_.value(key) : defaultText;
    }
    bool isSet(const char* name) const { return parser_.isSet(QLatin1String(name)); }

    quint32 window();
    QSize canvas();
    std::optional<qint64> milliseconds(const char* name);
    QList<PlannedClick> clicks();

    void refuse(const QString& message)
    {
        if (error_.isEmpty())
            error_ = message;
    }

private:
    const QCommandLineParser& parser_;
    QString error_;
};

quint32 Reader::window()
{
    if (!isSet("window")) {
        refuse(QStringLiteral("--window is missing"));
        return 0;
    }
    static const QRegularExpression form(QStringLiteral("^(?:0[xX]([0-9a-fA-F]+)|([0-9]+))$"));
    const QString id = text("window");
    const QRegularExpressionMatch match = form.match(id);
    bool ok = false;
    const bool hexadecimal = match.capturedLength(1) > 0;
    const quint64 number
        = hexadecimal ? match.captured(1).toULongLong(&ok, 16) : match.captured(2).toULongLong(&ok, 10);
    if (!ok || number == 0 || number > std::numeric_limits<quint32>::max())
        refuse(QStringLiteral("--window: '%1' is no window id (1 to 4294967295, or 0x1 to 0xffffffff)").arg(id));
    return quint32(number);
}

QSize Reader::canvas()
{
    static const QRegularExpression form(QStringLiteral("^([0-9]+)x([0-9]+)$"));
    const QString given = text("canvas", QStringLiteral("1280x720"));
    const QRegularExpressionMatch match = form.match(given);
    const QSize size(match.captured(1).toInt(), match.captured(2).toInt()); // 0 for what is no int
    if (size.isEmpty())
        refuse(QStringLiteral("--canvas: '%1' is no size (like 1280x720, in pixels)").arg(given));
    return size;
}

std::optional<qint64> Reader::milliseconds(const char* name)
{
    if (!isSet(name))
        return std::nullopt;
    bool ok = false;
    const double seconds = text(name).toDouble(&ok);
    const qint64 result = ok && seconds > 0 && seconds <= longestSeconds ? std::llround(seconds * 1000) : 0;
    if (result < 1)
        refuse(QStringLiteral("--%1: '%2' is no number of seconds").arg(QLatin1String(name), text(name)));
    return result;
}

QList<PlannedClick> Reader::clicks()
{
    static const QRegularExpression form(QStringLiteral(
        "^(-?[0-9]+(?:\\.[0-9]+)?),(-?[0-9]+(?:\\.[0-9]+)?)@([0-9]+(?:\\.[0-9]+)?)(?:\\+([0-9]+(?:\\.[0-9]+)?))?$"));
    QList<PlannedClick> clicks;
    for (const QString& given : parser_.values(QStringLiteral("click"))) {
        const QRegularExpressionMatch match = form.match(given);
        const double seconds = match.captured(3).toDouble();
        const double delay = match.captured(4).toDouble(); // 0 when absent
        if (!match.hasMatch() || seconds > longestSeconds || delay > longestSeconds)
            refuse(QStringLiteral("--click: '%1' is no click (like 640,400@2.5 or 640,400@2.5+1)").arg(given));
        else
            clicks.append({QPointF(match.captured(1).toDouble(), match.captured(2).toDouble()),
                std::llround(seconds * 1000), std::llround(delay * 1000)});
    }
    return clicks;
}

Options readOptions(Reader& reader)
{
    Options options;
    options.window = reader.window();
    const QString output = reader.text("output", QStringLiteral("recording.mp4"));
    const QFileInfo outputInfo(output);
    if (outputInfo.fileName().isEmpty() || outputInfo.isDir())
        reader.refuse(QStringLiteral("--output: '%1' is no file name").arg(output));
    options.output = outputInfo.absoluteFilePath();
    options.canvas = reader.canvas();
    options.lengthMs = reader.milliseconds("seconds");
    options.readyLimitMs = reader.milliseconds("ready-timeout");
    options.finishLimitMs = reader.milliseconds("finish-timeout").value_or(usualFinishLimitMs);
    options.audioSource = reader.text("audio");
    const QString besideThisProgram
        = QCoreApplication::applicationDirPath() + QLatin1String(ORVANTIS_RECORDER_BESIDE);
    options.recorder = QFileInfo(reader.text("recorder", besideThisProgram)).absoluteFilePath();
    options.logDirectory = QFileInfo(reader.text("log-dir", outputInfo.absolutePath())).absoluteFilePath();
    options.clicks = reader.clicks();
    options.watchClicks = !reader.isSet("no-watch-clicks");
    options.quiet = reader.isSet("quiet");
    options.json = reader.isSet("json");
    options.verbose = reader.isSet("verbose");
    return options;
}

}

CommandLine readCommandLine(const QStringList& arguments)
{
    QCommandLineParser parser;
    declareOptions(parser);
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this text."));
    const QCommandLineOption version(QStringLiteral("version"), QStringLiteral("Show the version."));
    parser.addOptions({help, version});
    const bool parsed = parser.parse(arguments);

    CommandLine result;
    if (!parsed) {
        result.error = parser.errorText();
    } else if (parser.isSet(help)) {
        result.text = parser.helpText() + exitCodeHelp;
    } else if (parser.isSet(version)) {
        result.text = QCoreApplication::applicationName() + QLatin1Char(' ') + QCoreApplication::applicationVersion()
            + QLatin1Char('\n');
    } else if (!parser.positionalArguments().isEmpty()) {
        result.error = QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().constFirst());
    } else {
        Reader reader(parser);
        result.options = readOptions(reader);
        result.error = reader.error();
    }
    return result;
}
