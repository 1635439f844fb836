#include "FlasherTestSupport.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>

#include "EventQueue.h"
#include "canchannel.h"

using namespace CANFlasher;

bool operator==(const CanFrame& a, const CanFrame& b) {
    return a.identifier == b.identifier && (a.extended != 0) == (b.extended != 0) && a.length == b.length &&
           std::equal(a.data, a.data + std::min<int>(a.length, 8), b.data);
}

std::ostream& operator<<(std::ostream& out, const CanFrame& frame) {
    out << std::hex << std::uppercase << frame.identifier << (frame.extended != 0 ? " ext" : " std") << " ["
        << int{frame.length} << "]" << std::setfill('0');
    for (int i = 0; i < std::min<int>(frame.length, 8); ++i) {
        out << ' ' << std::setw(2) << int{frame.data[i]};
    }
    return out << std::dec;
}

CanFrame extendedFrame(std::uint32_t identifier, std::vector<std::uint8_t> data) {
    CanFrame frame{identifier, 1, static_cast<std::uint8_t>(data.size()), {}};
    std::copy(data.begin(), data.end(), frame.data);
    return frame;
}

std::string hexRecord(std::uint8_t type, std::uint16_t address, const std::vector<std::uint8_t>& bytes) {
    unsigned sum = static_cast<unsigned>(bytes.size()) + (address >> 8) + (address & 0xFF) + type;
    char text[16];
    std::snprintf(text, sizeof text, ":%02X%04X%02X", static_cast<unsigned>(bytes.size()), address, type);
    std::string line = text;
    for (std::uint8_t byte : bytes) {
        std::snprintf(text, sizeof text, "%02X", byte);
        line += text;
        sum += byte;
    }
    std::snprintf(text, sizeof text, "%02X\n", (0x100 - (sum & 0xFF)) & 0xFF);
    return line + text;
}

Bytes uploadPayload(std::uint8_t mode, std::uint8_t address, std::uint32_t identifier,
                    const std::string& path) {
    Bytes payload(6 + path.size() + 1, 0);  // the last byte stays the terminating 0
    payload[0] = mode;
    payload[1] = address;
    for (std::size_t i = 0; i < 4; ++i) {
        payload[2 + i] = static_cast<std::uint8_t>(identifier >> (8 * i));
    }
    std::copy(path.begin(), path.end(), payload.begin() + 6);
    return payload;
}

