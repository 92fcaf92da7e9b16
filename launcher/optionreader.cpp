// The form of each value, and the sentence that refuses another one.
#include "optionreader.h"

#include "newfile.h"
#include "plaintext.h"

#include <QRegularExpression>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr int longestSeconds = 1'000'000; // eleven days: milliseconds still fit the timers
constexpr int longestCountdown = 3600;
constexpr int smallestCanvas = 16; // a side in pixels; the recorder makes no smaller ones
constexpr int largestCanvas = 8190; // MPEG-4 has 13 bits for a side, which is even

}

WindowWish OptionReader::window()
{
    using By = WindowWish::By;
    WindowWish wish;
    int given = 0;
    const auto isGiven = [&](const char* name, By by) {
        if (!isSet(name))
            return false;
        ++given;
        wish.by = by;
        return true;
    };
    if (isGiven("window", By::Id))
        wish.id = windowId();
    if (isGiven("title", By::Title))
        wish.title = text("title");
    if (isGiven("pid", By::Process))
        wish.process = processId(text("pid"));
    isGiven("select", By::Click);
    isGiven("active", By::Focus);
    isGiven("again", By::Again);
    if (given == 0)
        refuse(QStringLiteral("--window is missing, or one of --title, --pid, --select, --active and --again; --list "
                              "shows the windows"));
    if (given > 1)
        refuse(QStringLiteral("only one of --window, --title, --pid, --select, --active and --again can be given"));
    if (isSet("pid") && wish.process == 0)
        refuse(QStringLiteral("--pid: '%1' is no process id").arg(plainText(text("pid"))));
    if (isSet("title") && wish.title.isEmpty())
        refuse(QStringLiteral("--title: the text is empty"));
    const bool isExpression
        = wish.title.size() > 2 && wish.title.startsWith(QLatin1Char('/')) && wish.title.endsWith(QLatin1Char('/'));
    const QRegularExpression expression(isExpression ? wish.title.mid(1, wish.title.size() - 2) : QString());
    if (!expression.isValid())
        refuse(QStringLiteral("--title: '%1' is no regular expression: %2")
                   .arg(plainText(wish.title), expression.errorString()));
    return wish;
}

quint32 OptionReader::windowId()
{
    static const QRegularExpression form(QStringLiteral("^(?:0[xX]([0-9a-fA-F]+)|([0-9]+))$"));
    const QString id = text("window");
    const QRegularExpressionMatch match = form.match(id);
    bool ok = false;
    const bool hexadecimal = match.capturedLength(1) > 0;
    const quint64 number
        = hexadecimal ? match.captured(1).toULongLong(&ok, 16) : match.captured(2).toULongLong(&ok, 10);
    if (!ok || number == 0 || number > std::numeric_limits<quint32>::max())
        refuse(QStringLiteral("--window: '%1' is no window id (1 to 4294967295, or 0x1 to 0xffffffff)")
                   .arg(plainText(id)));
    return quint32(number);
}

/// 0 for what is none.
qint64 OptionReader::processId(const QString& digits)
{
    static const QRegularExpression form(QStringLiteral("^[0-9]+$"));
    bool ok = false;
    const int number = digits.toInt(&ok);
    return ok && number > 0 && form.match(digits).hasMatch() ? number : 0;
}

AudioWish OptionReader::audio()
{
    using Source = AudioWish::Source;
    const QLatin1String prefix("app-pid:");
    const QString given = text("audio", QStringLiteral("app"));
    AudioWish wish;
    wish.isGiven = isSet("audio");
    if (given == QLatin1String("app")) {
        wish.source = Source::WindowsProcess;
    } else if (given == QLatin1String("system")) {
        wish.source = Source::Everything;
    } else if (given == QLatin1String("none")) {
        wish.source = Source::Nothing;
    } else {
        wish.source = Source::Process;
        wish.process = given.startsWith(prefix) ? processId(given.mid(prefix.size())) : 0;
        if (wish.process == 0)
            refuse(
                QStringLiteral("--audio: '%1' is none of app, app-pid:PID, system and none").arg(plainText(given)));
    }
    return wish;
}

