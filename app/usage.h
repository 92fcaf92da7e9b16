// The help and version texts.
#pragma once

#include <QByteArray>

namespace usage {

/// The text for "--help", "-h" or "--version" as the only argument; empty for every other command line.
QByteArray text(int argc, char** argv);

}
