// Fuzz target: the flasher's job driven by an arbitrary sequence of what can happen to it: client
// packets of any command, size and content from any slot, CAN frames, reply time-outs, the main
// thread starting an accepted upload, and the module answering what is awaited. The server is built
// in-process and never started: no socket, no threads of its own. Its channel is 16 (no CAN
// interface) with a recording driver attached, so that the module can answer the last request.
//
// Input: a sequence of operations, each a selector byte and its operands (missing bytes read as 0):
//   0 packet:  slot (byte % 5), command (byte < 200: 1000 + byte % 8, else a 16-bit word),
//              payload size (word % 301), extra header bytes (byte, used when <= size), payload
//   1 frame:   identifier (32 bits), extended (byte & 1), length (byte % 16), 8 data bytes
//   2 the reply timer expired
//   3 the main thread runs one posted upload start
//   4 the module answers the last request correctly
// With VARNOCH_FUZZ_TRACE set in the environment, each operation's resulting state is printed on
// standard error (for reading a crashing input).
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "CANFlasherServer.h"
#include "FlashProtocol.h"
#include "FuzzSupport.h"
#include "HexLoader.h"
#include "canchannel.h"

using namespace CANFlasher;

namespace {

constexpr int kSlots = 5;
constexpr std::uint32_t kMaxPayload = 300;
constexpr std::uint8_t kCommandSpread = 8;     // 1000..1007: every flasher command and one beyond
constexpr std::uint8_t kAnyCommandFrom = 200;  // selector values from here on take a whole word

// Hex files the upload requests can name, relative to the scratch folder (the working directory).
const char* const kValidHex =
    ":020000040000FA\n"
    ":10000000000102030405060708090A0B0C0D0E0F78\n"
    ":063FFA001122334455665C\n"
    ":00000001FF\n";
const char* const kMalformedHex = ":10000000000102\n:00000001FF\n";
const char* const kEndOnlyHex = ":00000001FF\r\n";

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

// The last frame the flasher sent; every frame it sends must be one of its requests.
CanFrame lastSent{};
bool anySent = false;
bool tracing = false;

bool isRequest(const CanFrame& frame) {
    if (frame.extended == 0) {
        return false;
    }
    const std::uint32_t id = frame.identifier;
    return id == kUploadIdentifier || id == kFinishIdentifier || id == kSearchIdentifierOdd ||
           id == kSearchIdentifierEven || id == 0 || (id & 0xFFFF00FFu) == kIsoSearchIdentifier;
}

std::uint32_t recordingDriver(CanDriverRequest* request, std::int32_t /*driverArgument*/) {
    switch (request->operation) {
        case kCanOpOpen:
            return 1;
        case kCanOpGetPoll:
            return 1;  // no poll function: nothing is ever received through the channel
        case kCanOpQueueSize:
            request->value = 1;  // a queue of its own, so the channel keeps no ring
            return 1;
        case kCanOpSend:
            lastSent = *static_cast<const CanFrame*>(request->argument);
            anySent = true;
            check(isRequest(lastSent));
            return 1;
        default:
            return 0;
    }
}

class FuzzServer : public CANFlasherServer {
  public:
    FuzzServer() : CANFlasherServer(kNoCanInterface, 0, kSlots) {}
    ~FuzzServer() override { stopServer(); }

    // As the daemon does: the upload is posted to the main thread, which the input schedules.
    void startUpload() override { ++postedUploads; }
    void allClientsGone() override {}
    void exitWhenIdleRequested(int /*clientIndex*/, int /*commandOffset*/,
                               const std::uint8_t* /*payload*/) override {}

    void runPostedUpload() {
        if (postedUploads > 0) {
            --postedUploads;
            handleEvent(EventStartUpload, 0);
        }
    }

