// A truth report for people and for programs.
#pragma once

#include "truthreport.h"

#include <QByteArray>
#include <QString>

QString truthReportTable(const TruthReport& report);

/// One JSON object; what could not be measured is null.
QByteArray truthReportJson(const TruthReport& report);
