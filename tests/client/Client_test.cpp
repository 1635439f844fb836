// The client library against a scripted daemon on loopback TCP (tests/support/FakeDaemon.h): the
// connection failures, the answers, an upload's every ending, the callback rule and its per-state times.
#include <gtest/gtest.h>

#include <thread>

#include "FakeDaemon.h"
#include "varnoch/client.h"

namespace {

using namespace varnoch::client;
using CANFlasher::ModeIsoStyle;
using CANFlasher::ModeMtCan;
using fakedaemon::FakeDaemon;

using Clock = std::chrono::steady_clock;
constexpr Millis kShort{300};  // for waits that must expire

TEST(Client, ConnectionFailuresAndABrokenPacketAreValues) {
    Client client;
    EXPECT_EQ(client.lock(), Error::NotConnected);
    // Port 1 is privileged: nothing of a test listens there. (The text: varnoch-flash's test prints it.)
    EXPECT_EQ(client.connect("127.0.0.1", 1), Error::Refused);
    EXPECT_FALSE(client.connected());
    EXPECT_EQ(client.status().error, Error::NotConnected);

    const FakeDaemon silent;  // the connection completes in its backlog; no greeting ever comes
    const auto started = Clock::now();
    EXPECT_EQ(client.connect("127.0.0.1", static_cast<std::uint16_t>(silent.port()), kShort),
              Error::TimedOut);
    EXPECT_GE(Clock::now() - started, kShort);
    EXPECT_FALSE(client.connected());

    FakeDaemon broken;
    broken.serve("bad");
    ASSERT_EQ(client.connect("127.0.0.1", static_cast<std::uint16_t>(broken.port())), Error::None);
    EXPECT_EQ(client.status().error, Error::ConnectionLost);
    EXPECT_FALSE(client.connected());
    EXPECT_EQ(client.reset(), Error::NotConnected);
}

TEST(Client, IdentityStatusAnswersAndEcho) {
    FakeDaemon daemon;
    daemon.serve("echo await:1001 5/42 6/100 echo .");
    Client client;
    ASSERT_EQ(client.connect("127.0.0.1", static_cast<std::uint16_t>(daemon.port())), Error::None);
    const Identity& identity = client.identity();
    EXPECT_EQ(std::to_string(identity.pid) + "|" + identity.processName + "|" + identity.versionText + "|" +
                  identity.buildTag,
              "1234|varnoch|0.00a|Dev-trunk 1901-01-01 00:00:00 UTC");
    // The record that came while echo waited is kept, then dropped by the question that follows.
    EXPECT_EQ(client.echo({0xAB, 0xCD}), Error::None);
    const Result<Status> now = client.status();
    ASSERT_TRUE(now.ok()) << client.errorText();
    EXPECT_EQ(std::vector<std::int64_t>({now.value.state, now.value.progress, now.value.mode,
                                         now.value.targetAddress, now.value.targetIdentifier}),
              std::vector<std::int64_t>({5, 42, 1, 0x26, 0x12345678}));
    EXPECT_EQ(client.nextStatus().value.state, 6);
    // Kept for nextStatus(), in order.
    EXPECT_EQ(client.echo({}), Error::None);
    EXPECT_EQ(client.nextStatus().value.state, 1);
    EXPECT_EQ(client.nextStatus(kShort).error, Error::TimedOut);
    client.close();
    // lock, unlock, reset and exitWhenIdle: varnoch-flash's commands of those names, in its test.
    EXPECT_EQ(daemon.commands(), "1 1001 1");
    EXPECT_EQ(daemon.finish()[0].payload, (std::vector<std::uint8_t>{0, 0xAB, 0xCD}));
}

struct UploadRun {
    UploadResult result;
    std::string commands;
    std::vector<std::int32_t> seen;  // the states the callback was given
    std::string text;                // errorText() afterwards
};

UploadRun uploadAgainst(const std::string& script, Millis startTimeout) {
    FakeDaemon daemon;
    daemon.serve(script);
    Client client;
    UploadRun run;
    EXPECT_EQ(client.connect("127.0.0.1", static_cast<std::uint16_t>(daemon.port())), Error::None);
    UploadRequest request{"/no/such/file.hex", ModeMtCan, 0x26, 0x12345678};
    request.startTimeout = startTimeout;
    run.result = client.upload(request, [&run](const Status& status) { run.seen.push_back(status.state); });
    run.text = client.errorText();
    client.close();
    run.commands = daemon.commands();
    return run;
}

TEST(Client, EachWayAnUploadEnds) {
    // clang-format off
    const struct { const char* script; Error error; std::int32_t state; const char* commands; std::vector<std::int32_t> seen; const char* text; } rows[] = {
        {"await:1001 6/100 1 2 3 100", Error::JobFailed, 100, "1001 1002 1004 1001", {2, 3, 100}, "the job failed"},
        {"await:1001 1 103", Error::JobFailed, 103, "1001 1004 1001", {103}, "the job failed"},
        {"await:1001 5/12", Error::NotAccepted, 5, "1001", {}, "the daemon is busy with another job"},
        {"await:1001 1 1 0", Error::NotAccepted, 0, "1001 1004 1001", {}, "a client holds a lock on the daemon"},
        {"await:1001 1 2 3 5/10", Error::ConnectionLost, 5, "1001 1004 1001", {2, 3, 5}, "connection to the daemon lost"},
        {"await:1001 1 3 1", Error::Aborted, 1, "1001 1004 1001", {3, 1}, "the job was aborted"},
        {"await:1001 1 1 .", Error::StartTimedOut, 1, "1001 1004 1001", {}, "the daemon did not start the upload in time"},
        {".", Error::TimedOut, 1, "1001", {}, "the daemon did not answer in time"},
    };
    // clang-format on
    for (const auto& row : rows) {
        // Only the rows that must time out wait briefly; the others have time on a loaded machine.
        const bool timesOut = row.error == Error::TimedOut || row.error == Error::StartTimedOut;
        const UploadRun run = uploadAgainst(row.script, timesOut ? kShort : kDefaultTimeout);
        EXPECT_EQ(run.result.error, row.error) << row.script << ": " << errorName(run.result.error);
        EXPECT_EQ(run.result.status.state, row.state) << row.script;
        EXPECT_EQ(run.commands, row.commands) << row.script;
        EXPECT_EQ(run.seen, row.seen) << row.script;
        EXPECT_EQ(run.text, row.text) << row.script;
    }
}

TEST(Client, CallbacksRunOnTheCallersThreadAndMayNotReenterAndTheTimeInEachState) {
    FakeDaemon daemon;
    daemon.serve("await:1001 1 await:1004 2 3 ~400 4 5/0 5/100 6/100 .");
    Client client;
    ASSERT_EQ(client.connect("127.0.0.1", static_cast<std::uint16_t>(daemon.port())), Error::None);
    int calls = 0;
    const std::thread::id caller = std::this_thread::get_id();
    const UploadResult result = client.upload({"f.hex", ModeIsoStyle}, [&](const Status&) {
        ++calls;
        EXPECT_EQ(std::this_thread::get_id(), caller);
        EXPECT_EQ(client.status().error, Error::InCallback);
        EXPECT_EQ(client.lock(), Error::InCallback);
        EXPECT_EQ(client.upload({"f.hex", ModeIsoStyle}).error, Error::InCallback);
        client.close();  // refused too: the connection stays
        EXPECT_TRUE(client.connected());
    });
    ASSERT_TRUE(result.ok());
    EXPECT_EQ(calls, 6);
    EXPECT_EQ(client.lock(), Error::None) << "usable again once the callback has returned";
    std::vector<std::int32_t> states;
    Millis sum{0};
    for (const StateTime& entry : result.states) {
        states.push_back(entry.state);
        sum += entry.time;
    }
    ASSERT_EQ(states, (std::vector<std::int32_t>{2, 3, 4, 5, 6}));
    // The pause falls in "Searching for device"; a client slow to read its first record shortens it.
    EXPECT_GE(result.states[1].time, Millis(200));
    EXPECT_EQ(result.states[4].time, Millis(0));
    EXPECT_LE(sum, result.total);
    EXPECT_GE(sum + Millis(5), result.total);
}

}  // namespace
