// RecordWindowProcess: record-window in a process, with the fake recorder, for its tests.
#include "recordwindowprocess.h"

#include "clipwriter.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <csignal>
#include <vector>

namespace {

constexpr int limitMs = 60'000; // moments when nothing else runs

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

/// Made once, with FFmpeg.
QString clipPath()
{
    static const QTemporaryDir directory;
    static const QString path = [] {
        constexpr qint64 lengthMs = 1234;
        constexpr qint64 frameMs = 41;
        constexpr std::size_t samplesPerMs = 48;
        const QString made = directory.filePath(QStringLiteral("clip.mp4"));
        QImage frame(64, 48, QImage::Format_RGB32);
        frame.fill(Qt::darkGreen);
        ClipOptions options;
        options.withAudio = true;
        ClipWriter writer(made, frame.size(), options);
        bool written = true;
        for (qint64 atMs = 0; atMs < lengthMs; atMs += frameMs)
            written = written && writer.add(frame, atMs);
        written = written && writer.addAudio(std::vector<float>(samplesPerMs * lengthMs));
        if (!written || !writer.finish())
            qFatal("No clip for the fake recorder: %s", qUtf8Printable(writer.errorString()));
        return made;
    }();
    return path;
}

}

RecordWindowProcess::RecordWindowProcess(const char* fakeMode)
    : environment_(QProcessEnvironment::systemEnvironment())
{
    const bool made = QDir(directory_.path()).mkdir("notes") && QDir(directory_.path()).mkdir("tmp");
    if (!made)
        qFatal("No directories for record-window in %s", qUtf8Printable(directory_.path()));
    setEnvironment("TMPDIR", path("tmp").toUtf8());
    setEnvironment("FAKE_RECORDER_NOTES", path("notes").toUtf8());
    setEnvironment("FAKE_RECORDER_MODE", fakeMode);
    setEnvironment("FAKE_RECORDER_FILE", clipPath().toUtf8());
    unsetEnvironment("DISPLAY");
    unsetEnvironment("WAYLAND_DISPLAY");
    process_.setWorkingDirectory(directory_.path());
}

RecordWindowProcess::~RecordWindowProcess()
{
    if (process_.state() == QProcess::NotRunning)
        return;
    process_.kill(); // its recorder ends with it
    process_.waitForFinished(limitMs);
}

void RecordWindowProcess::setEnvironment(const char* name, const QByteArray& value)
{
    environment_.insert(QString::fromLatin1(name), QString::fromUtf8(value));
}

void RecordWindowProcess::unsetEnvironment(const char* name)
{
    environment_.remove(QString::fromLatin1(name));
}

void RecordWindowProcess::start(const QStringList& arguments)
{
    startWithout(arguments + QStringList{"--recorder", FAKE_RECORDER});
}

void RecordWindowProcess::startWithout(const QStringList& arguments)
{
    process_.setProcessEnvironment(environment_);
    process_.start(RECORD_WINDOW, arguments);
}

bool RecordWindowProcess::waitForEnd()
{
    return process_.state() == QProcess::NotRunning || process_.waitForFinished(limitMs);
}

int RecordWindowProcess::run(const QStringList& arguments)
{
    start(arguments);
    return waitForEnd() && process_.exitStatus() == QProcess::NormalExit ? process_.exitCode() : -1;
}

QByteArray RecordWindowProcess::standardOutput()
{
    return output_ += process_.readAllStandardOutput();
}

QByteArray RecordWindowProcess::standardError()
{
    return error_ += process_.readAllStandardError();
}

void RecordWindowProcess::interrupt(int signalNumber) const
{
    ::kill(pid_t(process_.processId()), signalNumber);
}

bool RecordWindowProcess::waitForRecording()
{
    return QTest::qWaitFor(
        [this] { return standardError().startsWith("recording") || standardError().contains("\nrecording"); },
        limitMs);
}

QStringList RecordWindowProcess::leftFiles() const
{
    QStringList names = QDir(directory_.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    names.removeAll(QStringLiteral("notes"));
    names.removeAll(QStringLiteral("tmp"));
    return names;
}

QByteArray RecordWindowProcess::note(const char* name) const
{
    return contents(path("notes/" + QLatin1String(name)));
}

QByteArrayList RecordWindowProcess::recorderArguments() const
{
    QByteArrayList arguments = note("arguments").split('\0');
    arguments.removeLast(); // behind the last null byte
    return arguments;
}

QList<RecordWindowProcess::Line> RecordWindowProcess::lines() const
{
    QList<Line> result;
    for (const QByteArray& line : note("lines").split('\n')) {
        const qsizetype blank = line.indexOf(' ');
        if (blank > 0)
            result.append({line.left(blank).toLongLong(), line.mid(blank + 1)});
    }
    return result;
}

QByteArrayList RecordWindowProcess::clickLines() const
{
    QByteArrayList result;
    for (const Line& line : lines()) {
        if (line.text.startsWith("click|"))
            result.append(line.text);
    }
    return result;
}
