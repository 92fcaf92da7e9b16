// The judgement of launcher-check.
#pragma once

#include "finding.h"
#include "launchercase.h"
#include "launchernotes.h"

#include <QList>

/// What a launcher did right and wrong in one case.
QList<Finding> judgeLauncher(const LauncherCase& launcherCase, const LauncherNotes& notes);
