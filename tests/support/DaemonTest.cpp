#include "DaemonTest.h"

const char* const kDaemonProgram = VARNOCH_DAEMON;

void DaemonTest::startDaemon(const std::vector<std::string>& options, std::chrono::milliseconds timeout) {
    std::vector<std::string> command{kDaemonProgram, "-n", "-p", std::to_string(port_)};
    command.insert(command.end(), options.begin(), options.end());
    daemon_ = std::make_unique<ChildProcess>(folder_.path(), command);
    ASSERT_TRUE(daemon_->waitFor("Varnoch is running\n", 1, timeout))
        << daemon_->output() << daemon_->errors();
}

std::unique_ptr<TestClient> DaemonTest::connect(std::chrono::milliseconds timeout) const {
    auto client = std::make_unique<TestClient>(port_);
    EXPECT_TRUE(client->readPacketOf(kCmdIdentity, timeout));
    return client;
}

void DaemonTest::expectOrderlyEnd(std::unique_ptr<TestClient>& lastClient,
                                  std::chrono::milliseconds timeout) {
    lastClient.reset();
    EXPECT_EQ(daemon_->exitStatus(timeout), 0) << daemon_->errors();
    EXPECT_EQ(daemon_->count("Varnoch is shutting down\n"), 1) << daemon_->output();
    expectNoSanitizerReport();
}

void DaemonTest::expectNoSanitizerReport() const {
    const std::string errors = daemon_->errors();
    EXPECT_EQ(errors.find("Sanitizer"), std::string::npos) << errors;
    EXPECT_EQ(errors.find("runtime error:"), std::string::npos) << errors;
}
