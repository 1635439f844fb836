// The daemon as a process: command line, banner and console lines, a client over TCP, signals,
// shutdown when the last client leaves, and the log files of a detached daemon.
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ClientSupport.h"
#include "FlashTypes.h"
#include "FlasherTestSupport.h"
#include "SuiteVersions.h"

using namespace CANFlasher;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

extern char** environ;

namespace {

constexpr int kNoStatus = -1000;

// Waits for a process of ours (a child, or an orphan we reap as subreaper) to end; its exit status,
// 128 + signal when it was killed, kNoStatus when it did not end in time.
int waitForExit(pid_t pid, std::chrono::milliseconds timeout) {
    const int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    const auto deadline = Clock::now() + timeout;
    int status = 0;
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid) {
            break;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (done < 0 || left.count() <= 0) {
            if (pidFd >= 0) {
                close(pidFd);
            }
            return kNoStatus;
        }
        if (pidFd >= 0) {
            pollfd ended{pidFd, POLLIN, 0};
            (void)poll(&ended, 1, static_cast<int>(left.count()));  // readable once the process has ended
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));  // kernels without pidfd
        }
    }
    if (pidFd >= 0) {
        close(pidFd);
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// This process's environment, with the daemon's sanitizer suppressions added (used by tsan builds only).
std::vector<std::string> daemonEnvironment() {
    std::vector<std::string> environment;
    std::string tsanOptions = "TSAN_OPTIONS=suppressions=" DAEMON_TSAN_SUPPRESSIONS;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        if (std::strncmp(*entry, "TSAN_OPTIONS=", 13) == 0) {
            tsanOptions += std::string(" ") + (*entry + 13);
        } else {
            environment.emplace_back(*entry);
        }
    }
    environment.push_back(tsanOptions);
    return environment;
}

// The daemon started with its standard output and error in pipes that threads drain.
class DaemonProcess {
  public:
    explicit DaemonProcess(const std::vector<std::string>& options) {
        std::vector<std::string> arguments{VARNOCH_DAEMON};
        arguments.insert(arguments.end(), options.begin(), options.end());
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);

        int out[2];
        int err[2];
        EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_adddup2(&actions, err[1], 2);
        std::vector<std::string> environment = daemonEnvironment();
        std::vector<char*> envp;
        for (std::string& entry : environment) {
            envp.push_back(entry.data());
        }
        envp.push_back(nullptr);
        EXPECT_EQ(posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), envp.data()), 0);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        outReader_ = std::thread([this, fd = out[0]] { drain(fd, out_); });
        errReader_ = std::thread([this, fd = err[0]] { drain(fd, err_); });
    }

    ~DaemonProcess() {
        if (status_ == kNoStatus && kill(pid_, SIGKILL) == 0) {
            waitForExit(pid_, kDeadline);
        }
        // A detached daemon keeps the pipes open until it ends; the tests end it before this.
        outReader_.join();
        errReader_.join();
    }

    pid_t pid() const { return pid_; }
    int exitStatus(std::chrono::milliseconds timeout = kDeadline) {
        if (status_ == kNoStatus) {
            status_ = waitForExit(pid_, timeout);
        }
        return status_;
    }
    // True once standard output holds `text`.
    bool waitForOutput(const std::string& text) {
        std::unique_lock<std::mutex> lock(lock_);
        return changed_.wait_for(lock, kDeadline, [&] { return out_.find(text) != std::string::npos; });
    }
    // The whole output once the pipe has ended (the process and its descendants are gone).
    std::string output() {
        std::unique_lock<std::mutex> lock(lock_);
        changed_.wait_for(lock, kDeadline, [&] { return ended_ == 2; });
        return out_;
    }
    std::string errors() {
        std::unique_lock<std::mutex> lock(lock_);
        changed_.wait_for(lock, kDeadline, [&] { return ended_ == 2; });
        return err_;
    }

  private:
    void drain(int fd, std::string& into) {
        char buffer[512];
        for (ssize_t got; (got = read(fd, buffer, sizeof buffer)) > 0;) {
            std::lock_guard<std::mutex> lock(lock_);
            into.append(buffer, static_cast<std::size_t>(got));
            changed_.notify_all();
        }
        close(fd);
        std::lock_guard<std::mutex> lock(lock_);
        ++ended_;
        changed_.notify_all();
    }

    pid_t pid_ = -1;
    int status_ = kNoStatus;
    std::mutex lock_;
    std::condition_variable changed_;
    std::string out_;
    std::string err_;
    int ended_ = 0;
    std::thread outReader_;
    std::thread errReader_;
};

std::string banner() {
    return std::string(AgApp::vendorName()) + " " + AgApp::productName() + " Version " +
           AgApp::versionText() + "\n";
}

std::unique_ptr<TestClient> connectTo(int port) {
    auto client = std::make_unique<TestClient>(port);
    EXPECT_TRUE(client->connected());
    return client;
}

// ---------------------------------------------------------------------------------------------

