// main() of every test program: `program [TEST [QtTest's arguments]]`. TEST is a test class, as composition_test for
// CompositionTest; without one, all run, one after the other.
#include "testregistry.h"

#include <QCoreApplication>
#include <QTest>

#include <cstdio>
#include <map>

namespace testregistry {

namespace {

using Tests = std::map<QByteArray, std::function<std::unique_ptr<QObject>()>>;

/// By plain name. Made when the first class is entered, whichever file that is in.
Tests& tests()
{
    static Tests instance;
    return instance;
}

QByteArray plainName(QByteArray name)
{
    return name.replace('_', "").toLower();
}

}

Registration::Registration(const char* className, std::function<std::unique_ptr<QObject>()> make)
{
    tests()[plainName(className)] = std::move(make);
}

}

int main(int argc, char** argv)
{
    using namespace testregistry;
    QCoreApplication application(argc, argv);
    QCoreApplication::setAttribute(Qt::AA_Use96Dpi, true);
    QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() < 2) {
        int failures = 0;
        for (const auto& [name, make] : tests())
            failures += QTest::qExec(make().get(), arguments);
        return failures == 0 ? 0 : 1;
    }
    const auto test = tests().find(plainName(arguments.takeAt(1).toLocal8Bit()));
    if (test == tests().end()) {
        std::fprintf(stderr, "%s: no such test; there are:\n", argv[1]);
        for (const auto& [name, make] : tests())
            std::fprintf(stderr, "  %s\n", name.constData());
        return 2;
    }
    return QTest::qExec(test->second().get(), arguments);
}
