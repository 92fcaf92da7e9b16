// The command line: which of its forms it has, and the refusal of what is obviously wrong.
#include "options.h"

#include "optionreader.h"
#include "optiontable.h"
#include "outputname.h"
#include "plaintext.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>

namespace {

constexpr qint64 usualReadyLimitMs = 10'000;
constexpr qint64 usualFinishLimitMs = 65'000; // the recorder itself gives up after 60 s

void declareOptions(QCommandLineParser& parser)
{
    for (const OptionGroup& group : optionGroups()) {
        for (const OptionEntry& option : group.options) {
            QStringList names{QLatin1String(option.name)};
            if (names.constFirst() == QLatin1String("help"))
                names.append(QStringLiteral("h"));
            parser.addOption(QCommandLineOption(names, QString(), QLatin1String(option.value)));
        }
    }
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
    options.keepLog = reader.isSet("log-dir");
    options.clicks = reader.clicks();
    options.popups = !reader.isSet("no-popups");
    options.watchClicks = !reader.isSet("no-watch-clicks");
    options.quiet = reader.isSet("quiet");
    options.json = reader.isSet("json");
    options.verbose = reader.isSet("verbose");
    options.extras = reader.extras(QFileInfo(output.path).absolutePath());
    return options;
}

}

CommandLine readCommandLine(const QStringList& arguments, const EncoderLookup& lookup)
{
    QCommandLineParser parser;
    declareOptions(parser);
    const bool parsed = parser.parse(arguments);

    CommandLine result;
    if (!parsed) {
        result.error = plainText(parser.errorText());
    } else if (parser.isSet(QStringLiteral("help"))) {
        result.text = helpText();
    } else if (parser.isSet(QStringLiteral("version"))) {
        result.text = QCoreApplication::applicationName() + QLatin1Char(' ') + QCoreApplication::applicationVersion()
            + QLatin1Char('\n');
    } else {
        OptionReader reader(parser);
        result.task = readFileTask(reader, parser.positionalArguments());
        result.listsWindows = !result.task && parser.isSet(QStringLiteral("list"));
        result.json = parser.isSet(QStringLiteral("json"));
        if (result.listsWindows)
            reader.refuseAllBeside("list", {"json"});
        else if (!result.task)
            result.options = readOptions(reader);
        if (result.options && !result.options->extras.share.isEmpty())
            reader.refuse(
                ShareEncoders::find(result.options->audio.source != AudioWish::Source::Nothing, lookup).error);
        result.error = reader.error();
    }
    return result;
}
