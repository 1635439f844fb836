// The socket server with its client slots, over loopback.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iterator>
#include <memory>
#include <regex>

#include "ProprietarySocketServer.h"
#include "TestClient.h"
#include "tick.h"

using Common = ProprietarySocketCommon;

namespace {

// Listens on an ephemeral loopback port and records "connected <index> <count>", "disconnected <index>
// <count>" and "packet <index> <command>" as they happen.
class RecordingServer : public ProprietarySocketServer {
  public:
    explicit RecordingServer(int slotCount, bool globalAccess = false)
        : ProprietarySocketServer(0, slotCount) {
        startServer(globalAccess);
    }
    ~RecordingServer() override { stopServer(); }

    void handleNewPacketFromClient(int clientIndex, TPacket*& packet) override {
        record("packet " + std::to_string(clientIndex) + " " + std::to_string(packet->getCommand()));
    }
    void clientConnected(int clientIndex) override {
        ProprietarySocketServer::clientConnected(clientIndex);
        record("connected " + std::to_string(clientIndex) + " " + std::to_string(clientCount()));
    }
    void clientDisconnected(int clientIndex) override {
        ProprietarySocketServer::clientDisconnected(clientIndex);
        record("disconnected " + std::to_string(clientIndex) + " " + std::to_string(clientCount()));
    }
    // The next `count` events, each waited for.
    std::vector<std::string> waitEvents(std::size_t count) {
        std::vector<std::string> events(count);
        for (std::string& event : events) {
            (void)waitUntil([&] { return events_.tryPop(&event); });
        }
        return events;
    }

  private:
    void record(const std::string& event) { events_.push(event); }
    threadfunc::queue_template<std::string> events_{64};
};

// Connects and takes the identity that every client receives first.
std::unique_ptr<TestClient> connectClient(const ProprietarySocketServer& server) {
    auto client = std::make_unique<TestClient>(server.boundPort());
    EXPECT_TRUE(client->readPacketOf(Common::CmdIdentity));
    return client;
}

}  // namespace

TEST(ServerTest, EchoIsAnsweredOrSwallowedOtherPacketsReachTheApplicationAndBadLengthsEndOnlyTheirClient) {
    RecordingServer server(5);
    auto client = connectClient(server);
    ASSERT_TRUE(client->sendPacket(Common::CmdEcho, {1, 9}));  // a reply, and an empty echo: swallowed
    ASSERT_TRUE(client->sendPacket(Common::CmdEcho, {}));
    ASSERT_TRUE(client->sendPacket(1001, {7}) && client->sendPacket(1002, {}) &&
                client->sendPacket(1001, {8}));
    EXPECT_EQ(server.waitEvents(4),
              std::vector<std::string>({"connected 0 1", "packet 0 1001", "packet 0 1002", "packet 0 1001"}));
    ASSERT_TRUE(client->sendPacket(Common::CmdEcho, {0, 0xAB, 0xCD}));
    EXPECT_EQ(client->readPacketOf().value().payload, Bytes({1, 0xAB, 0xCD}));  // the first packet to come

    TestClient(server.boundPort()).sendRaw({0, 0, 0, 20, 0x03, 0xE9, 0, 8, 1, 2});  // leaves inside a packet
    EXPECT_EQ(server.waitEvents(2), std::vector<std::string>({"connected 1 2", "disconnected 1 1"}));
    const std::pair<std::uint32_t, std::uint16_t> refused[] = {{0, 8},  {7, 8},  {65537, 8}, {0xFFFFFFFF, 8},
                                                               {12, 7}, {12, 13}};  // packet, header length
    for (const auto& [length, headerLength] : refused) {
        TestClient bogus(server.boundPort());
        ASSERT_TRUE(bogus.sendRaw(craftedPacket(length, 1001, headerLength, {0, 0, 0, 0})));
        EXPECT_TRUE(bogus.waitClosed()) << length << " " << headerLength;  // five slots serve six rows
    }
    Bytes largest(65536 - 8, 0x5A);  // the longest packet taken, here an echo request
    largest[0] = 0;
    ASSERT_TRUE(client->sendPacket(Common::CmdEcho, largest));
    largest[0] = 1;
    EXPECT_EQ(client->readPacketOf(Common::CmdEcho).value().payload, largest);
}

TEST(ServerTest, FreedSlotTakesTheWaitingClientAndFullSlotsAreReportedAtMostOncePerSecond) {
    testing::internal::CaptureStderr();
    RecordingServer server(5);
    std::vector<std::unique_ptr<TestClient>> clients;
    const std::int32_t start = tickMilliseconds();
    for (int i = 0; i < 5; ++i) {
        clients.push_back(connectClient(server));
    }
    TestClient waiting(server.boundPort());  // completes in the listen backlog, unserved while it waits
    EXPECT_FALSE(waiting.readPacketOf(Common::CmdIdentity, std::chrono::milliseconds(300)));
    clients[2]->close();
    EXPECT_TRUE(waiting.readPacketOf(Common::CmdIdentity));
    EXPECT_EQ(server.waitEvents(7).back(), "connected 2 5");
    const std::string err = testing::internal::GetCapturedStderr();  // read before the clock: all inside
    const std::int32_t elapsed = tickMilliseconds() - start;
    const std::regex report("Proprietary socket server reports: All 5 client-slots are in use\n");
    const auto reports =
        std::distance(std::sregex_iterator(err.begin(), err.end(), report), std::sregex_iterator());
    EXPECT_LE(reports, 1 + elapsed / 1000) << elapsed << " ms";
}

// Without global access the server binds 127.0.0.1 alone; 127.0.0.2 is this machine too.
TEST(ServerTest, GlobalAccessDecidesWhetherOtherAddressesOfThisMachineConnect) {
    EXPECT_FALSE(TestClient(RecordingServer(1).boundPort(), "127.0.0.2").connected());
    RecordingServer global(1, true);
    EXPECT_TRUE(TestClient(global.boundPort(), "127.0.0.2").readPacketOf(Common::CmdIdentity));
}

TEST(ServerDeathTest, NoBindableAddressEndsTheProcess) {
    if (std::getenv("VARNOCH_EMULATOR") == nullptr) {  // an emulator (cross builds) cannot re-run it
        GTEST_FLAG_SET(death_test_style, "threadsafe");
    }
    RecordingServer holder(1);  // the re-executed child holds a port of its own
    EXPECT_EXIT(ProprietarySocketServer(holder.boundPort(), 1).startServer(false), testing::ExitedWithCode(1),
                "ProprietarySocketServer::startServer\\(\\) Could not bind on port [0-9]+\n");
}
