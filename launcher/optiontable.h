// The options of record-window: one table for the command line's parser, for --help, and for the test of the man page
// and the completions (optiontable_test).
#pragma once

#include <QList>
#include <QString>

struct OptionEntry {
    const char* name; ///< without the dashes
    const char* value; ///< what stands for the option's value; empty for a switch
    const char* text; ///< one or two sentences, UTF-8
};

/// What one wish of a person takes.
struct OptionGroup {
    const char* title;
    QList<OptionEntry> options;
};

/// In the order of --help. "help" has the short form "h".
const QList<OptionGroup>& optionGroups();

/// The text of --help, within 80 columns.
QString helpText();
