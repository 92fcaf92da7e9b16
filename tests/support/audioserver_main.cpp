// audioserver: an audio server without an audio card for a script, as a test has it. Prints the changes of the
// environment that lead to it, one a line ("NAME=value", or "NAME" for a variable that has to go), then "ready", and
// serves until SIGTERM or SIGINT. Ends with 0 then, with 1 and a line on stderr when it cannot be had.
#include "privateaudioserver.h"

#include <QCoreApplication>

#include <csignal>
#include <cstdio>

int main(int argc, char** argv)
{
    sigset_t endSignals;
    sigemptyset(&endSignals);
    sigaddset(&endSignals, SIGTERM);
    sigaddset(&endSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);

    const QCoreApplication application(argc, argv);
    const PrivateAudioServer server;
    if (!server.errorString().isEmpty()) {
        std::fprintf(stderr, "audioserver: %s\n", qUtf8Printable(server.errorString()));
        return 1;
    }
    for (const QString& change : server.environmentChanges())
        std::printf("%s\n", qUtf8Printable(change));
    std::printf("ready\n");
    std::fflush(stdout);
    int received = 0;
    sigwait(&endSignals, &received);
    return 0;
}
