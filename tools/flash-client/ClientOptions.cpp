#include "ClientOptions.h"

#include <cstdio>
#include <vector>

#include "CommandLine.h"
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
    {"check", Command::Check},
};

}  // namespace

const char* clientUsage() {
    static const std::string usage = [] {
        const ClientOptions defaults;
        char text[8192];
        std::snprintf(
            text, sizeof text,
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
            "  check FILE [--bitrate BPS]\n"
            "                    without a daemon or bus: load FILE with the daemon's own loader and tell\n"
            "                    whether the daemon would take it (else the state it would end in, and the\n"
            "                    line and rule a malformed file breaks), its records, upload messages, page\n"
            "                    selects, data bytes, the address ranges written, the SHA-256 of the image\n"
            "                    the module will hold (lowest to highest written address, gaps 0xFF) and\n"
            "                    the least time its messages take on a bus of BPS bit/s (default %u)\n"
            "\n"
            "Options:\n"
            "  --host HOST       daemon host (default %s)\n"
            "  --port PORT       daemon TCP port (default %u)\n"
            "  --json            print events as JSON, one object per line: the daemon's identity, each\n"
            "                    status, and last a result with the exit status, the final state and the\n"
            "                    time in each state (schema: docs/json-events.md)\n"
            "  --mode MODE       how the target is addressed: iso (\"ISO Style\"), mtcan (\"MT CAN\"),\n"
            "                    new (\"New Module\") or global (\"Global\")\n"
            "  --address A       target address, used by iso, 0..255 (default %u)\n"
            "  --identifier I    target identifier, used by mtcan, 32 bits (default 0x%08X)\n"
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
            "   0  done (upload: the job reached Done; check: the daemon would take the file)\n"
            "   2  invalid command line\n"
            "   3  cannot connect to the daemon\n"
            "   4  connection lost, or no answer within %d s\n"
            "   5  upload not accepted: the daemon is locked or busy with another job\n"
            "   6  the job was aborted (back to Idle or Locked before it ended)\n",
            static_cast<unsigned>(defaults.bitrate), defaults.host.c_str(),
            static_cast<unsigned>(defaults.port), static_cast<unsigned>(defaults.address),
            static_cast<unsigned>(defaults.identifier), kAnswerTimeoutSeconds);
        std::string all = text;
        for (std::int32_t state = CANFlasher::StateErrDeviceNotFound; state <= CANFlasher::StateErrFileFormat;
             ++state) {
            std::snprintf(text, sizeof text, "  %2d  %s\n", exitStatusForState(state),
                          CANFlasher::stateName(state));
            all += text;
        }
        std::snprintf(text, sizeof text, "  %2d  any other error state\n",
                      static_cast<int>(kExitOtherErrorState));
        return all + text;
    }();
    return usage.c_str();
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

namespace {

enum OptionCode : int { kHelp, kHost, kPort, kJson, kMode, kAddress, kIdentifier, kBitrate };

// Takes the options and operands one by one into `options`, remembering what the checks of the
// whole command line need.
class ArgumentReader {
  public:
    ArgumentReader(ClientOptions& options, std::string& error) : options_(options), error_(error) {}

    bool help = false;
    std::string uploadOption;  // the last option only an upload takes
    std::string checkOption;   // the last option only a check takes

    bool take(int code, const std::string& name, const char* value, std::string& complaint) {
        switch (code) {
            case kHelp:
                help = true;
                return false;  // nothing after it matters
            case kHost:
                options_.host = value;
                complaint = options_.host.empty() ? "option '--host' needs a host name or address" : "";
                return !options_.host.empty();
            case kPort:
                return takePort(name, value, complaint);
            case kJson:
                options_.json = true;
                return true;
            case kMode:
                return takeMode(name, value, complaint);
            case kAddress:
                return takeAddress(name, value);
            case kIdentifier:
                uploadOption = name;
                return number(name, value, 0xFFFFFFFF, options_.identifier);
            case kBitrate:
                return takeBitrate(name, value, complaint);
            default:  // toolsupport::kOperand: the command, then for upload the file
                return takeOperand(name, complaint);
        }
    }

  private:
    ClientOptions& options_;
    std::string& error_;
    int operands_ = 0;

    bool number(const std::string& name, const char* text, std::uint32_t maximum, std::uint32_t& value) {
        if (toolsupport::parseNumber(text, maximum, value)) {
            return true;
        }
        error_ = toolsupport::invalidNumber(text, name, maximum);
        return false;
    }

    bool takePort(const std::string& name, const char* value, std::string& complaint) {
        std::uint32_t parsed = 0;
        if (!number(name, value, 65535, parsed)) {
            return false;
        }
        if (parsed == 0) {
            complaint = "invalid value '" + std::string(value) + "' for --port (1..65535)";
            return false;
        }
        options_.port = static_cast<std::uint16_t>(parsed);
        return true;
    }

    bool takeMode(const std::string& name, const char* value, std::string& complaint) {
        uploadOption = name;
        if (!CANFlasher::modeFromOptionName(value, options_.mode)) {
            complaint = "invalid mode '" + std::string(value) + "' (iso, mtcan, new or global)";
            return false;
        }
        return true;
    }

    bool takeAddress(const std::string& name, const char* value) {
        uploadOption = name;
        std::uint32_t parsed = 0;
        if (!number(name, value, 0xFF, parsed)) {
            return false;
        }
        options_.address = static_cast<std::uint8_t>(parsed);
        return true;
    }

    bool takeBitrate(const std::string& name, const char* value, std::string& complaint) {
        checkOption = name;
        if (!number(name, value, CANFlasher::kMaxCanBitrate, options_.bitrate)) {
            return false;
        }
        complaint = options_.bitrate == 0 ? "invalid value '0' for --bitrate (1.." +
                                                std::to_string(CANFlasher::kMaxCanBitrate) + ")"
                                          : "";
        return complaint.empty();
    }

    bool takeOperand(const std::string& name, std::string& complaint) {
        if (operands_ == 0) {
            for (const NamedCommand& entry : kCommands) {
                if (name == entry.name) {
                    options_.command = entry.command;
                }
            }
            complaint = options_.command == Command::None ? "unknown command '" + name + "'" : "";
        } else if (operands_ == 1 &&
                   (options_.command == Command::Upload || options_.command == Command::Check)) {
            options_.file = name;
        } else {
            complaint = "unexpected argument '" + name + "'";
        }
        ++operands_;
        return complaint.empty();
    }
};

// The checks of a command line read without complaint: a command, options that belong to it, and
// what it needs.
ParseOutcome checkCommand(const ClientOptions& options, const ArgumentReader& reader, std::string& error) {
    if (options.command == Command::None) {
        error = "no command given";
        return ParseOutcome::Error;
    }
    if (options.command != Command::Check && !reader.checkOption.empty()) {
        error = "option '" + reader.checkOption + "' belongs to check";
        return ParseOutcome::Error;
    }
    if (options.command == Command::Check) {
        error = !reader.uploadOption.empty() ? "option '" + reader.uploadOption + "' belongs to upload"
                : options.file.empty()       ? "check needs a FILE"
                                             : "";
        return error.empty() ? ParseOutcome::Run : ParseOutcome::Error;
    }
    if (options.command != Command::Upload) {
        if (!reader.uploadOption.empty()) {
            error = "option '" + reader.uploadOption + "' belongs to upload";
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

}  // namespace

ParseOutcome parseClientArguments(int argc, const char* const argv[], ClientOptions& options,
                                  std::string& error) {
    static const std::vector<toolsupport::OptionSpec> kOptions = {
        {"help", 'h', false, kHelp},
        {"host", 0, true, kHost},
        {"port", 0, true, kPort},
        {"json", 0, false, kJson},
        {"mode", 0, true, kMode},
        {"address", 0, true, kAddress},
        {"identifier", 0, true, kIdentifier},
        {"bitrate", 0, true, kBitrate},
    };
    ArgumentReader reader(options, error);
    const auto handle = [&reader](int code, const std::string& name, const char* value,
                                  std::string& complaint) {
        return reader.take(code, name, value, complaint);
    };
    if (!toolsupport::readOptions(argc, argv, kOptions, handle, error)) {
        return reader.help ? ParseOutcome::Help : ParseOutcome::Error;
    }
    return checkCommand(options, reader, error);
}

}  // namespace flashclient
