// varnoch-module-sim: a simulated control module on a SocketCAN interface, for trying the daemon
// without hardware.
#include <signal.h>
#include <sys/prctl.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "FrameTransport.h"
#include "ModuleRunner.h"
#include "ModuleSimulator.h"
#include "SimOptions.h"

namespace {

constexpr int kExitError = 1;

std::atomic<bool> stopRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "set from a signal handler");

void requestStop(int /*signal*/) {
    stopRequested.store(true);
}

bool installStopHandlers() {
    struct sigaction action {};
    action.sa_handler = requestStop;
    // No SA_RESTART: a signal cuts the runner's wait short, so it stops at once.
    action.sa_flags = 0;
    sigemptyset(&action.sa_mask);
    return sigaction(SIGINT, &action, nullptr) == 0 && sigaction(SIGTERM, &action, nullptr) == 0;
}

int fail(const std::string& message) {
    std::fprintf(stderr, "varnoch-module-sim: %s\n", message.c_str());
    return kExitError;
}

}  // namespace

int main(int argc, char* argv[]) {
    modulesim::SimSettings settings;
    std::string error;
    switch (modulesim::parseSimArguments(argc - 1, argv + 1, settings, error)) {
        case modulesim::ParseOutcome::Help:
            std::fputs(modulesim::simUsage(), stdout);
            return EXIT_SUCCESS;
        case modulesim::ParseOutcome::Error:
            return fail(error + " (see --help)");
        case modulesim::ParseOutcome::Run:
            break;
    }
    if (!installStopHandlers()) {
        return fail("cannot install the signal handlers");
    }
    std::string warning;
    const auto transport = modulesim::SocketCanTransport::open(settings.interfaceName, error, &warning);
    if (!transport) {
        return fail(error);
    }
    if (!warning.empty()) {
        std::fprintf(stderr, "varnoch-module-sim: warning: %s\n", warning.c_str());
    }
    if (settings.runner.bitrate != 0) {
        // Replies are due within a millisecond: without these their times would be off by the
        // scheduling delay of reading the request and by the default 50 µs slack of every wake-up
        // from a longer wait.
        if (!transport->stampArrivals()) {
            return fail("cannot have the kernel stamp the frames' arrival");
        }
        if (prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL) != 0) {
            return fail("cannot shorten the timer slack");
        }
    }
    modulesim::ModuleSimulator module(settings.module);
    const modulesim::ModuleConfig& config = settings.module;
    std::printf("varnoch-module-sim: on %s as address 0x%02X, identifier 0x%08X, modes %s; image %s\n",
                settings.interfaceName.c_str(), static_cast<unsigned>(config.address),
                static_cast<unsigned>(config.identifier), modulesim::modeList(config.modes).c_str(),
                settings.runner.imagePath.c_str());
    std::fflush(stdout);

    switch (modulesim::runModule(module, *transport, settings.runner, stopRequested)) {
        case modulesim::RunOutcome::TransportFailed:
            return fail("reading from '" + settings.interfaceName + "' failed; stopping");
        case modulesim::RunOutcome::Stopped:
        case modulesim::RunOutcome::UploadFinished:
            break;
    }
    return EXIT_SUCCESS;
}
