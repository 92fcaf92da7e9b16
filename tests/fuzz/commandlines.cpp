// Command lines: the recorder's ten arguments, and record-window's options.
//
// An input is arguments with a zero byte behind each. The first byte of all says whose they are: "r" is the
// recorder's.
#include "idlerecorder.h"
#include "macwindowcapture.h"
#include "optionreader.h"
#include "optiontable.h"
#include "plaintext.h"
#include "recordingarguments.h"
#include "usage.h"

#include <QFileInfo>

#include <cmath>
#include <string>

namespace {

constexpr std::size_t mostArguments = 24;

std::vector<std::string> takeArguments(fuzz::Input& input)
{
    std::vector<std::string> arguments{"program"};
    while (!input.isEmpty() && arguments.size() < mostArguments)
        arguments.emplace_back(input.takeText('\0'));
    return arguments;
}

// ---- the recorder -----------------------------------------------------------------------------------------------

void checkOutput(const QString& output)
{
    static fuzz::IdleRecorder idle;
    RecorderProbe probe = idle.probe();
    const QString path = probe.normalizedOutputPath(output);
    fuzz::require(path.endsWith(QLatin1String(".mp4"), Qt::CaseInsensitive), "the output is an MP4 file");
    fuzz::require(!path.contains(QLatin1String("%d")) && !path.contains(QLatin1String("%03d")),
        "no pattern is left in the output's name");
    fuzz::require(probe.normalizedOutputPath(path) == path, "a normalized path is left as it is");
}

/// Without the permission no window is opened, and no thread made.
void checkWindow(const QString& window)
{
    fakeplatform::state().preflightAnswers = {false};
    fakeplatform::state().requestAnswer = false;
    const MacWindowCapture capture(window);
    bool isNumber = false;
    const qulonglong number = window.toULongLong(&isNumber);
    fuzz::require(!capture.isValid(), "without the permission there is no capture");
    fuzz::require((fakeplatform::state().requestCalls > 0) == (isNumber && number > 0),
        "the permission is asked for where there is a window");
}

void checkRecorder(std::vector<std::string> texts)
{
    std::vector<char*> argv;
    for (std::string& text : texts)
        argv.push_back(text.data());
    const int argc = int(argv.size());
    argv.push_back(nullptr);
    const QByteArray printed = usage::text(argc, argv.data());
    fuzz::require(printed.isEmpty() || (argc == 2 && printed.endsWith('\n')), "help is one argument, and lines");
    if (argc < RecordingArguments::neededCount)
        return;
    fakeplatform::reset();
    const RecordingArguments arguments = RecordingArguments::read(argv.data());
    for (const int side : {arguments.canvasWidth, arguments.canvasHeight}) {
        const int canvas = normalizedCanvasSize(side);
        fuzz::require(canvas >= 16 && canvas % 2 == 0, "a canvas is even, and not tiny");
    }
    checkOutput(arguments.output);
    checkWindow(arguments.window);
}

// ---- record-window ----------------------------------------------------------------------------------------------

/// What others have written into a message must not steer the terminal that shows it.
void checkShown(const QString& text)
{
    fuzz::require(plainText(text) == text, "what is told has nothing that steers a terminal");
}

/// "--option: 'value' is no ...": the value is one that was given.
void checkRefusal(const QString& error, const QStringList& arguments)
{
    checkShown(error);
    const qsizetype first = error.indexOf(QLatin1String(": '"));
    const qsizetype last = error.lastIndexOf(QLatin1String("' is "));
    if (!error.startsWith(QLatin1String("--")) || first < 0 || last < first + 3)
        return;
    const QString quoted = error.mid(first + 3, last - first - 3);
    fuzz::require(std::any_of(arguments.begin(), arguments.end(),
                      [&quoted](const QString& argument) { return plainText(argument).contains(quoted); }),
        "a refusal quotes what was given");
}

void checkLimits(const Options& options)
{
    constexpr qint64 mostMs = 1'000'000'000;
    const auto isTime = [](qint64 ms) { return ms >= 1 && ms <= mostMs; };
    fuzz::require(!options.lengthMs || isTime(*options.lengthMs), "a length is a time");
    fuzz::require(isTime(options.readyLimitMs) && isTime(options.finishLimitMs), "a limit is a time");
    fuzz::require(options.countdownSeconds >= 0 && options.countdownSeconds <= 3600, "a countdown is a time");
    if (options.canvas) {
        for (const int side : {options.canvas->width(), options.canvas->height()})
            fuzz::require(side >= 16 && side <= 8190, "a canvas has sides that MPEG-4 has");
    }
    for (const PlannedClick& click : options.clicks) {
        fuzz::require(std::isfinite(click.global.x()) && std::isfinite(click.global.y()), "a click has a place");
        fuzz::require(click.atMs >= 0 && click.atMs <= mostMs && click.delayMs >= 0 && click.delayMs <= mostMs,
            "a click has a time");
    }
}

void checkOptions(const Options& options)
{
    using By = WindowWish::By;
    fuzz::require(options.window.by != By::Id || options.window.id > 0, "a window has an id");
    fuzz::require(options.window.by != By::Process || options.window.process > 0, "a process has an id");
    fuzz::require(options.window.by != By::Title || !options.window.title.isEmpty(), "a title is a text");
    fuzz::require(options.audio.source != AudioWish::Source::Process || options.audio.process > 0,
        "whose audio is wanted has an id");
    fuzz::require(options.output.endsWith(QLatin1String(".mp4"), Qt::CaseInsensitive)
            && QFileInfo(options.output).isAbsolute() && !options.output.contains(QChar()),
        "the output is a whole path");
    checkShown(options.outputRemark);
    checkLimits(options);
}

void checkRecordWindow(const std::vector<std::string>& texts)
{
    QStringList arguments;
    for (const std::string& text : texts)
        arguments.append(QString::fromUtf8(text.data(), qsizetype(text.size())));
    const CommandLine line = readCommandLine(arguments);
    if (!line.error.isEmpty())
        return checkRefusal(line.error, arguments);
    const int forms = line.options.has_value() + line.task.has_value() + line.listsWindows + !line.text.isEmpty();
    fuzz::require(forms == 1, "a command line asks for one thing");
    if (line.options)
        checkOptions(*line.options);
    if (line.task)
        fuzz::require(!line.task->file.isEmpty(), "a task has its file");
}

void run(fuzz::Input input)
{
    const bool isRecorders = input.take<char>() == 'r';
    const std::vector<std::string> arguments = takeArguments(input);
    if (isRecorders)
        checkRecorder(arguments);
    else
        checkRecordWindow(arguments);
}

const fuzz::Target commandLines{"commandlines", run,
    {"macOS CoreGraphics capture received an empty window id.",
        "macOS screen recording permission is not currently granted; requesting access.",
        "macOS screen recording permission was not granted; window capture will not produce frames."}};

}

ORVANTIS_FUZZ_TARGET(commandLines)
