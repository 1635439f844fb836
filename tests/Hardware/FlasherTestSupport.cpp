#include "FlasherTestSupport.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <ostream>

#include "ProprietarySocketCommon.h"
#include "canchannel.h"

using namespace CANFlasher;

namespace {
// The server's lines are awaited in captured output: they must not sit in a full buffer. Set before
// anything is printed.
const bool kLineBuffered = std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ) == 0;
}  // namespace

bool operator==(const CanFrame& a, const CanFrame& b) {
    return a.identifier == b.identifier && (a.extended != 0) == (b.extended != 0) && a.length == b.length &&
           std::memcmp(a.data, b.data, a.length > 8 ? 8 : a.length) == 0;
}

std::ostream& operator<<(std::ostream& out, const CanFrame& frame) {
    out << std::hex << std::uppercase << std::setfill('0') << std::setw(8) << frame.identifier
        << (frame.extended != 0 ? " ext" : " std") << " [" << std::dec << int{frame.length} << "]"
        << std::hex;
    for (int i = 0; i < frame.length && i < 8; ++i) {
        out << ' ' << std::setw(2) << int{frame.data[i]};
    }
    return out << std::dec;
}

CanFrame extendedFrame(std::uint32_t identifier, std::vector<std::uint8_t> data) {
    CanFrame frame{};
    frame.identifier = identifier;
    frame.extended = 1;
    frame.length = static_cast<std::uint8_t>(data.size());
    std::copy(data.begin(), data.end(), frame.data);
    return frame;
}

// ---------------------------------------------------------------------------------------------

ScriptedModule::ScriptedModule(VirtualCanBus& /*bus*/, std::int32_t endpoint)
    : endpoint_(endpoint), thread_([this] { run(); }) {}

ScriptedModule::~ScriptedModule() {
    thread_.join();
}

void ScriptedModule::run() {
    for (;;) {
        CanFrame request{};
        CanDriverRequest receive{kCanOpReceive, &request, 0};
        if (VirtualCanBus::driver(&receive, endpoint_) == 0) {
            return;  // the bus was shut down
        }
        {
            std::lock_guard<std::mutex> lock(lock_);
            frames_.push_back({request, Clock::now()});
        }
        changed_.notify_all();
        CanFrame answer{};
        if (reply(request, answer)) {
            CanDriverRequest send{kCanOpSend, &answer, 0};
            (void)VirtualCanBus::driver(&send, endpoint_);  // fails only once the bus is down
        }
    }
}

bool ScriptedModule::reply(const CanFrame& request, CanFrame& answer) {
    const bool isoSearch = (request.identifier & 0xFFFF00FF) == 0x18EF00C0 && request.length == 8;
    const bool canSearch = request.identifier == 0x1FF00444 || request.identifier == 0x1F800444;
    const bool blankSearch = request.identifier == 0 && request.length == 0;
    if (isoSearch || canSearch || blankSearch) {
        answer = extendedFrame(0x84, {0x20, 0x00});
        return answerSearch;
    }
    if (request.identifier != 0xC4 || request.length != 8) {
        return false;
    }
    switch (request.data[0]) {
        case 0x03:
            answer = extendedFrame(0x1C4, {0x03, 0xFE, 0x00, 0x00});
            return answerErase;
        case 0x04:
            answer = extendedFrame(0x1C4, {0x04, request.data[1], 0x00});
            break;
        case 0x05:
        case 0x06:
            answer = extendedFrame(0x1C4, {request.data[0], 0x00});
            break;
        default:
            return false;
    }
    const int number = uploadFramesSeen_++;
    const int from = dropAcksFrom;
    return !(from >= 0 && number >= from && number - from < dropAckCount);
}

std::vector<SeenFrame> ScriptedModule::waitForFrames(std::size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(lock_);
    changed_.wait_for(lock, timeout, [&] { return frames_.size() >= count; });
    return frames_;
}

std::vector<SeenFrame> ScriptedModule::frames() {
    std::lock_guard<std::mutex> lock(lock_);
    return frames_;
}

// ---------------------------------------------------------------------------------------------

