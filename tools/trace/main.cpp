// varnoch-trace: the flashing dialogue on a CAN bus, decoded, from a live interface or a candump -L
// log; and what the kernel knows of a CAN interface.
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "CanTransport.h"
#include "CandumpLog.h"
#include "CommandLine.h"
#include "Dialogue.h"
#include "LinkInfo.h"
#include "Report.h"

namespace {

using namespace trace;

constexpr int kExitUsage = 2;
constexpr int kExitFailure = 1;
// How often a quiet bus lets the watch loop look at the stop flag.
constexpr std::uint32_t kPollMs = 200;
constexpr int kMalformedShown = 5;

const char* const kUsage =
    "Usage: varnoch-trace watch IFACE [--log FILE] [--steps]\n"
    "       varnoch-trace decode FILE [--steps]\n"
    "       varnoch-trace link IFACE\n"
    "\n"
    "Decodes the CAN dialogue between the varnoch flashing daemon and a control module's bootloader:\n"
    "searches of each dialect, erase, page selects, data messages, the two end messages, the finish\n"
    "frame and the module's replies. It lists the steps worth a look (every step with --steps): the\n"
    "repeats of each request, the reply's latency, replies after 1 s, wrong replies, unrelated frames\n"
    "a second; then a summary of each job: dialect and target, bytes and address ranges written,\n"
    "messages, repeats, the longest gap, throughput, how the job ended, and one \"finding:\" line for\n"
    "each kind of trouble seen.\n"
    "\n"
    "Commands:\n"
    "  watch IFACE       listen on the SocketCAN interface IFACE; report on SIGINT or SIGTERM\n"
    "  decode FILE       report on a log in can-utils' candump -L format (- reads standard input)\n"
    "  link IFACE        what the kernel knows of IFACE: exists, CAN, up or down, controller state,\n"
    "                    bit rate, transmit queue length, error counters\n"
    "\n"
    "Options:\n"
    "  -l, --log FILE    watch: also write every frame to FILE in candump -L format\n"
    "  -s, --steps       list every step, not only the search, the erase and steps with trouble\n"
    "  -h, --help        show this text\n"
    "\n"
    "Exit status: 0 after a report; 1 when the interface, the log or the kernel cannot be read;\n"
    "2 on a usage error.\n";

volatile sig_atomic_t stopRequested = 0;

void requestStop(int /*signal*/) {
    stopRequested = 1;
}

// SIGINT and SIGTERM end a watch; without SA_RESTART a blocked wait returns at once.
bool installStopHandlers() {
    struct sigaction action {};
    action.sa_handler = requestStop;
    sigemptyset(&action.sa_mask);
    return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

void report(const Dialogue& dialogue, bool every) {
    std::fputs(stepsReport(dialogue, every).c_str(), stdout);
    std::fputs(summaryReport(dialogue).c_str(), stdout);
    std::fflush(stdout);
}

int watch(const std::string& interfaceName, const std::string& logPath, bool every) {
    std::string error;
    std::string warning;
    const auto transport = toolsupport::SocketCanTransport::open(interfaceName, error, &warning);
    if (!transport) {
        std::fprintf(stderr, "varnoch-trace: %s\n", error.c_str());
        return kExitFailure;
    }
    if (!warning.empty()) {
        std::fprintf(stderr, "varnoch-trace: warning: %s\n", warning.c_str());
    }
    if (!transport->stampArrivals()) {
        std::fprintf(stderr, "varnoch-trace: the kernel does not time-stamp frames (%s)\n",
                     std::strerror(errno));
        return kExitFailure;
    }
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> log(nullptr, std::fclose);
    if (!logPath.empty()) {
        log.reset(std::fopen(logPath.c_str(), "w"));
        if (!log) {
            std::fprintf(stderr, "varnoch-trace: cannot write %s (%s)\n", logPath.c_str(),
                         std::strerror(errno));
            return kExitFailure;
        }
    }
    if (!installStopHandlers()) {
        std::fprintf(stderr, "varnoch-trace: cannot install signal handlers (%s)\n", std::strerror(errno));
        return kExitFailure;
    }
    std::fprintf(stderr, "varnoch-trace: watching %s; SIGINT (Ctrl-C) ends and reports\n",
                 interfaceName.c_str());
    Dialogue dialogue;
    int status = 0;
    while (stopRequested == 0) {
        TimedFrame timed;
        const auto received = transport->receive(timed.frame, kPollMs);
        if (received == toolsupport::FrameTransport::Received::Failed) {
            std::fprintf(stderr, "varnoch-trace: reading %s failed (%s)\n", interfaceName.c_str(),
                         std::strerror(errno));
            status = kExitFailure;
            break;
        }
        if (received != toolsupport::FrameTransport::Received::Frame) {
            continue;
        }
        timed.at = transport->arrivalMicros();
        dialogue.add(timed);
        if (log) {
            const std::string line = formatLogLine(timed, interfaceName);
            // Flushed at once, so that the log is whole whenever the watch is ended.
            if (std::fputs(line.c_str(), log.get()) < 0 || std::fflush(log.get()) != 0) {
                std::fprintf(stderr, "varnoch-trace: writing %s failed (%s)\n", logPath.c_str(),
                             std::strerror(errno));
                log.reset();
                status = kExitFailure;
            }
        }
    }
    report(dialogue, every);
    return status;
}

int decode(const std::string& path, bool every) {
    std::ifstream file;
    if (path != "-") {
        file.open(path);
        if (!file) {
            std::fprintf(stderr, "varnoch-trace: cannot read %s (%s)\n", path.c_str(), std::strerror(errno));
            return kExitFailure;
        }
    }
    std::istream& in = path == "-" ? std::cin : file;
    Dialogue dialogue;
    int malformed = 0;
    std::size_t number = 0;
    for (std::string line; std::getline(in, line);) {
        ++number;
        TimedFrame timed;
        switch (parseLogLine(line, timed)) {
            case LogLine::Frame:
                dialogue.add(timed);
                break;
            case LogLine::Malformed:
                if (++malformed <= kMalformedShown) {
                    std::fprintf(stderr, "varnoch-trace: %s:%zu: not a candump -L line, skipped\n",
                                 path.c_str(), number);
                }
                break;
            case LogLine::Skipped:
                break;
        }
    }
    if (in.bad()) {
        std::fprintf(stderr, "varnoch-trace: reading %s failed\n", path.c_str());
        return kExitFailure;
    }
    if (malformed > kMalformedShown) {
        std::fprintf(stderr, "varnoch-trace: %d lines skipped in all\n", malformed);
    }
    report(dialogue, every);
    return 0;
}

int link(const std::string& interfaceName) {
    LinkInfo info;
    std::string error;
    if (!queryLink(interfaceName, info, error)) {
        std::fprintf(stderr, "varnoch-trace: %s: %s\n", interfaceName.c_str(), error.c_str());
        return kExitFailure;
    }
    std::fputs(linkReport(interfaceName, info).c_str(), stdout);
    return 0;
}

int usageError(const char* text) {
    std::fprintf(stderr, "varnoch-trace: %s\nTry 'varnoch-trace --help'.\n", text);
    return kExitUsage;
}

}  // namespace

int main(int argc, char* argv[]) {
    enum Code { Log = 1, Steps, Help };
    const std::vector<toolsupport::OptionSpec> options{
        {"log", 'l', true, Log}, {"steps", 's', false, Steps}, {"help", 'h', false, Help}};
    std::vector<std::string> words;
    std::string logPath;
    bool every = false;
    bool help = false;
    const auto handle = [&](int code, const std::string& /*name*/, const char* value,
                            std::string& /*error*/) {
        switch (code) {
            case toolsupport::kOperand:
                words.emplace_back(value);
                return true;
            case Log:
                logPath = value;
                return true;
            case Steps:
                every = true;
                return true;
            default:
                help = true;
                return false;
        }
    };
    std::string error;
    if (!toolsupport::readOptions(argc - 1, argv + 1, options, handle, error)) {
        if (help) {
            std::fputs(kUsage, stdout);
            return 0;
        }
        return usageError(error.c_str());
    }
    if (words.size() != 2) {
        return usageError(words.size() < 2 ? "a command and its operand are needed" : "too many operands");
    }
    if (words[0] != "watch" && !logPath.empty()) {
        return usageError("--log goes with watch only");
    }
    if (words[0] == "watch") {
        return watch(words[1], logPath, every);
    }
    if (words[0] == "decode") {
        return decode(words[1], every);
    }
    if (words[0] == "link") {
        return link(words[1]);
    }
    return usageError(("unknown command '" + words[0] + "'").c_str());
}
