// The surroundings of a fuzz target.
#include "fuzztarget.h"

#include <QCoreApplication>
#include <QLoggingCategory>

#include <cstdio>
#include <exception>

namespace fuzz {

namespace {

const Target* running = nullptr;

void fail(const char* what, const char* detail)
{
    std::fprintf(stderr, "%s: %s%s\n", running ? running->name : "fuzz", what, detail);
    __builtin_trap();
}

/// Debug lines are of no interest here; lines of Qt's own have a category.
void watchLog(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    if (type == QtDebugMsg || type == QtInfoMsg || std::string_view(context.category) != "default")
        return;
    const QByteArray line = message.toUtf8();
    const auto begins = [&line](std::string_view text) {
        return std::string_view(line.constData(), std::size_t(line.size())).starts_with(text);
    };
    if (std::none_of(running->warnings.begin(), running->warnings.end(), begins))
        fail("unknown line in the log: ", line.constData());
}

/// A fuzzer spends its time better than on setting debug lines.
void start()
{
    static int argumentCount = 1;
    static char name[] = "fuzz";
    static char* arguments[] = {name, nullptr};
    if (!QCoreApplication::instance()) {
        static const QCoreApplication application(argumentCount, arguments);
        QLoggingCategory::setFilterRules(QStringLiteral("*.debug=false"));
    }
}

}

void require(bool holds, const char* promise)
{
    if (!holds)
        fail("does not hold: ", promise);
}

void run(const Target& target, const uint8_t* data, std::size_t size)
{
    static const bool started = (start(), true);
    static_cast<void>(started);
    running = &target;
    const QtMessageHandler before = qInstallMessageHandler(watchLog);
    try {
        target.run(Input(data, size));
    } catch (const std::exception& error) {
        fail("an exception gets out: ", error.what());
    }
    qInstallMessageHandler(before);
}

#ifndef ORVANTIS_FUZZER
std::vector<const Target*>& targets()
{
    static std::vector<const Target*> instance;
    return instance;
}
#endif

}