TEST(Daemon, ServesAClientAndEndsWhenTheLastOneLeaves) {
    const int port = freePort();
    DaemonProcess daemon({"-n", "-i", "NULL", "-p", std::to_string(port)});
    ASSERT_TRUE(daemon.waitForOutput("Varnoch is running\n"));

    auto client = connectTo(port);
    const auto identity = client->readPacketOf(2);
    ASSERT_TRUE(identity.has_value());
    ASSERT_GE(identity->payload.size(), 4u);
    EXPECT_EQ(identity->payload[0] | identity->payload[1] << 8 | identity->payload[2] << 16 |
                  identity->payload[3] << 24,
              daemon.pid());
    ASSERT_TRUE(client->sendPacket(CmdRequestStatus, {}));
    const auto status = client->readPacketOf(CmdStatus);
    ASSERT_TRUE(status.has_value());
    EXPECT_THAT(status->payload, ElementsAre(0x00, 0x01, 0x00, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF));

    client->close();
    EXPECT_EQ(daemon.exitStatus(), 0) << daemon.errors();
    const std::string output = daemon.output();
    EXPECT_THAT(output, StartsWith(banner()));
    EXPECT_THAT(output, HasSubstr("CANFlasherServer::clientDisconnected( 0 ) -> 0\n"));
    EXPECT_EQ(output.substr(output.size() - std::strlen("Varnoch is shutting down\n")),
              "Varnoch is shutting down\n");
}

TEST(Daemon, UploadRequestIsStartedByTheMainLoop) {
    const int port = freePort();
    TempFolder folder;
    DaemonProcess daemon({"-n", "-i", "NULL", "-p", std::to_string(port)});
    ASSERT_TRUE(daemon.waitForOutput("Varnoch is running\n"));

    auto client = connectTo(port);
    ASSERT_TRUE(client->sendPacket(CmdUploadHexFile,
                                   uploadPayload(ModeGlobal, 0, 0, folder.write("fw.hex", ":00000001FF\n"))));
    std::vector<int> states;
    while (states.empty() || states.back() != StateSearching) {
        const auto packet = client->readPacketOf(CmdStatus);
        ASSERT_TRUE(packet.has_value());
        states.push_back(packet->payload.at(1));
    }
    EXPECT_THAT(states, ElementsAre(StatePreparing, StateSearching));
    client->close();
    EXPECT_EQ(daemon.exitStatus(), 0) << daemon.errors();
}

class DaemonSignal : public ::testing::TestWithParam<int> {};

TEST_P(DaemonSignal, EndsTheDaemonInOrder) {
    const int port = freePort();
    DaemonProcess daemon({"-n", "-i", "NULL", "-p", std::to_string(port)});
    ASSERT_TRUE(daemon.waitForOutput("Varnoch is running\n"));
    ASSERT_EQ(kill(daemon.pid(), GetParam()), 0);
    EXPECT_EQ(daemon.exitStatus(), 0) << daemon.errors();
    const std::string output = daemon.output();
    const std::string handled = "Varnoch: HandleControlC( " + std::to_string(GetParam()) + " )\n";
    const auto handledAt = output.find(handled);
    ASSERT_NE(handledAt, std::string::npos) << output;
    EXPECT_NE(output.find("Varnoch is shutting down\n", handledAt), std::string::npos) << output;
}

INSTANTIATE_TEST_SUITE_P(TerminationSignals, DaemonSignal, ::testing::Values(SIGINT, SIGTERM));

TEST(Daemon, UsageTextAndExitStatus) {
    {
        DaemonProcess daemon({"-h"});
        EXPECT_EQ(daemon.exitStatus(), 0) << daemon.errors();
        EXPECT_EQ(daemon.errors(),
                  std::string("Usage: ") + VARNOCH_DAEMON +
                      " [<option>]*\n"
                      "  Available options:\n"
                      "   -h / -?         Show this message\n"
                      "   -n              Don't detach\n"
                      "   -G              Global access. Allows connection from remote clients.\n"
                      "   -i[interface]   CAN interface index (0 => CAN0, 1=> CAN1, etc)\n"
                      "   -p[portnum]     Connect using the indicated port number\n"
                      "   -f[folder]      If we are detaching and not quiet (neither -n nor -q are given),\n"
                      "                   then debug info will be redirected to files in 'folder'.\n"
                      "   -q              Quiet. No text output to stdout/debug log file\n"
                      " \n"
                      "Default values:\n"
                      "   interface       0\n"
                      "   portnum         41265\n"
                      "   folder          \n");
        EXPECT_EQ(daemon.output(), "");
    }
    for (const std::vector<std::string>& options :
         std::vector<std::vector<std::string>>{{"-?"}, {"-x"}, {"-n", "-p"}, {"-i"}}) {
        DaemonProcess daemon(options);
        EXPECT_EQ(daemon.exitStatus(), 1) << options.back();
        EXPECT_THAT(daemon.errors(), HasSubstr("Default values:\n")) << options.back();
    }
    {
        // Options before -h show in the listing.
        DaemonProcess daemon({"-p", "5000", "-i", "NULL", "-f", "/var/log", "-h"});
        EXPECT_EQ(daemon.exitStatus(), 0) << daemon.errors();
        EXPECT_THAT(daemon.errors(), HasSubstr("   interface       16\n   portnum         5000\n"
                                               "   folder          /var/log\n"));
    }
}

