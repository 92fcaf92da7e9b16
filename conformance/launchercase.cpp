// The cases of launcher-check.
#include "launchercase.h"

const QList<LauncherCase>& launcherCases()
{
    using Result = LauncherCase::Result;
    static const QList<LauncherCase> cases{
        {"normal", "", "everything goes well", Result::Success, true, true, false},
        {"slow-start", "slowstart", "connects after 1.5 s and is ready 1.5 s later", Result::Success, true, true,
            false},
        {"pieces", "pieces", "answers \"stop\" byte by byte", Result::Success, true, true, false},
        {"no-readiness", "noimage", "is never ready; answers \"stop\" with the byte and the duration in one piece",
            Result::Either, false, true, false},
        {"no-output", "nooutput", "cannot open the output: never ready, \"stop\" is answered with 0", Result::Failure,
            false, true, false},
        {"no-capture", "setupfails", "ends with exit code 2 before it is ready", Result::Failure, false, false, true},
        {"crash-at-start", "crashes", "is killed before it is ready", Result::Failure, false, false, true},
        {"crash", "crasheslater", "is killed while it records", Result::Failure, true, false, true},
        {"early-end", "noreply", "ends on \"stop\" without an answer", Result::Failure, true, false, true},
        {"wrong-answer", "nonsense", "answers \"stop\" with something else than a duration", Result::Failure, true,
            true, false},
        {"no-connection", "nobody", "never connects, and lives on", Result::Failure, false, false, false},
        {"hang-up", "hangsup", "closes the connection while it records, and lives on", Result::Failure, true, false,
            false},
        {"no-answer", "deaf", "never answers \"stop\"", Result::Failure, true, false, false},
        {"no-end", "stays", "does not end on \"exit\"", Result::Either, true, true, false},
        {"stubborn", "stubborn", "never answers \"stop\" and ignores SIGTERM", Result::Failure, true, false, false},
        {"launcher-dies", "", "records when its launcher is killed", Result::Either, true, true, false, true},
    };
    return cases;
}
