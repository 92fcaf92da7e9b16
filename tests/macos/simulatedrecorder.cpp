// Linked into the recorder's own main(): lets the environment say how the simulated Mac answers, and tells at the end
// what was asked of it.
//   SIMULATED_PERMISSION=held|granted|later|refused (later: held after the request, which said no)
//   SIMULATED_LOG_OUT=1: after twelve images the user logs out; a process that agrees is ended as AppKit does it
#include "macsim.h"

#include <QCoreApplication>
#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace {

class Simulated {
public:
    Simulated()
    {
        const char* given = std::getenv("SIMULATED_PERMISSION");
        const std::string permission = given ? given : "held";
        macsim::answers().preflight = {permission == "held", permission == "held" || permission == "later"};
        macsim::answers().request = permission == "granted";
    }

    /// On a thread of its own: what belongs to the main thread alone is gone by now.
    ~Simulated() { std::thread(tell).join(); }

private:
    static void tell()
    {
        const macsim::Record record = macsim::record();
        for (const long policy : record.activationPolicies)
            std::fprintf(stderr, "simulated: activation policy %ld\n", policy);
        const std::string verdict = macsim::verdict();
        std::fprintf(stderr, "simulated: %d preflights, %d requests, %zu contents\nsimulated: %s\n",
            record.preflights, record.requests, record.contents.size(),
            verdict.empty() ? "nothing is wrong" : verdict.c_str());
    }
};

const Simulated simulated;

/// On the main thread, as AppKit asks.
void logOutWhenItRecords()
{
    if (macsim::record().images.size() < 12) {
        QTimer::singleShot(20, logOutWhenItRecords);
        return;
    }
    const long answer = macsim::askToTerminate();
    std::fprintf(stderr, "simulated: log-out answered %ld\n", answer);
    std::exit(answer == 1 ? 0 : 1);
}

void prepareLogOut()
{
    if (!std::getenv("SIMULATED_LOG_OUT"))
        return;
    macsim::setCancellingDelegate();
    macsim::answers().image
        = [](std::uint32_t, int) { return std::optional(macsim::solidImage(64, 48, 0xff204060)); };
    QTimer::singleShot(0, logOutWhenItRecords);
}

}

Q_COREAPP_STARTUP_FUNCTION(prepareLogOut)