TempFolder::TempFolder() {
    char name[] = "/tmp/varnoch-flasher-XXXXXX";
    if (mkdtemp(name) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    path_ = name;
}

TempFolder::~TempFolder() {
    std::error_code ignored;  // a folder left in /tmp fails no test
    std::filesystem::remove_all(path_, ignored);
}

std::string TempFolder::write(const std::string& name, const std::string& content) const {
    std::ofstream(path_ + "/" + name, std::ios::binary) << content;
    return path_ + "/" + name;
}

// ---------------------------------------------------------------------------------------------

namespace {
std::atomic<ScriptedModule*> activeModule{nullptr};  // the monitor hook takes no context
std::atomic<CANFlasherServer*> activeServer{nullptr};
std::atomic<bool> loopStopping{false};
constexpr std::int32_t kStopLoop = 99;  // no event of the daemon's
}  // namespace

ScriptedModule::ScriptedModule(VirtualCanBus& bus, std::int32_t flasherEndpoint)
    : bus_(bus), flasherEndpoint_(flasherEndpoint) {
    activeModule = this;
    canChannelSetMonitor(monitor);
}

ScriptedModule::~ScriptedModule() {
    canChannelSetMonitor(nullptr);
    activeModule = nullptr;
}

void ScriptedModule::monitor(const CanFrame& frame, std::uint32_t direction, std::uint32_t /*counter*/) {
    ScriptedModule* module = activeModule;
    CanFrame answer{};
    if (module == nullptr || direction != kCanMonitorSent) {
        return;
    }
    bool answered = false;
    {
        std::lock_guard<std::mutex> lock(module->lock_);
        module->seen_.push_back({frame, Clock::now()});
        answered = module->reply(frame, answer);
    }
    module->changed_.notify_all();
    if (answered) {
        module->bus_.injectTo(module->flasherEndpoint_, answer);
    }
}

bool ScriptedModule::reply(const CanFrame& request, CanFrame& answer) {
    const std::uint32_t id = request.identifier;
    if (((id & 0xFFFF00FF) == 0x18EF00C0 && request.length == 8) || id == 0x1FF00444 || id == 0x1F800444 ||
        (id == 0 && request.length == 0)) {
        answer = extendedFrame(0x84, {0x20, 0x00});
        return answerSearch;
    }
    const std::uint8_t command = request.data[0];
    if (id != 0xC4 || request.length != 8) {
        return false;
    }
    if (command == 0x03) {
        answer = extendedFrame(0x1C4, {0x03, 0xFE, 0x00, 0x00});
        return answerErase;
    }
    answer = command == 0x04 ? extendedFrame(0x1C4, {0x04, request.data[1], 0x00})
                             : extendedFrame(0x1C4, {command, 0x00});
    const int number = uploadFrames_++;
    return number < dropAcksFrom || number >= dropAcksFrom + dropAckCount;
}

std::vector<SeenFrame> ScriptedModule::waitForFrames(std::size_t count) {
    std::unique_lock<std::mutex> lock(lock_);
    changed_.wait_for(lock, kDeadline, [&] { return seen_.size() >= count; });
    return seen_;
}

std::vector<CanFrame> ScriptedModule::frames(std::size_t count) {
    std::vector<CanFrame> frames;
    for (const SeenFrame& seen : waitForFrames(count)) {
        frames.push_back(seen.frame);
    }
    return frames;
}

void DirectServer::deliver(std::uint16_t command, const Bytes& payload) {
    auto packet = std::make_unique<TPacket>(static_cast<std::uint32_t>(payload.size()), command);
    std::copy(payload.begin(), payload.end(), packet->getPayload());
    TPacket* handed = packet.get();
    handleNewPacketFromClient(0, handed);
    EXPECT_EQ(handed, packet.get());  // never taken over
}

// ---------------------------------------------------------------------------------------------

void FlasherTest::onEvent(std::int32_t code, std::int32_t parameter) {
    if (code == kStopLoop) {
        loopStopping = true;
    } else if (CANFlasherServer* server = activeServer) {
        server->handleEvent(code, parameter);  // uploads run here, as on the daemon's main thread
    }
}

void FlasherTest::SetUp() {
    ASSERT_TRUE(canChannelsInit(10));
    const std::int32_t endpoint = bus_.addEndpoint();
    ASSERT_TRUE(canChannelAttach(kChannel, VirtualCanBus::driver, endpoint, 0));
    module_ = std::make_unique<ScriptedModule>(bus_, endpoint);
    server_ = std::make_unique<CANFlasherServer_Orelevents>(kChannel, 0, 5);
    activeServer = server_.get();
    loopStopping = false;
    setEventHandler(onEvent);
    mainLoop_ = std::thread([] {
        while (!loopStopping) {
            (void)processNextEvent();
        }
    });
    ASSERT_NE(server_->startServer(false), threadfunc::ThreadHandle{0});
}

void FlasherTest::TearDown() {
    (void)postEvent(0, kStopLoop, 0);
    mainLoop_.join();
    activeServer = nullptr;
    // The reception thread leaves its loop once the bus is down, and is joined before the next test
    // makes a new channel table.
    bus_.shutdown();
    (void)threadfunc::threadJoin(server_->receptionThread());
    server_.reset();
    module_.reset();
}

std::unique_ptr<TestClient> FlasherTest::connect() {
    auto client = std::make_unique<TestClient>(server_->boundPort());
    EXPECT_TRUE(client->readPacketOf(ProprietarySocketCommon::CmdIdentity).has_value());
    return client;
}

std::vector<FlashStatus> FlasherTest::statusesUntil(TestClient& client, std::int32_t state) {
    std::vector<FlashStatus> seen;
    while (seen.empty() || seen.back().state != state) {
        const std::optional<WirePacket> packet = client.readPacketOf(CmdStatus);
        if (!packet || packet->payload.size() != FlashStatus::kWireSize) {
            ADD_FAILURE() << "no status " << state << " came; last "
                          << (seen.empty() ? -1 : seen.back().state);
            break;
        }
        seen.push_back(FlashStatus::fromWire(packet->payload.data()));
    }
    return seen;
}

std::vector<FlashStatus> FlasherTest::upload(TestClient& client, const std::string& path, std::int32_t state,
                                             std::uint8_t mode, std::uint32_t identifier) {
    EXPECT_TRUE(client.sendPacket(CmdUploadHexFile, uploadPayload(mode, 0x26, identifier, path)));
    return statusesUntil(client, state);
}

std::int32_t FlasherTest::askState(TestClient& client) {
    EXPECT_TRUE(client.sendPacket(CmdRequestStatus, {}));
    const std::optional<WirePacket> packet = client.readPacketOf(CmdStatus);
    return packet && packet->payload.size() == FlashStatus::kWireSize ? packet->payload[1] : -1;
}

std::unique_ptr<DirectServer> FlasherTest::makeDirectServer() {
    constexpr std::int32_t kDirectChannel = 4;
    EXPECT_TRUE(canChannelAttach(kDirectChannel, VirtualCanBus::driver, bus_.addEndpoint(), 0));
    return std::make_unique<DirectServer>(kDirectChannel, 0, 1);
}
