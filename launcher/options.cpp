// The command line: declaration, help, and the refusal of what is obviously wrong.
#include "options.h"

#include "optionreader.h"
#include "outputname.h"
#include "plaintext.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>

namespace {

constexpr qint64 usualReadyLimitMs = 10'000;
constexpr qint64 usualFinishLimitMs = 65'000; // the recorder itself gives up after 60 s

const auto exitCodeHelp
    = QStringLiteral("\n"
                     "Exit codes:\n"
                     "  0    recorded, as asked\n"
                     "  2    bad usage, or a window or a file that cannot be had; nothing\n"
                     "       was started\n"
                     "  3    the recorder could not be started\n"
                     "  4    the recorder ended, or could not record, before it was ready\n"
                     "  5    the window never gave an image\n"
                     "  6    the recorder never confirmed the end of the recording\n"
                     "  7    the end was confirmed, but there is no file, or the recorder\n"
                     "       ended with an error\n"
                     "  8    recorded, but not as asked: the warnings say what is wrong\n"
                     "  130  interrupted twice: the recorder was killed; or interrupted in\n"
                     "       the countdown\n"
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
        option("list", "Show the windows that there are, with --json as JSON, and record nothing."),
        option("window", "Record the window with this id, decimal or 0x and hexadecimal.", "ID"),
        option("title", "Record the window with this text in its title, or /regular expression/.", "TEXT"),
        option("pid", "Record the window of this process.", "PID"),
        option("select", "Record the window that is clicked next."),
        option("active", "Record the window that has the keyboard."),
        option("output",
            "The file (default: recording-DATE-TIME.mp4). A name without .mp4 gets it; what is there already is not "
            "overwritten.",
            "FILE"),
        option("force", "Overwrite the file that is there already."),
        option("canvas", "Size of the video in pixels (default: that of the window).", "WxH"),
        option("seconds", "Length of the recording (default: until Ctrl-C).", "N"),
        option("countdown", "Count down so many seconds before the recording.", "N"),
        option("keep-going", "Record on when the window closes; otherwise that ends the recording."),
        option("ready-timeout", "Give up when the window has given no image for so long (default: 10).", "N"),
        option("finish-timeout",
            "End the recorder's process when it has not finished the file after so long (default: 65), and kill it "
            "when that takes as long again.",
            "N"),
        option("audio",
            "app: of the window's process (default); app-pid:PID: of that process; system: all that plays; none.",
            "SOURCE"),
        option("pointer", "on (default): the recorder always draws the mouse pointer; off is refused.", "on"),
        option("recorder", "The recorder (default: orvantis-recorder beside this program).", "PATH"),
        option("log-dir", "Where the log file goes (default: the output's directory).", "DIR"),
        option("click",
            "Report a click at screen position X,Y, S seconds after the recorder is ready; with +D the report is "
            "D seconds late. May be given several times.",
            "X,Y@S[+D]"),
        option("no-watch-clicks", "Do not report the real mouse clicks over the window."),
        option("quiet", "No progress and no result; errors and warnings only."),
        option("json", "Print the result as one line of JSON."),
        option("verbose", "Show what the recorder writes to its standard error, and the clicks beside the window."),
    });
}

Options readOptions(OptionReader& reader)
{
    Options options;
    options.window = reader.window();
    const OutputName output
        = chooseOutputName(reader.text("output"), reader.isSet("output"), QDateTime::currentDateTime());
    if (!output.error.isEmpty())
        reader.refuse(output.error);
    options.output = output.path;
    options.outputRemark = output.remark;
    options.overwrite = reader.isSet("force");
    options.canvas = reader.canvas();
    options.lengthMs = reader.milliseconds("seconds");
    options.readyLimitMs = reader.milliseconds("ready-timeout").value_or(usualReadyLimitMs);
    options.finishLimitMs = reader.milliseconds("finish-timeout").value_or(usualFinishLimitMs);
    options.countdownSeconds = reader.countdown();
    options.audio = reader.audio();
    options.keepGoing = reader.isSet("keep-going");
    reader.checkPointer();
    const QString besideThisProgram
        = QCoreApplication::applicationDirPath() + QLatin1String(ORVANTIS_RECORDER_BESIDE);
    options.recorder = QFileInfo(reader.text("recorder", besideThisProgram)).absoluteFilePath();
    options.logDirectory
        = QFileInfo(reader.text("log-dir", QFileInfo(output.path).absolutePath())).absoluteFilePath();
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
        result.error = plainText(parser.errorText());
    } else if (parser.isSet(help)) {
        result.text = parser.helpText() + exitCodeHelp;
    } else if (parser.isSet(version)) {
        result.text = QCoreApplication::applicationName() + QLatin1Char(' ') + QCoreApplication::applicationVersion()
            + QLatin1Char('\n');
    } else if (!parser.positionalArguments().isEmpty()) {
        result.error
            = QStringLiteral("unexpected argument '%1'").arg(plainText(parser.positionalArguments().constFirst()));
    } else if (parser.isSet(QStringLiteral("list"))) {
        result.listsWindows = true;
        result.json = parser.isSet(QStringLiteral("json"));
    } else {
        OptionReader reader(parser);
        result.options = readOptions(reader);
        result.error = reader.error();
    }
    return result;
}
