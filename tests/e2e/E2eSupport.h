// Helpers of the end-to-end tests: a program under test as a child process writing to a log file; the
// client of the daemon is the shared TestClient.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include "TestClient.h"

extern char** environ;

using Millis = std::chrono::milliseconds;

// The guest emulates its CPU and the machine may be busy: waits that end early when all is well.
constexpr Millis kWait{30000};

// Polls `done` until it holds (true) or the deadline passes (false).
template <typename Done>
bool eventually(Done done, Millis timeout = kWait) {
    for (const auto deadline = Clock::now() + timeout; !done(); std::this_thread::sleep_for(Millis(20))) {
        if (Clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

// Whole file contents; empty when it cannot be read.
inline Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A program started with posix_spawn, its standard output and error into `log`; killed on destruction.
class Process {
  public:
    static constexpr int kRunning = -1;
    Process(std::vector<std::string> argv, std::string log) : log_(std::move(log)) {
        std::vector<char*> pointers;
        for (std::string& argument : argv) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
        // A client socket a child inherited would keep the connection up after the test closed it.
        posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
        if (posix_spawn(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ) != 0) {
            status_ = 127;
        }
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Process() {
        if (!ended()) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);  // its status no longer matters
        }
    }

    bool ended() {
        int status = 0;
        if (status_ == kRunning && waitpid(pid_, &status, WNOHANG) == pid_) {
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        return status_ != kRunning;
    }
    static std::string read(const std::string& path) {
        const Bytes bytes = readFile(path);
        return std::string(bytes.begin(), bytes.end());
    }
    int count(const std::string& text) const {
        const std::string all = read(log_);
        int found = 0;
        for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size())) {
            ++found;
        }
        return found;
    }
    bool waitFor(const std::string& text) {
        return eventually([&] { return count(text) > 0; });
    }
    // The exit status, 128 + signal when killed, kRunning when it still ran at the deadline.
    int wait(Millis timeout = kWait) {
        eventually([this] { return ended(); }, timeout);
        return status_;
    }
    // SIGTERM (or `signal`), which also makes it write out its buffered output; then as wait().
    int terminate(int signal = SIGTERM) {
        if (!ended()) {
            kill(pid_, signal);
        }
        return wait();
    }

  private:
    pid_t pid_ = -1;
    std::string log_;
    int status_ = kRunning;
};
