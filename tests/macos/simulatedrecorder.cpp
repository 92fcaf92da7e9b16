// Linked into the recorder's own main(): lets the environment say how the simulated Mac answers, and tells at the end
// what was asked of it.
//   SIMULATED_PERMISSION=held|granted|later|refused (later: held after the request, which said no)
#include "macsim.h"

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
        std::fprintf(stderr, "simulated: %d preflights, %d requests\nsimulated: %s\n", record.preflights,
            record.requests, verdict.empty() ? "nothing is wrong" : verdict.c_str());
    }
};

const Simulated simulated;

}
