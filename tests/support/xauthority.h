// The cookie that opens this test's X servers, and nobody else's program has.
#pragma once

#include <QString>

/// The authority file of this process's private X servers, for their -auth. It is made by the first call, private to
/// the user, named by XAUTHORITY from then on for this process and its children, and removed when the process ends.
/// One cookie serves all servers: a client offers the first that fits, and this one fits every display. Call it
/// before other threads read the environment. Ends the process when the file cannot be written: without it a server
/// would let in every user of the machine.
QString xAuthorityFile();