std::optional<QSize> OptionReader::canvas()
{
    if (!isSet("canvas"))
        return std::nullopt;
    static const QRegularExpression form(QStringLiteral("^([0-9]+)x([0-9]+)$"));
    const QString given = text("canvas");
    const QRegularExpressionMatch match = form.match(given);
    const QSize size(match.captured(1).toInt(), match.captured(2).toInt()); // 0 for what is no int
    const auto isPossible = [](int side) { return side >= smallestCanvas && side <= largestCanvas; };
    if (!isPossible(size.width()) || !isPossible(size.height()))
        refuse(QStringLiteral("--canvas: '%1' is no size (like 1280x720, in pixels, each side %2 to %3)")
                   .arg(plainText(given), QString::number(smallestCanvas), QString::number(largestCanvas)));
    return size;
}

std::optional<qint64> OptionReader::milliseconds(const char* name)
{
    if (!isSet(name))
        return std::nullopt;
    bool ok = false;
    const double seconds = text(name).toDouble(&ok);
    const qint64 result = ok && seconds > 0 && seconds <= longestSeconds ? std::llround(seconds * 1000) : 0;
    if (result < 1)
        refuse(QStringLiteral("--%1: '%2' is no number of seconds (0.001 to %3)")
                   .arg(QLatin1String(name), plainText(text(name)), QString::number(longestSeconds)));
    return result;
}

int OptionReader::countdown()
{
    bool ok = false;
    const int seconds = text("countdown", QStringLiteral("0")).toInt(&ok);
    if (isSet("countdown") && (!ok || seconds < 1 || seconds > longestCountdown))
        refuse(QStringLiteral("--countdown: '%1' is no whole number of seconds (1 to %2)")
                   .arg(plainText(text("countdown")), QString::number(longestCountdown)));
    return seconds;
}

/// The recorder has no word for it: the pointer is always drawn.
void OptionReader::checkPointer()
{
    const QString given = text("pointer", QStringLiteral("on"));
    if (given == QLatin1String("off"))
        refuse(QStringLiteral("--pointer: the recorder always draws the mouse pointer, and cannot leave it out"));
    else if (given != QLatin1String("on"))
        refuse(QStringLiteral("--pointer: '%1' is neither on nor off").arg(plainText(given)));
}

QList<PlannedClick> OptionReader::clicks()
{
    static const QRegularExpression form(QStringLiteral(
        "^(-?[0-9]+(?:\\.[0-9]+)?),(-?[0-9]+(?:\\.[0-9]+)?)@([0-9]+(?:\\.[0-9]+)?)(?:\\+([0-9]+(?:\\.[0-9]+)?))?$"));
    QList<PlannedClick> clicks;
    for (const QString& given : parser_.values(QStringLiteral("click"))) {
        const QRegularExpressionMatch match = form.match(given);
        const double seconds = match.captured(3).toDouble();
        const double delay = match.captured(4).toDouble(); // 0 when absent
        if (!match.hasMatch() || seconds > longestSeconds || delay > longestSeconds)
            refuse(QStringLiteral("--click: '%1' is no click (like 640,400@2.5 or 640,400@2.5+1)")
                       .arg(plainText(given)));
        else
            clicks.append({QPointF(match.captured(1).toDouble(), match.captured(2).toDouble()),
                std::llround(seconds * 1000), std::llround(delay * 1000)});
    }
    return clicks;
}

ExtraWishes OptionReader::extras(const QString& madeDirectory)
{
    ExtraWishes wishes;
    wishes.overwrite = isSet("force");
    wishes.sha256 = isSet("sha256");
    const auto newFile = [&](const char* name, const char* suffix, QString& path) {
        if (!isSet(name))
            return;
        const NewFileName chosen = chooseNewFile(QLatin1String("--") + QLatin1String(name), text(name),
            QLatin1String(suffix), wishes.overwrite, madeDirectory);
        refuse(chosen.error);
        path = chosen.path;
    };
    newFile("share", ".webm", wishes.share);
    newFile("contact-sheet", ".png", wishes.contactSheet);
    return wishes;
}

void OptionReader::refuseAllBeside(const char* option, std::initializer_list<const char*> allowed)
{
    for (const QString& given : parser_.optionNames()) {
        const bool isAllowed = given == QLatin1String(option)
            || std::any_of(
                allowed.begin(), allowed.end(), [&](const char* one) { return given == QLatin1String(one); });
        if (!isAllowed)
            refuse(QStringLiteral("--%1 does not go with --%2").arg(given, QLatin1String(option)));
    }
}