TestFlasherServer::TestFlasherServer(std::int32_t channel, std::function<void()> uploadRequested)
    : CANFlasherServer(channel, 0, FlasherTest::kSlots), uploadRequested_(std::move(uploadRequested)) {}

void TestFlasherServer::startUpload() {
    std::function<void()> hook;
    {
        std::lock_guard<std::mutex> lock(hookLock_);
        hook = beforeUpload_;
    }
    if (hook) {
        hook();
    }
    uploadRequested_();
}

void TestFlasherServer::allClientsGone() {
    {
        std::lock_guard<std::mutex> lock(callLock_);
        ++allClientsGoneCalls_;
    }
    called_.notify_all();
}

void TestFlasherServer::exitWhenIdleRequested(int /*clientIndex*/, int commandOffset,
                                              const std::uint8_t* /*payload*/) {
    {
        std::lock_guard<std::mutex> lock(callLock_);
        lastCommandOffset_ = commandOffset;
        ++exitWhenIdleCalls_;
    }
    called_.notify_all();
}

bool TestFlasherServer::waitForCount(const int& counter, int count) {
    std::unique_lock<std::mutex> lock(callLock_);
    return called_.wait_for(lock, kDeadline, [&] { return counter >= count; });
}

bool TestFlasherServer::waitForAllClientsGone(int count) {
    return waitForCount(allClientsGoneCalls_, count);
}
bool TestFlasherServer::waitForExitWhenIdle(int count) {
    return waitForCount(exitWhenIdleCalls_, count);
}

int TestFlasherServer::lastCommandOffset() {
    std::lock_guard<std::mutex> lock(callLock_);
    return lastCommandOffset_;
}

void TestFlasherServer::setBeforeUpload(std::function<void()> hook) {
    std::lock_guard<std::mutex> lock(hookLock_);
    beforeUpload_ = std::move(hook);
}

// ---------------------------------------------------------------------------------------------

TempFolder::TempFolder() {
    char name[] = "/tmp/varnoch-flasher-XXXXXX";
    if (mkdtemp(name) == nullptr) {
        std::perror("mkdtemp");
        std::abort();
    }
    path_ = name;
}

TempFolder::~TempFolder() {
    std::error_code ignored;  // a folder left behind in /tmp is no reason to fail a test
    std::filesystem::remove_all(path_, ignored);
}

