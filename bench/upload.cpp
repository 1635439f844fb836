// varnoch-bench-upload: a client for timing a running daemon. It requests the upload of a hex file,
// stamps the arrival of every state broadcast, and prints how long the hex loading (request to
// "Searching for device") and the programming ("Programming" to "Done") took, with the rate of
// acknowledged messages. With --stop-at searching it aborts its job as soon as the loading is done.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CommandLine.h"
#include "HexLoader.h"
#include "Marks.h"
#include "ModuleSimulator.h"
#include "varnoch/client.h"
#include "varnoch/protocol/FlashTypes.h"
#include "varnoch/protocol/Packet.h"

namespace {

using Clock = std::chrono::steady_clock;
using CANFlasher::FlashStatus;

constexpr int kExitUsage = 2;
constexpr int kExitFailure = 1;
constexpr auto kConnectRetryPause = std::chrono::milliseconds(20);
using varnoch::client::kDefaultHost;

struct Options {
    std::string host = kDefaultHost;
    std::uint16_t port = varnoch::protocol::kDefaultPort;
    std::int32_t mode = CANFlasher::ModeIsoStyle;
    std::uint8_t address = modulesim::ModuleConfig{}.address;  // the module simulator's own
    std::uint32_t identifier = CANFlasher::FlashStatus::kDefaultIdentifier;
    bool stopAtSearching = false;
    long connectTimeoutS = 10;
    long timeoutS = 900;
    std::string file;
    std::string marks;  // file for the marks at "Programming" and "Done"
};

int usage() {
    std::fprintf(
        stderr,
        "Usage: varnoch-bench-upload [--host H] [--port P] [--mode iso|mtcan|new|global]\n"
        "           [--address A] [--identifier I] [--stop-at searching|done]\n"
        "           [--connect-timeout S] [--timeout S] FILE\n"
        "Uploads FILE through the daemon at H:P (default %s:%u, retrying the connection\n"
        "for S seconds) and prints one line 'upload messages=... load_s=... program_s=... rate=...'.\n"
        "load_s runs from the upload request to \"Searching for device\", program_s from\n"
        "\"Programming\" to \"Done\"; rate is acknowledged messages per second of program_s;\n"
        "bus_bits is the nominal bus time of those messages and their acknowledgements, in bits.\n"
        "--stop-at searching aborts the job once it searches (nothing is programmed).\n",
        kDefaultHost, static_cast<unsigned>(varnoch::protocol::kDefaultPort));
    return kExitUsage;
}

using toolsupport::parseNumber;

// Takes one option with its value; false for an unknown option or a value it does not accept.
bool applyOption(const std::string& option, const char* value, Options& options) {
    std::uint32_t number = 0;
    if (option == "--host") {
        options.host = value;
    } else if (option == "--port" && parseNumber(value, varnoch::protocol::kHighestPort, number)) {
        options.port = static_cast<std::uint16_t>(number);
    } else if (option == "--mode") {
        return CANFlasher::modeFromOptionName(value, options.mode);
    } else if (option == "--address" && parseNumber(value, 255, number)) {
        options.address = static_cast<std::uint8_t>(number);
    } else if (option == "--identifier" && parseNumber(value, UINT32_MAX, number)) {
        options.identifier = number;
    } else if (option == "--stop-at" &&
               (std::strcmp(value, "searching") == 0 || std::strcmp(value, "done") == 0)) {
        options.stopAtSearching = std::strcmp(value, "searching") == 0;
    } else if (option == "--mark") {
        options.marks = value;
    } else if (option == "--connect-timeout" && parseNumber(value, 3600, number)) {
        options.connectTimeoutS = static_cast<long>(number);
    } else if (option == "--timeout" && parseNumber(value, 86400, number) && number > 0) {
        options.timeoutS = static_cast<long>(number);
    } else {
        return false;
    }
    return true;
}

bool parseOptions(int argc, char* argv[], Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        if (option.rfind("--", 0) != 0) {
            if (!options.file.empty()) {
                return false;
            }
            options.file = option;
            continue;
        }
        if (i + 1 >= argc) {
            return false;
        }
        const char* value = argv[++i];
        if (!applyOption(option, value, options)) {
            return false;
        }
    }
    return !options.file.empty();
}

// The daemon may still be starting: retry until it listens or the time is up.
bool connectWithin(const Options& options, varnoch::client::Client& client) {
    const auto deadline = Clock::now() + std::chrono::seconds(options.connectTimeoutS);
    for (;;) {
        const varnoch::client::Error error =
            client.connect(options.host, options.port, std::chrono::seconds(options.connectTimeoutS));
        if (error == varnoch::client::Error::None) {
            return true;
        }
        if (error != varnoch::client::Error::Refused || Clock::now() >= deadline) {
            std::fprintf(stderr, "varnoch-bench-upload: %s\n", client.errorText().c_str());
            return false;
        }
        std::this_thread::sleep_for(kConnectRetryPause);
    }
}

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

}  // namespace

