// varnoch-flash: the command-line client of the varnoch flashing daemon.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "ClientOptions.h"
#include "FlashClient.h"

int main(int argc, char* argv[]) {
    flashclient::ClientOptions options;
    std::string error;
    switch (flashclient::parseClientArguments(argc - 1, argv + 1, options, error)) {
        case flashclient::ParseOutcome::Help:
            std::fputs(flashclient::clientUsage(), stdout);
            return EXIT_SUCCESS;
        case flashclient::ParseOutcome::Error:
            std::fprintf(stderr, "varnoch-flash: %s (see --help)\n", error.c_str());
            return flashclient::kExitUsage;
        case flashclient::ParseOutcome::Run:
            break;
    }
    flashclient::ClientStreams streams;
    streams.terminal = isatty(STDOUT_FILENO) == 1;
    return flashclient::runClient(options, streams);
}
