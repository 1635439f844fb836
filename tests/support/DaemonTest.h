// The daemon under test as a process in a scratch folder of its own, on a port of its own.
#pragma once

#include <gtest/gtest.h>

#include <memory>

#include "ChildProcess.h"
#include "TestClient.h"

// The daemon executable of this build.
extern const char* const kDaemonProgram;

class DaemonTest : public ::testing::Test {
  protected:
    // Starts `kDaemonProgram -n -p <port_>` with `options` and waits for "Varnoch is running".
    void startDaemon(const std::vector<std::string>& options = {"-i", "NULL"},
                     std::chrono::milliseconds timeout = kWaitDeadline);
    // A client that has taken the identity every client gets first; check connected().
    std::unique_ptr<TestClient> connect(std::chrono::milliseconds timeout = kWaitDeadline) const;
    // Disconnects the last client: the daemon must then end with status 0 and its shutdown line.
    void expectOrderlyEnd(std::unique_ptr<TestClient>& lastClient,
                          std::chrono::milliseconds timeout = kWaitDeadline);
    // Fails the test when a sanitizer reported anything in the daemon's output.
    void expectNoSanitizerReport() const;

    TempDir folder_{"daemon"};
    const int port_ = freePort();
    std::unique_ptr<ChildProcess> daemon_;
};
