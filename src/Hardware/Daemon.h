// The daemon's process-level steps: command line, detaching with log redirection, the termination
// signals, CAN start-up, the application event handler and the main loop around the flasher server.
#pragma once

#include <cstdint>
#include <string>

#include "varnoch/protocol/Packet.h"

namespace varnochd {

// Port the daemon listens on unless -p says otherwise, and the range -p accepts.
constexpr std::int32_t kDefaultTcpPort = varnoch::protocol::kDefaultPort;
constexpr std::int32_t kLowestTcpPort = varnoch::protocol::kLowestPort;
constexpr std::int32_t kHighestTcpPort = varnoch::protocol::kHighestPort;
// Client slots of the server.
constexpr int kClientSlots = 5;

struct DaemonSettings {
    std::int32_t interfaceIndex = 0;
    std::int32_t driverArgument = 0;  // always equal to the interface index
    std::int32_t tcpPort = kDefaultTcpPort;
    std::string logFolder;
    bool globalAccess = false;
    bool quiet = false;
    bool detach = true;
};

enum class OptionsOutcome { Run, ExitSuccess, ExitFailure };

/// Applies the options "h?nGi:p:f:q" in command-line order to `settings`; prints the usage or the port
/// complaint on standard error where the process is to end, and says with which status.
OptionsOutcome parseOptions(int argc, char* argv[], DaemonSettings& settings);
/// The usage text on standard error, with the current settings as the default values.
void printUsage(const char* program, const DaemonSettings& settings);
/// Log file name for `folder`, pid and suffix ("err" or "log"): "%s/Hobrin_%04i.<suffix>".
std::string logFileName(const std::string& folder, int pid, const char* suffix);

/// The whole daemon: start-up, event loop and shutdown. Returns 0 after an orderly shutdown; start-up
/// failures end the process with exit status 1 (0 for -h).
int runDaemon(int argc, char* argv[]);

}  // namespace varnochd
