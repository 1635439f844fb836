// What varnoch-flash does with a parsed command line: connect, send the command, follow or print the
// status, and pick the exit status.
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

// Runs the command against the daemon of `options`; returns the tool's exit status.
int runClient(const ClientOptions& options, const ClientStreams& streams);

// Requests the upload of `options` on a connected client and follows the job until Done or an error
// state; returns the exit status.
int followUpload(varnoch::client::Client& client, const ClientOptions& options, StatusPrinter& printer,
                 std::FILE* err);

// Sends a non-upload command, then asks for the status and prints it; returns the exit status.
int queryStatus(varnoch::client::Client& client, Command command, bool json, std::FILE* out, std::FILE* err);

}  // namespace flashclient