int main(int argc, char* argv[]) {
    Options options;
    if (!parseOptions(argc, argv, options)) {
        return usage();
    }
    const std::string path = varnoch::client::absolutePath(options.file);
    // The same loader as the daemon's tells how many messages the module will acknowledge.
    CANFlasher::UploadMessages messages;
    if (CANFlasher::loadHexMessages(path, messages, nullptr) != CANFlasher::HexLoadResult::Loaded) {
        std::fprintf(stderr, "varnoch-bench-upload: %s is no loadable hex file\n", path.c_str());
        return kExitFailure;
    }
    const std::size_t messageCount = messages.size();
    std::uint64_t busBits = 0;
    for (std::size_t i = 0; i < messageCount; ++i) {
        busBits += CANFlasher::exchangeBits(messages[i]);
    }
    messages.clear();

    varnoch::client::Client client;
    if (!connectWithin(options, client)) {
        return kExitFailure;
    }
    varnoch::client::UploadRequest request;
    request.file = path;
    request.mode = options.mode;
    request.address = options.address;
    request.identifier = options.identifier;
    const Clock::time_point requested = Clock::now();
    if (client.requestUpload(request) != varnoch::client::Error::None) {
        std::fprintf(stderr, "varnoch-bench-upload: connection lost\n");
        return kExitFailure;
    }
    // First arrival of each state of a successful job.
    Clock::time_point reached[CANFlasher::StateDone + 1] = {};
    bool seen[CANFlasher::StateDone + 1] = {};
    const auto deadline = requested + std::chrono::seconds(options.timeoutS);
    const int finalState = options.stopAtSearching ? CANFlasher::StateSearching : CANFlasher::StateDone;
    while (!seen[finalState]) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const varnoch::client::Result<FlashStatus> next =
            client.nextStatus(std::chrono::milliseconds(left > 0 ? left : 0));
        if (next.error == varnoch::client::Error::TimedOut) {
            std::fprintf(stderr, "varnoch-bench-upload: the job did not end within %ld s\n",
                         options.timeoutS);
            return kExitFailure;
        }
        if (!next) {
            std::fprintf(stderr, "varnoch-bench-upload: connection lost\n");
            return kExitFailure;
        }
        const FlashStatus& status = next.value;
        const Clock::time_point now = Clock::now();
        if (CANFlasher::isErrorState(status.state) || status.state == CANFlasher::StateLocked) {
            std::fprintf(stderr, "varnoch-bench-upload: the job ended in \"%s\"\n",
                         CANFlasher::stateName(status.state));
            return kExitFailure;
        }
        if (status.state >= CANFlasher::StatePreparing && status.state <= CANFlasher::StateDone &&
            !seen[status.state]) {
            seen[status.state] = true;
            reached[status.state] = now;
            // A lost mark only loses the figure that the watcher would have made of it.
            if (status.state == CANFlasher::StateProgramming) {
                (void)varnochbench::appendMark(options.marks, "begin", "upload");
            } else if (status.state == CANFlasher::StateDone) {
                (void)varnochbench::appendMark(options.marks, "end", "upload");
            }
        }
    }
    const double loadS = secondsBetween(requested, reached[CANFlasher::StateSearching]);
    const double preparingS =
        seen[CANFlasher::StatePreparing]
            ? secondsBetween(reached[CANFlasher::StatePreparing], reached[CANFlasher::StateSearching])
            : 0.0;
    if (options.stopAtSearching) {
        // The owner's reset takes the job back to Idle; the daemon then ends with its last client.
        (void)client.reset();  // a daemon already gone has nothing left to abort
        std::printf("upload messages=%zu load_s=%.6f preparing_s=%.6f\n", messageCount, loadS, preparingS);
        return 0;
    }
    const double programS =
        secondsBetween(reached[CANFlasher::StateProgramming], reached[CANFlasher::StateDone]);
    std::printf(
        "upload messages=%zu load_s=%.6f preparing_s=%.6f program_s=%.6f rate=%.1f total_s=%.6f "
        "bus_bits=%llu\n",
        messageCount, loadS, preparingS, programS, static_cast<double>(messageCount) / programS,
        secondsBetween(requested, reached[CANFlasher::StateDone]), static_cast<unsigned long long>(busBits));
    return 0;
}
