// The command line of varnoch-flash: the command with its options, the usage text and the exit
// statuses the tool reports.
#pragma once

#include <cstdint>
#include <string>

#include "varnoch/client.h"
#include "varnoch/protocol/FlashProtocol.h"

namespace flashclient {

// Exit statuses; an error state s of the job (100..105) ends the tool with kExitErrorStateBase + s - 100.
enum ExitStatus : int {
    kExitDone = 0,
    kExitUsage = 2,
    kExitCannotConnect = 3,
    kExitConnectionLost = 4,  // also: no answer within kAnswerTimeout
    kExitNotAccepted = 5,     // locked, or busy with another job
    kExitAborted = 6,         // the job went back to Idle or Locked before it ended
    kExitErrorStateBase = 10,
    kExitOtherErrorState = 19,  // an error state above 105
};

// How long the daemon may take to answer a status request or to start an accepted upload.
constexpr varnoch::client::Millis kAnswerTimeout = varnoch::client::kDefaultTimeout;
constexpr int kAnswerTimeoutSeconds = static_cast<int>(kAnswerTimeout.count() / 1000);

enum class Command { None, Upload, Status, Lock, Unlock, Reset, ExitWhenIdle, Check };

struct ClientOptions {
    std::string host = varnoch::client::kDefaultHost;
    std::uint16_t port = varnoch::protocol::kDefaultPort;
    bool json = false;
    Command command = Command::None;
    // upload and check
    std::string file;
    // check only: the bus whose time the file needs
    std::uint32_t bitrate = CANFlasher::kIsobusBitrate;
    // upload only
    std::int32_t mode = -1;  // -1 until --mode
    std::uint8_t address = static_cast<std::uint8_t>(CANFlasher::FlashStatus::kDefaultAddress);
    std::uint32_t identifier = CANFlasher::FlashStatus::kDefaultIdentifier;
};

enum class ParseOutcome { Run, Help, Error };

// Reads the arguments after the program name (options may come before or after the command); Error
// with a one-line `error` for anything it cannot take.
ParseOutcome parseClientArguments(int argc, const char* const argv[], ClientOptions& options,
                                  std::string& error);

// The text --help prints.
const char* clientUsage();

// The exit status for a final job state: 0 for Done, kExitErrorStateBase.. for the error states.
int exitStatusForState(std::int32_t state);

}  // namespace flashclient