TEST(Daemon, PortRangeIsChecked) {
    for (const char* port : {"1999", "65536", "abc"}) {
        DaemonProcess daemon({"-n", "-p", port});
        EXPECT_EQ(daemon.exitStatus(), 1) << port;
        EXPECT_EQ(daemon.errors(),
                  std::string("Invalid port number: ") + port + "\nValid range        : [2000..65535]\n");
    }
    for (const char* port : {"2000", "65535"}) {
        DaemonProcess daemon({"-p", port, "-h"});
        EXPECT_EQ(daemon.exitStatus(), 0) << port;
        EXPECT_THAT(daemon.errors(), HasSubstr(std::string("   portnum         ") + port + "\n"));
    }
}

TEST(Daemon, FailingCanInterfaceIsReported) {
    DaemonProcess daemon({"-n", "-i", "9", "-p", std::to_string(freePort())});
    EXPECT_EQ(daemon.exitStatus(), 1);
    EXPECT_THAT(daemon.output(), HasSubstr("Varnoch reports: Error Initiating CAN-port\n"));
}

// ---------------------------------------------------------------------------------------------
// Detached

std::vector<std::string> filesIn(const std::string& folder) {
    std::vector<std::string> names;
    if (DIR* directory = opendir(folder.c_str())) {
        while (const dirent* entry = readdir(directory)) {
            if (entry->d_name[0] != '.') {
                names.emplace_back(entry->d_name);
            }
        }
        closedir(directory);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string fileText(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A detached daemon is not our child: it is taken over as an orphan by this process.
class DetachedDaemon : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0); }

    // Waits (polling the file system) until a file in `folder` ending in `suffix` holds `text`.
    static std::string waitForLog(const std::string& folder, const std::string& suffix,
                                  const std::string& text) {
        const auto deadline = Clock::now() + kDeadline;
        while (Clock::now() < deadline) {
            for (const std::string& name : filesIn(folder)) {
                if (name.size() > suffix.size() &&
                    name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0 &&
                    fileText(folder + "/" + name).find(text) != std::string::npos) {
                    return name;
                }
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return {};
    }

    TempFolder folder_;
};

TEST_F(DetachedDaemon, LogsToFilesNamedAfterItsPid) {
    const int port = freePort();
    DaemonProcess starter({"-f", folder_.path(), "-i", "NULL", "-p", std::to_string(port)});
    EXPECT_EQ(starter.exitStatus(), 0);
    EXPECT_EQ(starter.output(),
              "Detaching CAN-Flasher process - PID " + std::to_string(starter.pid()) + "\n");

    const std::string log = waitForLog(folder_.path(), ".log", "Varnoch is running\n");
    ASSERT_FALSE(log.empty()) << ::testing::PrintToString(filesIn(folder_.path()));
    int pid = 0;
    ASSERT_EQ(std::sscanf(log.c_str(), "Hobrin_%d.log", &pid), 1);
    char expected[64];
    std::snprintf(expected, sizeof expected, "Hobrin_%04i", pid);
    EXPECT_THAT(filesIn(folder_.path()),
                ElementsAre(std::string(expected) + ".err", std::string(expected) + ".log"));
    EXPECT_NE(pid, starter.pid());  // daemon() forked

    auto client = connectTo(port);
    EXPECT_TRUE(client->readPacketOf(2).has_value());
    client->close();
    EXPECT_EQ(waitForExit(pid, kDeadline), 0);
    const std::string text = fileText(folder_.path() + "/" + log);
    EXPECT_THAT(text, StartsWith(banner()));
    EXPECT_THAT(text, HasSubstr("Varnoch is shutting down\n"));
}

TEST_F(DetachedDaemon, QuietWritesNothing) {
    const int port = freePort();
    DaemonProcess starter({"-q", "-f", folder_.path(), "-i", "NULL", "-p", std::to_string(port)});
    EXPECT_EQ(starter.exitStatus(), 0);
    // The starter's pipes close when the detached daemon has put its streams on /dev/null.
    EXPECT_EQ(starter.output(), "");
    EXPECT_EQ(starter.errors(), "");

    // The daemon is up once it accepts a client; leaving ends it.
    std::unique_ptr<TestClient> client;
    const auto deadline = Clock::now() + kDeadline;
    while (!(client = std::make_unique<TestClient>(port))->connected() && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(client->connected());
    const auto identity = client->readPacketOf(2);
    ASSERT_TRUE(identity.has_value());
    const pid_t pid = identity->payload[0] | identity->payload[1] << 8 | identity->payload[2] << 16 |
                      identity->payload[3] << 24;
    client->close();
    EXPECT_EQ(waitForExit(pid, kDeadline), 0);
    EXPECT_TRUE(filesIn(folder_.path()).empty());
}

}  // namespace
