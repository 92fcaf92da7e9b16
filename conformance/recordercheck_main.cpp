// recorder-check: plays the launcher against a recorder.
#include "checktable.h"
#include "recordercases.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>

#include <cstdio>

namespace {

constexpr int badUsage = 2;

const auto help = QStringLiteral(
    "Runs a recorder as launchers of all kinds would, and prints what it did right and wrong. Takes about half a\n"
    "minute. The window is recorded several times; its recordings are removed.\n"
    "\n"
    "Exit codes: 0 nothing failed, 1 something failed, 2 bad usage.");

/// Empty when it is no id.
QString decimalWindow(const QString& given)
{
    bool ok = false;
    const bool hexadecimal = given.startsWith(QLatin1String("0x"), Qt::CaseInsensitive);
    const quint32 id = hexadecimal ? given.mid(2).toUInt(&ok, 16) : given.toUInt(&ok);
    return ok && id > 0 ? QString::number(id) : QString();
}

int check(const RecorderSettings& settings, const QStringList& names, bool all)
{
    CheckTable table(all);
    for (const RecorderCase& recorderCase : recorderCases()) {
        const QString name = QLatin1String(recorderCase.name);
        if (names.isEmpty() || names.contains(name))
            table.add(name, recorderCase.run(settings));
    }
    return table.finish();
}

bool areCases(const QStringList& names)
{
    const auto isCase = [](const QString& name) {
        return std::any_of(recorderCases().begin(), recorderCases().end(),
            [&](const RecorderCase& recorderCase) { return name == QLatin1String(recorderCase.name); });
    };
    return std::all_of(names.begin(), names.end(), isCase);
}

int refuse(const QString& message)
{
    std::fprintf(stderr, "recorder-check: %s\n", qUtf8Printable(message));
    return badUsage;
}

int list()
{
    for (const RecorderCase& recorderCase : recorderCases())
        std::printf("%-15s the launcher %s\n", recorderCase.name, recorderCase.summary);
    return 0;
}

}

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationVersion(QStringLiteral(ORVANTIS_VERSION));
    QCommandLineParser parser;
    parser.setApplicationDescription(help);
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption recorder(QStringLiteral("recorder"),
        QStringLiteral("The recorder (default: orvantis-recorder beside this program)."), QStringLiteral("PATH"),
        QCoreApplication::applicationDirPath() + QLatin1String("/orvantis-recorder"));
    const QCommandLineOption window(QStringLiteral("window"),
        QStringLiteral("A window that is shown, decimal or 0x and hexadecimal. Required."), QStringLiteral("ID"));
    const QCommandLineOption audio(QStringLiteral("audio"),
        QStringLiteral("The audio source (default: the display)."), QStringLiteral("SOURCE"));
    const QCommandLineOption cases(
        QStringLiteral("cases"), QStringLiteral("Only these cases, separated by commas."), QStringLiteral("NAMES"));
    const QCommandLineOption all(QStringLiteral("all"), QStringLiteral("Show what passed, one line each, too."));
    const QCommandLineOption showCases(QStringLiteral("list"), QStringLiteral("Show the cases."));
    parser.addOptions({recorder, window, audio, cases, all, showCases});
    parser.process(application);
    if (parser.isSet(showCases))
        return list();

    const RecorderSettings settings{QFileInfo(parser.value(recorder)).absoluteFilePath(),
        decimalWindow(parser.value(window)), qgetenv("DISPLAY"), parser.value(audio)};
    const QStringList names = parser.value(cases).split(QLatin1Char(','), Qt::SkipEmptyParts);
    if (!parser.positionalArguments().isEmpty())
        return refuse(QStringLiteral("unexpected argument '%1'").arg(parser.positionalArguments().constFirst()));
    if (settings.window.isEmpty())
        return refuse(parser.isSet(window)
                ? QStringLiteral("--window: '%1' is no window id").arg(parser.value(window))
                : QStringLiteral("--window ID is missing"));
    if (!QFileInfo(settings.binary).isExecutable())
        return refuse(QStringLiteral("--recorder: %1 is no program").arg(settings.binary));
    if (!areCases(names))
        return refuse(QStringLiteral("--cases: '%1' are not all cases (--list shows them)").arg(parser.value(cases)));
    return check(settings, names, parser.isSet(all));
}
