// The cases of recorder-check.
#pragma once

#include "finding.h"
#include "recordersession.h"

#include <QList>

struct RecorderCase {
    const char* name;
    const char* summary; ///< what the launcher does
    QList<Finding> (*run)(const RecorderSettings&);
};

/// All of them, in the order in which they are tried.
const QList<RecorderCase>& recorderCases();
