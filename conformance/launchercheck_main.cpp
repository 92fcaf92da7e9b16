// launcher-check: plays the recorder against somebody's launcher, in every way in which a recorder can behave.
#include "checktable.h"
#include "fakerecorder.h"
#include "launchertrial.h"
#include "launcherverdict.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QTemporaryDir>

#include <cstdio>
#include <memory>
#include <vector>

namespace {

constexpr int badUsage = 2;
constexpr int usualLimitS = 200; // the longest way: 60 s for the duration, 70 s for SIGTERM, and before it readiness

const auto help = QStringLiteral(
    "Runs a launcher against recorders that behave well and badly, and prints what it did right and wrong.\n"
    "\n"
    "COMMAND makes one short recording and ends: with 0 when there is a recording, else with another code.\n"
    "In its arguments {recorder} stands for the recorder's binary (required), {output} for an output file and\n"
    "{logs} for a directory. TMPDIR leads to a directory of its own. For example:\n"
    "\n"
    "  launcher-check -- node record.mjs --recorder {recorder} --output {output} --seconds 1\n"
    "\n"
    "Exit codes: 0 nothing failed (a note is no failure), 1 something failed, 2 bad usage.");

struct Settings {
    QStringList command;
    QList<LauncherCase> cases;
    int limitMs = 0;
    int jobs = 1;
    bool all = false;
    QString error;
};

/// The cases of that list, all of them without one. Sets the error when there is a name that is none.
QList<LauncherCase> chosenCases(const QString& names, QString& error)
{
    if (names.isEmpty())
        return launcherCases();
    QList<LauncherCase> chosen;
    for (const QString& name : names.split(QLatin1Char(','))) {
        const qsizetype before = chosen.size();
        for (const LauncherCase& launcherCase : launcherCases()) {
            if (name == QLatin1String(launcherCase.name))
                chosen.append(launcherCase);
        }
        if (chosen.size() == before)
            error = QStringLiteral("--cases: there is no case '%1' (--list shows them)").arg(name);
    }
    return chosen;
}

/// Runs the trials, as many at once as wanted, and prints each one's findings in the order of the cases.
class Run : public QObject {
public:
    Run(const Settings& settings, const QString& directory) : settings_(settings), table_(settings.all)
    {
        for (qsizetype i = 0; i < settings.cases.size(); ++i) {
            const QString own = directory + QLatin1Char('/') + QString::number(i);
            QDir().mkdir(own);
            trials_.push_back(
                std::make_unique<LauncherTrial>(settings.cases[i], own, QCoreApplication::applicationFilePath()));
        }
        ended_.resize(trials_.size());
    }

    void startNext()
    {
        while (running_ < settings_.jobs && started_ < trials_.size()) {
            const size_t index = started_++;
            ++running_;
            connect(trials_[index].get(), &LauncherTrial::over, this, [this, index] { onOver(index); });
            trials_[index]->start(settings_.command, settings_.limitMs);
        }
        if (printed_ == trials_.size())
            QCoreApplication::exit(table_.finish());
    }

private:
    void onOver(size_t index)
    {
        ended_[index] = true;
        --running_;
        while (printed_ < trials_.size() && ended_[printed_])
            print(*trials_[printed_++]);
        startNext();
    }

    void print(LauncherTrial& trial)
    {
        const LauncherNotes notes = trial.notes();
        const QList<Finding> findings = judgeLauncher(trial.launcherCase(), notes);
        table_.add(QLatin1String(trial.launcherCase().name), findings);
        const auto failed = [](const Finding& finding) { return finding.verdict == Finding::Verdict::Failed; };
        if (std::none_of(findings.begin(), findings.end(), failed))
            return;
        constexpr qsizetype shownLines = 8;
        QByteArrayList lines = notes.printed.trimmed().split('\n');
        for (const QByteArray& line : lines.mid(std::max<qsizetype>(0, lines.size() - shownLines)))
            std::printf("        | %s\n", line.constData());
    }

    const Settings settings_;
    CheckTable table_;
    std::vector<std::unique_ptr<LauncherTrial>> trials_;
    std::vector<bool> ended_;
    size_t started_ = 0;
    size_t printed_ = 0;
    int running_ = 0;
};

Settings readSettings(const QCommandLineParser& parser)
{
    Settings settings;
    settings.command = parser.positionalArguments();
    settings.cases = chosenCases(parser.value(QStringLiteral("cases")), settings.error);
    settings.all = parser.isSet(QStringLiteral("all"));
    bool isLimit = false;
    settings.limitMs = parser.value(QStringLiteral("limit")).toInt(&isLimit) * 1000;
    bool isJobs = false;
    settings.jobs = parser.value(QStringLiteral("jobs")).toInt(&isJobs);
    if (!isLimit || settings.limitMs < 1)
        settings.error
            = QStringLiteral("--limit: '%1' is no number of seconds").arg(parser.value(QStringLiteral("limit")));
    if (!isJobs || settings.jobs < 1)
        settings.error = QStringLiteral("--jobs: '%1' is no number").arg(parser.value(QStringLiteral("jobs")));
    if (settings.command.isEmpty())
        settings.error = QStringLiteral("no COMMAND");
    else if (!settings.command.join(QLatin1Char(' ')).contains(QLatin1String("{recorder}")))
        settings.error = QStringLiteral("COMMAND has no {recorder}: the check cannot take its place");
    return settings;
}

int list()
{
    for (const LauncherCase& launcherCase : launcherCases())
        std::printf("%-15s the recorder %s\n", launcherCase.name, launcherCase.summary);
    return 0;
}

int check(const Settings& settings)
{
    // A socket's path has room for about 100 bytes.
    constexpr qsizetype longestParent = 40;
    const QString usual = QDir::tempPath();
    const QString parent = usual.toLocal8Bit().size() <= longestParent ? usual : QStringLiteral("/tmp");
    const QTemporaryDir directory(parent + QLatin1String("/launcher-check-XXXXXX"));
    if (!directory.isValid()) {
        std::fprintf(stderr, "launcher-check: %s\n", qUtf8Printable(directory.errorString()));
        return badUsage;
    }
    Run run(settings, directory.path());
    run.startNext();
    return QCoreApplication::exec();
}

}

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsSet("FAKE_RECORDER_NOTES"))
        return runFakeRecorder(argc, argv);

    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationVersion(QStringLiteral(ORVANTIS_VERSION));
    QCommandLineParser parser;
    parser.setApplicationDescription(help);
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOptions(
        {{QStringLiteral("cases"), QStringLiteral("Only these cases, separated by commas."), QStringLiteral("NAMES")},
            {QStringLiteral("jobs"), QStringLiteral("So many cases at once (default: 1)."), QStringLiteral("N"),
                QStringLiteral("1")},
            {QStringLiteral("limit"),
                QStringLiteral("Kill the launcher after so many seconds (default: %1).").arg(usualLimitS),
                QStringLiteral("SECONDS"), QString::number(usualLimitS)},
            {QStringLiteral("all"), QStringLiteral("Show what passed, one line each, too.")},
            {QStringLiteral("list"), QStringLiteral("Show the cases.")}});
    parser.addPositionalArgument(QStringLiteral("COMMAND"),
        QStringLiteral("The launcher with its arguments, after --."), QStringLiteral("-- COMMAND ARGUMENT..."));
    parser.process(application);
    if (parser.isSet(QStringLiteral("list")))
        return list();
    const Settings settings = readSettings(parser);
    if (!settings.error.isEmpty()) {
        std::fprintf(stderr, "launcher-check: %s\n", qUtf8Printable(settings.error));
        return badUsage;
    }
    return check(settings);
}
