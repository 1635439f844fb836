// Flashes an Intel-HEX file into a module through the varnoch daemon and prints the job's progress:
// the client library in a few lines. Usage: varnoch-example-upload FILE [ADDRESS [PORT]]
#include <cstdio>
#include <cstdlib>

#include "varnoch/client.h"

int main(int argc, char* argv[]) {
    using namespace varnoch::client;
    if (argc < 2 || argc > 4) {
        std::fprintf(stderr, "usage: %s FILE [ADDRESS [PORT]]\n", argv[0]);
        return 2;
    }
    UploadRequest request;
    request.file = argv[1];
    request.mode = CANFlasher::ModeIsoStyle;
    if (argc > 2) {
        request.address = static_cast<std::uint8_t>(std::strtoul(argv[2], nullptr, 0));
    }
    const auto port = argc > 3 ? static_cast<std::uint16_t>(std::strtoul(argv[3], nullptr, 0)) : kDefaultPort;

    Client client;
    if (client.connect(kDefaultHost, port) != Error::None) {
        std::fprintf(stderr, "%s\n", client.errorText().c_str());
        return 1;
    }
    std::printf("connected to %s %s (pid %u)\n", client.identity().processName.c_str(),
                client.identity().versionText.c_str(), client.identity().pid);

    // Called on this thread for each change of state or progress.
    const UploadResult result = client.upload(request, [](const Status& status) {
        std::printf("%-22s %3d%%\n", CANFlasher::stateName(status.state), status.progress);
    });
    for (const StateTime& step : result.states) {
        std::printf("  %-22s %6lld ms\n", CANFlasher::stateName(step.state),
                    static_cast<long long>(step.time.count()));
    }
    if (!result.ok()) {
        std::fprintf(stderr, "upload failed: %s: %s\n", errorName(result.error), client.errorText().c_str());
        return 1;
    }
    std::printf("%s\n", CANFlasher::stateName(result.status.state));
    return 0;
}
