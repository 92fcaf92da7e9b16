// The table, and how --help sets it.
#include "optiontable.h"

#include <QStringList>

namespace {

constexpr qsizetype columns = 80;
constexpr qsizetype textColumn = 24; // where what an option does begins

const auto head = QStringLiteral("Usage: record-window WINDOW [OPTION...]\n"
                                 "Records one window, with its audio, into a video file. WINDOW is one of\n"
                                 "--select, --again, --active, --title, --pid and --window. Finished files need\n"
                                 "none.\n"
                                 "\n"
                                 "  record-window --select --output clip\n"
                                 "  record-window --title \"Release notes\" --seconds 30 --output demo.mp4\n"
                                 "  record-window --active --countdown 3 --canvas 1280x720 --audio none\n");

const auto tail = QStringLiteral("\n"
                                 "Ctrl-C (or SIGTERM, SIGHUP) ends the recording and waits for the file. A second\n"
                                 "Ctrl-C, or the same signal again after a second, kills the recorder.\n"
                                 "\n"
                                 "Exit codes:\n"
                                 "  0    recorded, as asked\n"
                                 "  2    bad usage, or a window or a file that cannot be had; nothing was started\n"
                                 "  3    the recorder could not be started\n"
                                 "  4    the recorder ended, or could not record, before it was ready\n"
                                 "  5    the window never gave an image\n"
                                 "  6    the recorder never confirmed the end of the recording\n"
                                 "  7    the end was confirmed, but there is no file, or the recorder ended with\n"
                                 "       an error\n"
                                 "  8    recorded, but not as asked: the warnings say what is wrong\n"
                                 "  130  interrupted twice: the recorder was killed; or interrupted in the\n"
                                 "       countdown. While --select waits, a signal ends the program itself, which\n"
                                 "       a shell tells as 128 and its number: 130, 143 or 129\n"
                                 "--verify, --share-only and --explain end with 0, or with 2 when the file cannot\n"
                                 "be read; --verify and --share-only with 8 when something is wrong with it;\n"
                                 "--share-only with 7 when the copy cannot be written, with 130 when interrupted.\n");

/// The words in lines that fit behind the text's column.
QStringList wrapped(const QString& text)
{
    QStringList lines{QString()};
    for (const QString& word : text.split(QLatin1Char(' '))) {
        QString& line = lines.last();
        if (line.isEmpty())
            line = word;
        else if (textColumn + line.size() + 1 + word.size() > columns)
            lines.append(word);
        else
            line += QLatin1Char(' ') + word;
    }
    return lines;
}

QString optionLines(const OptionEntry& option)
{
    QString first = QStringLiteral("  --") + QLatin1String(option.name);
    if (*option.value)
        first += QLatin1Char(' ') + QLatin1String(option.value);
    if (first.size() >= textColumn) // the text goes below
        first += QLatin1Char('\n');
    else
        first = first.leftJustified(textColumn);
    const QString indent(textColumn, QLatin1Char(' '));
    const QString text = wrapped(QString::fromUtf8(option.text)).join(QLatin1Char('\n') + indent);
    return first + (first.endsWith(QLatin1Char('\n')) ? indent : QString()) + text + QLatin1Char('\n');
}

}

const QList<OptionGroup>& optionGroups()
{
    static const QList<OptionGroup> groups{
        {"Choose the window",
            {
                {"list", "", "Show the windows that there are, with --json as JSON, and record nothing."},
                {"select", "",
                    "Record the window that is clicked next (Escape cancels); on Wayland, the one that is chosen in "
                    "the "
                    "desktop's dialogue."},
                {"again", "",
                    "Wayland: record the window that --select chose last, without a question where the desktop "
                    "remembers it."},
                {"active", "", "Record the window that has the keyboard."},
                {"title", "TEXT", "Record the window with this text in its title, or /regular expression/."},
                {"pid", "PID", "Record the window of this process."},
                {"window", "ID", "Record the window with this id, decimal or 0x and hexadecimal."},
            }},
        {"What is recorded",
            {
                {"seconds", "N", "Length of the recording (default: until Ctrl-C)."},
                {"countdown", "N", "Count down so many seconds before the recording."},
                {"keep-going", "", "Record on when the window closes; otherwise that ends the recording."},
                {"canvas", "WxH", "Size of the video in pixels (default: that of the window)."},
                {"audio", "SOURCE",
                    "app: of the window's process (default); app-pid:PID: of that process; system: all that plays; "
                    "none."},
                {"pointer", "on", "on (default): the recorder always draws the mouse pointer; off is refused."},
                {"no-popups", "", "Leave out menus, lists and tool tips, which are windows of their own."},
                {"no-watch-clicks", "", "Do not report the real mouse clicks over the window."},
                {"click", "X,Y@S[+D]",
                    "Report a click at screen position X,Y, S seconds after the recorder is ready; with +D the "
                    "report "
                    "is D seconds late. May be given several times."},
            }},
        {"Where it goes",
            {
                {"output", "FILE",
                    "The file (default: recording-DATE-TIME.mp4). A name without .mp4 gets it; what is there already "
                    "is not overwritten."},
                {"force", "", "Overwrite the file that is there already."},
                {"log-dir", "DIR",
                    "Keep the recorder's log file, in this directory. Without it the log is kept only when the "
                    "recording is not as asked, beside the video."},
            }},
        {"After the recording",
            {
                {"share", "FILE.webm", "Make a WebM copy of the recording, for browsers."},
                {"contact-sheet", "FILE.png",
                    "Draw twelve frames of the recording, or of the file of --verify, into one image."},
                {"sha256", "", "Tell the SHA-256 of the recording, or of the file of --verify."},
                {"share-only", "FILE COPY.webm", "Make a WebM copy of a finished recording, and record nothing."},
                {"verify", "FILE", "Tell what is in a finished recording and what is wrong with it; record nothing."},
                {"explain", "LOG",
                    "Tell a log of the recorder as a story, and what its warnings mean; record nothing."},
            }},
        {"For scripts",
            {
                {"json", "", "Print the result as one line of JSON."},
                {"quiet", "", "No progress and no result; errors and warnings only."},
                {"ready-timeout", "N", "Give up when the window has given no image for so long (default: 10)."},
                {"finish-timeout", "N",
                    "End the recorder's process when it has not finished the file after so long (default: 65), and "
                    "kill it when that takes as long again."},
                {"recorder", "PATH", "The recorder (default: orvantis-recorder beside this program)."},
            }},
        {"About the program",
            {
                {"verbose", "",
                    "Show what the recorder writes to its standard error, and the clicks beside the window."},
                {"version", "", "Show the version."},
                {"help", "", "Show this text; also -h."},
            }},
    };
    return groups;
}

QString helpText()
{
    QString text = head;
    for (const OptionGroup& group : optionGroups()) {
        text += QLatin1Char('\n') + QLatin1String(group.title) + QLatin1String(":\n");
        for (const OptionEntry& option : group.options)
            text += optionLines(option);
    }
    return text + tail;
}