    // The module's answer to the last request; the finish frame and the blank search of modes 3
    // and above are answered as searches.
    void answerLastRequest() {
        if (!anySent || lastSent.identifier == kFinishIdentifier) {
            return;
        }
        const FlashMessage request = FlashMessage::fromCanFrame(lastSent);
        if (request.identifier != kUploadIdentifier) {
            handleFrame(searchReply());
        } else if (request.data[0] == kEraseCommand) {
            handleFrame(eraseReply());
        } else {
            handleFrame(expectedReplyFor(request));
        }
    }

    void checkInvariants() const {
        const FlashStatus now = status();
        check((now.state >= StateLocked && now.state <= StateDone) ||
              (now.state >= StateErrDeviceNotFound && now.state <= StateErrFileFormat));
        check(now.progress >= 0 && now.progress <= 100);
        check(now.state != StateDone || now.progress == 100);
    }

    using CANFlasherServer::handleFrame;
    using CANFlasherServer::handleTimeout;

    int postedUploads = 0;
};

void deliverPacket(FuzzServer& server, varnochfuzz::InputReader& in) {
    const int slot = in.byte() % kSlots;
    const std::uint8_t selector = in.byte();
    const std::uint16_t command = selector < kAnyCommandFrom
                                      ? static_cast<std::uint16_t>(CmdStatus + selector % kCommandSpread)
                                      : in.word();
    const std::uint32_t size = in.word() % (kMaxPayload + 1);
    const std::uint32_t extraHeader = in.byte();
    auto packet = std::make_unique<ProprietarySocketCommon::TPacket>(size, command);
    check(packet->data != nullptr);
    // Reception accepts any payload offset from 8 up to the packet's end.
    if (extraHeader <= size) {
        packet->headerSize = static_cast<std::uint16_t>(packet->headerSize + extraHeader);
    }
    in.bytes(packet->getPayload(), packet->getPayloadSize());
    ProprietarySocketCommon::TPacket* handed = packet.get();
    server.handleNewPacketFromClient(slot, handed);
    check(handed == packet.get());  // the flasher never takes a packet over
}

void deliverFrame(FuzzServer& server, varnochfuzz::InputReader& in) {
    CanFrame frame{};
    frame.identifier = in.longWord();
    frame.extended = in.byte() & 1;
    frame.length = in.byte() % 16;
    in.bytes(frame.data, sizeof frame.data);
    server.handleFrame(FlashMessage::fromCanFrame(frame));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    check(canChannelAttach(kNoCanInterface, recordingDriver, 0, 0));
    tracing = std::getenv("VARNOCH_FUZZ_TRACE") != nullptr;
    const std::string& folder = varnochfuzz::scratchFolder();
    varnochfuzz::writeFile(folder + "/a.hex", kValidHex, std::char_traits<char>::length(kValidHex));
    varnochfuzz::writeFile(folder + "/b.hex", kMalformedHex, std::char_traits<char>::length(kMalformedHex));
    varnochfuzz::writeFile(folder + "/c.hex", kEndOnlyHex, std::char_traits<char>::length(kEndOnlyHex));
    varnochfuzz::writeFile(folder + "/d.hex", "", 0);
    if (chdir(folder.c_str()) != 0) {
        std::perror(folder.c_str());
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    FuzzServer server;
    anySent = false;
    varnochfuzz::InputReader in(input, size);
    while (!in.empty()) {
        const int operation = in.byte() % 5;
        switch (operation) {
            case 0:
                deliverPacket(server, in);
                break;
            case 1:
                deliverFrame(server, in);
                break;
            case 2:
                server.handleTimeout();
                break;
            case 3:
                server.runPostedUpload();
                break;
            default:
                server.answerLastRequest();
                break;
        }
        server.checkInvariants();
        if (tracing) {
            const FlashStatus now = server.status();
            std::fprintf(stderr, "operation %i: state %i, progress %i, uploads posted %i\n", operation,
                         static_cast<int>(now.state), static_cast<int>(now.progress), server.postedUploads);
        }
    }
    return 0;
}
