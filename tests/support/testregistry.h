// The test classes of one program, by name.
#pragma once

#include <QByteArray>
#include <QObject>

#include <functional>
#include <memory>

namespace testregistry {

/// Enters a test class before main() runs; main() finds it by its name in any case, with or without underscores.
class Registration {
public:
    Registration(const char* className, std::function<std::unique_ptr<QObject>()> make);
};

}

/// Once for each test class, at the end of its file.
#define ORVANTIS_TEST(Class)                                                                                         \
    static const testregistry::Registration registrationOf##Class(#Class, [] { return std::make_unique<Class>(); });
