// Fuzz target: the flasher's job, built in-process and never started (no socket, no threads of its
// own), driven by a sequence of operations, each a selector byte % 5 and its operands:
//   0 packet: slot, command (byte < 200: 1000 + byte % 8, else a word), payload size (word % 301),
//             extra header bytes (used when <= size), payload
//   1 frame: identifier (32 bits), extended (byte & 1), length (byte % 16), 8 data bytes
//   2 the reply timer expired   3 the main thread runs a posted upload   4 the module answers
// Channel 16 (no CAN interface) has a recording driver, so that the module can answer the last request.
#include <unistd.h>

#include <memory>

#include "CANFlasherServer.h"
#include "FuzzSupport.h"
#include "HexLoader.h"
#include "canchannel.h"
#include "varnoch/protocol/FlashProtocol.h"

using namespace CANFlasher;
using varnochfuzz::check;

namespace {

CanFrame lastSent{};
bool anySent = false;

std::uint32_t recordingDriver(CanDriverRequest* request, std::int32_t /*driverArgument*/) {
    if (request->operation == kCanOpQueueSize) {
        request->value = 1;  // a queue of its own, so the channel keeps no ring
    } else if (request->operation == kCanOpSend) {
        lastSent = *static_cast<const CanFrame*>(request->argument);
        anySent = true;
        const std::uint32_t id = lastSent.identifier;
        check(lastSent.extended != 0 &&
              (id == kUploadIdentifier || id == kFinishIdentifier || id == 0 || id == kSearchIdentifierOdd ||
               id == kSearchIdentifierEven || (id & 0xFFFF00FFu) == kIsoSearchIdentifier));
    }
    // Open and the poll query succeed (no poll function: nothing is received through the channel).
    return request->operation == kCanOpOpen || request->operation == kCanOpGetPoll ||
           request->operation == kCanOpQueueSize || request->operation == kCanOpSend;
}

class FuzzServer : public CANFlasherServer {
  public:
    FuzzServer() : CANFlasherServer(kNoCanInterface, 0, 5) {}
    ~FuzzServer() override { stopServer(); }
    void startUpload() override { ++postedUploads; }  // posted to the main thread, as the daemon does
    void allClientsGone() override {}
    void exitWhenIdleRequested(int, int, const std::uint8_t*) override {}

    void step(varnochfuzz::InputReader& in) {
        switch (in.byte() % 5) {
            case 0: {
                const int slot = in.byte() % 5;
                const std::uint8_t selector = in.byte();
                const auto command = selector < 200 ? static_cast<std::uint16_t>(CmdStatus + selector % 8)
                                                    : static_cast<std::uint16_t>(in.take(2));
                const std::uint32_t size = in.take(2) % 301u;
                const std::uint32_t extraHeader = in.byte();
                auto packet = std::make_unique<ProprietarySocketCommon::TPacket>(size, command);
                if (extraHeader <= size) {  // reception accepts any payload offset up to the end
                    packet->headerSize = static_cast<std::uint16_t>(packet->headerSize + extraHeader);
                }
                in.bytes(packet->getPayload(), packet->getPayloadSize());
                ProprietarySocketCommon::TPacket* handed = packet.get();
                handleNewPacketFromClient(slot, handed);
                check(handed == packet.get());  // the flasher never takes a packet over
                break;
            }
            case 1: {
                CanFrame frame{};
                frame.identifier = in.take(4);
                frame.extended = in.byte() & 1;
                frame.length = in.byte() % 16;
                in.bytes(frame.data, sizeof frame.data);
                handleFrame(FlashMessage::fromCanFrame(frame));
                break;
            }
            case 2:
                handleTimeout();
                break;
            case 3:
                if (postedUploads > 0) {
                    --postedUploads;
                    handleEvent(EventStartUpload, 0);
                }
                break;
            default:  // the finish frame is not answered; other searches get the search reply
                if (anySent && lastSent.identifier != kFinishIdentifier) {
                    const FlashMessage request = FlashMessage::fromCanFrame(lastSent);
                    handleFrame(request.identifier != kUploadIdentifier ? searchReply()
                                : request.data[0] == UploadErase        ? eraseReply()
                                                                        : expectedReplyFor(request));
                }
        }
        const FlashStatus now = status();
        check((now.state >= StateLocked && now.state <= StateDone) ||
              (now.state >= StateErrDeviceNotFound && now.state <= StateErrFileFormat));
        check(now.progress >= 0 && now.progress <= 100 && (now.state != StateDone || now.progress == 100));
    }

    int postedUploads = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    check(canChannelAttach(kNoCanInterface, recordingDriver, 0, 0));
    // Files the upload requests can name, relative to the working directory: valid, malformed,
    // only the end record, empty.
    varnochfuzz::scratch().write("a.hex",
                                 ":020000040000FA\n:10000000000102030405060708090A0B0C0D0E0F78\n"
                                 ":063FFA001122334455665C\n:00000001FF\n");
    varnochfuzz::scratch().write("b.hex", ":10000000000102\n:00000001FF\n");
    varnochfuzz::scratch().write("c.hex", ":00000001FF\r\n");
    varnochfuzz::scratch().write("d.hex", "");
    check(chdir(varnochfuzz::scratch().path().c_str()) == 0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size) {
    FuzzServer server;
    anySent = false;
    for (varnochfuzz::InputReader in(input, size); !in.empty();) {
        server.step(in);
    }
    return 0;
}
