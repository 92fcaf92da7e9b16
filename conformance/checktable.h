// What the two check programs share: the table, and its count.
#pragma once

#include "finding.h"

#include <QList>
#include <QString>

class CheckTable {
public:
    /// all: a line for what passed, too; else what passed is counted in one line for each case.
    explicit CheckTable(bool all) : all_(all) { }

    /// Prints the findings on stdout.
    void add(const QString& caseName, const QList<Finding>& findings);
    /// Prints the count. The exit code: 0, or 1 when something failed.
    int finish() const;

private:
    const bool all_;
    int passed_ = 0;
    int failed_ = 0;
    int notes_ = 0;
};
