// Texts of others (window titles, log lines, file names) as a terminal may show them.
#pragma once

#include <QString>

/// Without what moves the cursor, hides text or turns its direction: each such character becomes a question mark.
QString plainText(const QString& text);
