// What varnoch-flash does with a parsed command line: connect, send the command, follow or print the
// status, and pick the exit status; or check a file without a daemon.
#pragma once

#include <cstdio>

#include "ClientOptions.h"
#include "StatusOutput.h"
#include "varnoch/client.h"

namespace flashclient {

struct ClientStreams {
    std::FILE* out = stdout;
    std::FILE* err = stderr;
    bool terminal = false;  // `out` is a terminal: show an upload's progress on one redrawn line
};

// Runs the command (against the daemon of `options`, but for check); returns the tool's exit status.
// With options.json every line is a JSON event and the last one the result.
int runClient(const ClientOptions& options, const ClientStreams& streams);

}  // namespace flashclient
