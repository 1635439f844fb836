#include "ClientOptions.h"

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

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
    static const std::string usage = [] {
        const ClientOptions defaults;
        char text[4096];
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
            "\n"
            "Options:\n"
            "  --host HOST       daemon host (default %s)\n"
            "  --port PORT       daemon TCP port (default %u)\n"
            "  --json            print each status as one JSON object per line, e.g.\n"
            "                    {\"mode\":0,\"state\":5,\"stateName\":\"Programming\",\"progress\":42,\n"
            "                     \"address\":38,\"identifier\":4294967295}\n"
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
            "   0  done (upload: the job reached Done)\n"
            "   2  invalid command line\n"
            "   3  cannot connect to the daemon\n"
            "   4  connection lost, or no answer within %d s\n"
            "   5  upload not accepted: the daemon is locked or busy with another job\n"
            "   6  the job was aborted (back to Idle or Locked before it ended)\n",
            defaults.host.c_str(), static_cast<unsigned>(defaults.port),
            static_cast<unsigned>(defaults.address), static_cast<unsigned>(defaults.identifier),
            kAnswerTimeoutSeconds);
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

ParseOutcome parseClientArguments(int argc, const char* const argv[], ClientOptions& options,
                                  std::string& error) {
    enum LongOnly : int { kHost = 256, kPort, kJson, kMode, kAddress, kIdentifier };
    static const option kOptions[] = {
        {"help", no_argument, nullptr, 'h'},
        {"host", required_argument, nullptr, kHost},
        {"port", required_argument, nullptr, kPort},
        {"json", no_argument, nullptr, kJson},
        {"mode", required_argument, nullptr, kMode},
        {"address", required_argument, nullptr, kAddress},
        {"identifier", required_argument, nullptr, kIdentifier},
        {nullptr, 0, nullptr, 0},
    };
    // getopt_long wants a program name in front and may reorder the words (options may come before or
    // after the command): it works on a copy.
    std::vector<std::string> words{"varnoch-flash"};
    words.insert(words.end(), argv, argv + argc);
    std::vector<char*> args;
    for (std::string& word : words) {
        args.push_back(word.data());
    }
    args.push_back(nullptr);
    const int count = static_cast<int>(words.size());
    // The option as written (before any '='), for messages.
    const auto written = [&args](int index) {
        const std::string word = args[static_cast<std::size_t>(index)];
        return word.substr(0, word.find('='));
    };
    int index = 0;  // of the long option found
    const auto number = [&](std::uint32_t maximum, std::uint32_t& value) {
        if (parseNumber(optarg, maximum, value)) {
            return true;
        }
        error = "invalid value '" + std::string(optarg) + "' for --" + kOptions[index].name + " (0.." +
                std::to_string(maximum) + ")";
        return false;
    };

    std::string uploadOption;  // the last option only an upload takes
    optind = 0;                // a fresh scan, also when called again
    opterr = 0;                // the messages are ours
    for (int found; (found = getopt_long(count, args.data(), ":h", kOptions, &index)) != -1;) {
        std::uint32_t value = 0;
        switch (found) {
            case 'h':
                return ParseOutcome::Help;
            case kHost:
                if (*optarg == '\0') {
                    error = "option '--host' needs a host name or address";
                    return ParseOutcome::Error;
                }
                options.host = optarg;
                break;
            case kPort:
                if (!number(65535, value)) {
                    return ParseOutcome::Error;
                }
                if (value == 0) {
                    error = "invalid value '" + std::string(optarg) + "' for --port (1..65535)";
                    return ParseOutcome::Error;
                }
                options.port = static_cast<std::uint16_t>(value);
                break;
            case kJson:
                options.json = true;
                break;
            case kMode:
                if (!CANFlasher::modeFromOptionName(optarg, options.mode)) {
                    error = "invalid mode '" + std::string(optarg) + "' (iso, mtcan, new or global)";
                    return ParseOutcome::Error;
                }
                uploadOption = "--mode";
                break;
            case kAddress:
                if (!number(0xFF, value)) {
                    return ParseOutcome::Error;
                }
                options.address = static_cast<std::uint8_t>(value);
                uploadOption = "--address";
                break;
            case kIdentifier:
                if (!number(0xFFFFFFFF, options.identifier)) {
                    return ParseOutcome::Error;
                }
                uploadOption = "--identifier";
                break;
            case ':':
                error = "option '" + written(optind - 1) + "' needs a value";
                return ParseOutcome::Error;
            default:
                // A long option given a value it does not take names itself in optopt.
                error = optopt == kJson ? "option '--json' takes no value"
                        : optopt != 0 ? "unknown option '-" + std::string(1, static_cast<char>(optopt)) + "'"
                                      : "unknown option '" + written(optind - 1) + "'";
                return ParseOutcome::Error;
        }
    }

    // What is left are the command and, for upload, the file, in their order.
    for (int positional = 0; optind < count; ++optind, ++positional) {
        const std::string word = args[static_cast<std::size_t>(optind)];
        if (positional == 0) {
            for (const NamedCommand& entry : kCommands) {
                if (word == entry.name) {
                    options.command = entry.command;
                }
            }
            if (options.command == Command::None) {
                error = "unknown command '" + word + "'";
                return ParseOutcome::Error;
            }
        } else if (positional == 1 && options.command == Command::Upload) {
            options.file = word;
        } else {
            error = "unexpected argument '" + word + "'";
            return ParseOutcome::Error;
        }
    }

    if (options.command == Command::None) {
        error = "no command given";
        return ParseOutcome::Error;
    }
    if (options.command != Command::Upload) {
        if (!uploadOption.empty()) {
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