std::string TempFolder::write(const std::string& name, const std::string& content) const {
    const std::string path = path_ + "/" + name;
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

Bytes uploadPayload(std::uint8_t mode, std::uint8_t address, std::uint32_t identifier,
                    const std::string& path) {
    Bytes payload(6 + path.size() + 1, 0);
    payload[0] = mode;
    payload[1] = address;
    for (int i = 0; i < 4; ++i) {
        payload[2 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(identifier >> (8 * i));
    }
    std::memcpy(payload.data() + 6, path.data(), path.size());
    return payload;  // the last byte stays the terminating 0
}

// ---------------------------------------------------------------------------------------------

void FlasherTest::SetUp() {
    ASSERT_TRUE(kLineBuffered);
    ASSERT_TRUE(canChannelsInit(10));
    flasherEndpoint_ = bus_.addEndpoint();
    const std::int32_t moduleEndpoint = bus_.addEndpoint();
    ASSERT_GE(flasherEndpoint_, 0);
    ASSERT_GE(moduleEndpoint, 0);
    ASSERT_TRUE(canChannelAttach(kChannel, VirtualCanBus::driver, flasherEndpoint_, 0));
    module_ = std::make_unique<ScriptedModule>(bus_, moduleEndpoint);
    server_ = std::make_unique<TestFlasherServer>(kChannel, [this] {
        {
            std::lock_guard<std::mutex> lock(uploadLock_);
            ++uploadsPending_;
        }
        uploadChanged_.notify_all();
    });
    uploadThread_ = std::thread([this] { runUploads(); });
    ASSERT_NE(server_->startServer(false), threadfunc::ThreadHandle{0});
    ASSERT_GT(server_->boundPort(), 0);
}

void FlasherTest::TearDown() {
    {
        std::lock_guard<std::mutex> lock(uploadLock_);
        stopping_ = true;
    }
    uploadChanged_.notify_all();
    if (uploadThread_.joinable()) {
        uploadThread_.join();
    }
    // The bus goes first: the reception thread leaves its loop and can be joined before the server it
    // works on is destroyed.
    bus_.shutdown();
    if (server_ && server_->receptionThread() != threadfunc::ThreadHandle{0}) {
        threadfunc::threadJoin(server_->receptionThread());
    }
    module_.reset();
    server_.reset();
}

void FlasherTest::runUploads() {
    std::unique_lock<std::mutex> lock(uploadLock_);
    for (;;) {
        uploadChanged_.wait(lock, [this] { return stopping_ || uploadsPending_ > 0; });
        if (stopping_) {
            return;
        }
        --uploadsPending_;
        lock.unlock();
        server_->handleEvent(EventStartUpload, 0);
        lock.lock();
    }
}

std::unique_ptr<TestFlasherServer> FlasherTest::makeDirectServer() {
    const std::int32_t endpoint = bus_.addEndpoint();
    EXPECT_GE(endpoint, 0);
    EXPECT_TRUE(canChannelAttach(kDirectChannel, VirtualCanBus::driver, endpoint, 0));
    return std::make_unique<TestFlasherServer>(kDirectChannel, [] {});
}

void FlasherTest::deliver(CANFlasherServer& server, std::uint16_t command, const Bytes& payload) {
    auto packet = std::make_unique<ProprietarySocketCommon::TPacket>(
        static_cast<std::uint32_t>(payload.size()), command);
    std::copy(payload.begin(), payload.end(), packet->getPayload());
    ProprietarySocketCommon::TPacket* handed = packet.get();
    server.handleNewPacketFromClient(0, handed);
    EXPECT_EQ(handed, packet.get());  // the server never keeps a packet
}

std::unique_ptr<TestClient> FlasherTest::connect() {
    auto client = std::make_unique<TestClient>(server_->boundPort());
    EXPECT_TRUE(client->connected());
    EXPECT_TRUE(client->readPacketOf(ProprietarySocketCommon::CmdIdentity).has_value());
    return client;
}

std::vector<FlashStatus> FlasherTest::statusesUntil(TestClient& client,
                                                    const std::function<bool(const FlashStatus&)>& done,
                                                    std::chrono::milliseconds timeout) {
    std::vector<FlashStatus> seen;
    const auto deadline = Clock::now() + timeout;
    while (Clock::now() < deadline) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        std::optional<WirePacket> packet =
            client.readPacketOf(CmdStatus, left + std::chrono::milliseconds(1));
        if (!packet) {
            break;
        }
        EXPECT_EQ(packet->payload.size(), FlashStatus::kWireSize);
        if (packet->payload.size() != FlashStatus::kWireSize) {
            break;
        }
        seen.push_back(FlashStatus::fromWire(packet->payload.data()));
        if (done(seen.back())) {
            return seen;
        }
    }
    ADD_FAILURE() << "the awaited status did not come; last state "
                  << (seen.empty() ? -1 : seen.back().state);
    return seen;
}

std::vector<FlashStatus> FlasherTest::statusesUntilState(TestClient& client, std::int32_t state,
                                                         std::chrono::milliseconds timeout) {
    return statusesUntil(
        client, [state](const FlashStatus& status) { return status.state == state; }, timeout);
}

FlashStatus FlasherTest::askStatus(TestClient& client) {
    EXPECT_TRUE(client.sendPacket(CmdRequestStatus, {}));
    std::optional<WirePacket> packet = client.readPacketOf(CmdStatus);
    if (!packet || packet->payload.size() != FlashStatus::kWireSize) {
        ADD_FAILURE() << "no status answer";
        return {};
    }
    return FlashStatus::fromWire(packet->payload.data());
}

std::vector<FlashStatus> FlasherTest::upload(TestClient& client, const std::string& path, std::int32_t state,
                                             std::uint8_t mode, std::uint8_t address,
                                             std::uint32_t identifier, std::chrono::milliseconds timeout) {
    EXPECT_TRUE(client.sendPacket(CmdUploadHexFile, uploadPayload(mode, address, identifier, path)));
    return statusesUntilState(client, state, timeout);
}
