#include "ClientOptions.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "varnoch/protocol/FlashTypes.h"

namespace flashclient {

namespace {

struct NamedCommand {
    const char* name;
    Command command;
};
constexpr NamedCommand kCommands[] = {
    {"upload", Command::Upload}, {"status", Command::Status}, {"lock", Command::Lock},
    {"unlock", Command::Unlock}, {"reset", Command::Reset},   {"exit-when-idle", Command::ExitWhenIdle},
};

struct NamedMode {
    const char* name;
    CANFlasher::FlashMode mode;
};
constexpr NamedMode kModes[] = {
    {"iso", CANFlasher::ModeIsoStyle},
    {"mtcan", CANFlasher::ModeMtCan},
    {"new", CANFlasher::ModeNewModule},
    {"global", CANFlasher::ModeGlobal},
};

const char* const kUsage =
    "Usage: varnoch-flash [--host HOST] [--port PORT] [--json] COMMAND\n"
    "\n"
    "Talks to a running varnoch daemon over TCP.\n"
    "\n"
    "Commands:\n"
    "  upload FILE --mode MODE [--address A] [--identifier I]\n"
    "                    program the Intel-HEX FILE into the module and follow the job until it is\n"
    "                    Done or has failed; FILE goes to the daemon as an absolute path, and the\n"
    "                    daemon opens it (a missing file ends in \"Unable to find the hex file\")\n"
    "  status            print the job's status\n"
    "  lock              forbid uploads (the job shows Locked whenever it is not busy), then print\n"
    "                    the status\n"
    "  unlock            withdraw that lock, then print the status\n"
    "  reset             return a Done or failed job to Idle (or abort this client's own running\n"
    "                    job), then print the status\n"
    "  exit-when-idle    ask the daemon to end when its last client has left, then print the status\n"
    "\n"
    "Options:\n"
    "  --host HOST       daemon host (default 127.0.0.1)\n"
    "  --port PORT       daemon TCP port (default 41265)\n"
    "  --json            print each status as one JSON object per line, e.g.\n"
    "                    {\"mode\":0,\"state\":5,\"stateName\":\"Programming\",\"progress\":42,\n"
    "                     \"address\":38,\"identifier\":4294967295}\n"
    "  --mode MODE       how the target is addressed: iso (\"ISO Style\"), mtcan (\"MT CAN\"),\n"
    "                    new (\"New Module\") or global (\"Global\")\n"
    "  --address A       target address, used by iso, 0..255 (default 254)\n"
    "  --identifier I    target identifier, used by mtcan, 32 bits (default 0xFFFFFFFF)\n"
    "  -h, --help        show this text\n"
    "Numbers are decimal or 0x-prefixed hexadecimal.\n"
    "\n"
    "upload first returns a job left Done or failed by an earlier client to Idle, and does not\n"
    "start while another job is busy or a client holds a lock. On a terminal it shows the progress\n"
    "on one redrawn line; otherwise it prints one line per change of state or progress.\n"
    "\n"
    "The daemon normally ends when its last client disconnects, so lock, unlock and reset matter\n"
    "mostly while another client keeps it running. A lock stays with the client slot that set it\n"
    "after that client has left; unlock withdraws the lock of the slot this connection is given\n"
    "(the lowest free one), which is the same slot as long as the other clients stay connected.\n"
    "\n"
    "Exit status:\n"
    "   0  done (upload: the job reached Done)\n"
    "   2  invalid command line\n"
    "   3  cannot connect to the daemon\n"
    "   4  connection lost, or no answer within 10 s\n"
    "   5  upload not accepted: the daemon is locked or busy with another job\n"
    "   6  the job was aborted (back to Idle or Locked before it ended)\n"
    "  10  Error! Device not found.\n"
    "  11  Error! Timed out while waiting for FLASH erase.\n"
    "  12  Error! Timed out while waiting for response.\n"
    "  13  Error! Unable to find the hex file.\n"
    "  14  Error! Unable to open the hex file.\n"
    "  15  Error! The hex file is incorrectly formatted.\n"
    "  19  any other error state\n";

// Decimal or 0x-prefixed hexadecimal, no sign, nothing trailing, at most `maximum`.
bool parseNumber(const std::string& text, std::uint32_t maximum, std::uint32_t& value) {
    const bool hex = text.compare(0, 2, "0x") == 0 || text.compare(0, 2, "0X") == 0;
    const char* digits = text.c_str() + (hex ? 2 : 0);
    if (*digits == '\0' || std::strchr("+- \t", *digits) != nullptr) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    const unsigned long long parsed = std::strtoull(digits, &end, hex ? 16 : 10);
    if (errno != 0 || *end != '\0' || parsed > maximum) {
        return false;
    }
    value = static_cast<std::uint32_t>(parsed);
    return true;
}

}  // namespace

const char* clientUsage() {
    return kUsage;
}

int exitStatusForState(std::int32_t state) {
    if (state == CANFlasher::StateDone) {
        return kExitDone;
    }
    if (state >= CANFlasher::StateErrDeviceNotFound && state <= CANFlasher::StateErrFileFormat) {
        return kExitErrorStateBase + (state - CANFlasher::StateErrDeviceNotFound);
    }
    return kExitOtherErrorState;
}

ParseOutcome parseClientArguments(int argc, const char* const argv[], ClientOptions& options,
                                  std::string& error) {
    bool uploadOptionSeen = false;
    std::string uploadOption;
    int positional = 0;
    for (int i = 0; i < argc; ++i) {
        std::string option = argv[i];
        std::string value;
        bool hasValue = false;
        const std::size_t equals = option.find('=');
        if (option.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            value = option.substr(equals + 1);
            option.erase(equals);
            hasValue = true;
        }
        const auto takeValue = [&]() {
            if (!hasValue && i + 1 >= argc) {
                error = "option '" + option + "' needs a value";
                return false;
            }
            if (!hasValue) {
                value = argv[++i];
            }
            return true;
        };
        const auto takeNumber = [&](std::uint32_t maximum, std::uint32_t& number) {
            if (!takeValue()) {
                return false;
            }
            if (!parseNumber(value, maximum, number)) {
                error =
                    "invalid value '" + value + "' for " + option + " (0.." + std::to_string(maximum) + ")";
                return false;
            }
            return true;
        };

        std::uint32_t number = 0;
        if (option == "-h" || option == "--help") {
            return ParseOutcome::Help;
        } else if (option == "--host") {
            if (!takeValue()) {
                return ParseOutcome::Error;
            }
            if (value.empty()) {
                error = "option '--host' needs a host name or address";
                return ParseOutcome::Error;
            }
            options.host = value;
        } else if (option == "--port") {
            if (!takeNumber(65535, number)) {
                return ParseOutcome::Error;
            }
            if (number == 0) {
                error = "invalid value '" + value + "' for --port (1..65535)";
                return ParseOutcome::Error;
            }
            options.port = static_cast<std::uint16_t>(number);
        } else if (option == "--json") {
            if (hasValue) {
                error = "option '--json' takes no value";
                return ParseOutcome::Error;
            }
            options.json = true;
        } else if (option == "--mode") {
            if (!takeValue()) {
                return ParseOutcome::Error;
            }
            options.mode = -1;
            for (const NamedMode& entry : kModes) {
                if (value == entry.name) {
                    options.mode = entry.mode;
                }
            }
            if (options.mode < 0) {
                error = "invalid mode '" + value + "' (iso, mtcan, new or global)";
                return ParseOutcome::Error;
            }
            uploadOptionSeen = true;
            uploadOption = option;
        } else if (option == "--address") {
            if (!takeNumber(0xFF, number)) {
                return ParseOutcome::Error;
            }
            options.address = static_cast<std::uint8_t>(number);
            uploadOptionSeen = true;
            uploadOption = option;
        } else if (option == "--identifier") {
            if (!takeNumber(0xFFFFFFFF, options.identifier)) {
                return ParseOutcome::Error;
            }
            uploadOptionSeen = true;
            uploadOption = option;
        } else if (option.size() > 1 && option[0] == '-') {
            error = "unknown option '" + option + "'";
            return ParseOutcome::Error;
        } else if (positional == 0) {
            ++positional;
            for (const NamedCommand& entry : kCommands) {
                if (option == entry.name) {
                    options.command = entry.command;
                }
            }
            if (options.command == Command::None) {
                error = "unknown command '" + option + "'";
                return ParseOutcome::Error;
            }
        } else if (positional == 1 && options.command == Command::Upload) {
            ++positional;
            options.file = option;
        } else {
            error = "unexpected argument '" + option + "'";
            return ParseOutcome::Error;
        }
    }

    if (options.command == Command::None) {
        error = "no command given";
        return ParseOutcome::Error;
    }
    if (options.command != Command::Upload) {
        if (uploadOptionSeen) {
            error = "option '" + uploadOption + "' belongs to upload";
            return ParseOutcome::Error;
        }
        return ParseOutcome::Run;
    }
    if (options.file.empty()) {
        error = "upload needs a FILE";
        return ParseOutcome::Error;
    }
    if (options.mode < 0) {
        error = "upload needs --mode (iso, mtcan, new or global)";
        return ParseOutcome::Error;
    }
    return ParseOutcome::Run;
}

}  // namespace flashclient
