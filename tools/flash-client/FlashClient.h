// What varnoch-flash does with a parsed command line: connect, send the command, follow or print the
// status, and pick the exit status.
#pragma once

#include <cstdio>

#include "ClientOptions.h"
#include "DaemonLink.h"
#include "StatusOutput.h"

namespace flashclient {

struct ClientStreams {
    std::FILE* out = stdout;
    std::FILE* err = stderr;
    bool terminal = false;  // `out` is a terminal: show an upload's progress on one redrawn line
};

// Runs the command against the daemon of `options`; returns the tool's exit status.
int runClient(const ClientOptions& options, const ClientStreams& streams);

// Requests an upload of `path` (already absolute) on a connected link and follows the job's status
// broadcasts until Done or an error state; returns the exit status.
int followUpload(DaemonLink& link, const ClientOptions& options, const std::string& path,
                 StatusPrinter& printer, std::FILE* err);

// Sends a non-upload command, then asks for the status and prints it; returns the exit status.
int queryStatus(DaemonLink& link, Command command, bool json, std::FILE* out, std::FILE* err);

}  // namespace flashclient
