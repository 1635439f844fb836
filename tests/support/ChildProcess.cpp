#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>

extern char** environ;

ChildProcess::ChildProcess(const std::string& folder, const std::vector<std::string>& command,
                           const std::vector<std::string>& starter) {
    static std::atomic<int> started{0};
    const std::string log = folder + "/" + std::filesystem::path(command.at(0)).filename().string() + "-" +
                            std::to_string(++started);
    out_ = log + ".out";
    err_ = log + ".err";
    std::vector<std::string> words = starter;
    std::istringstream emulator(std::getenv("VARNOCH_EMULATOR") != nullptr ? std::getenv("VARNOCH_EMULATOR")
                                                                           : "");
    words.insert(words.end(), std::istream_iterator<std::string>(emulator), {});
    words.insert(words.end(), command.begin(), command.end());
    std::vector<char*> argv(words.size() + 1);  // ends with a null pointer
    std::transform(words.begin(), words.end(), argv.begin(), [](std::string& word) { return word.data(); });
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        return;
    }
    const int flags = O_WRONLY | O_CREAT | O_TRUNC;
    // Nothing the test holds open, such as a client socket, may outlive the test in the child.
    if (posix_spawn_file_actions_addopen(&actions, 1, out_.c_str(), flags, 0644) == 0 &&
        posix_spawn_file_actions_addopen(&actions, 2, err_.c_str(), flags, 0644) == 0 &&
        posix_spawn_file_actions_addclosefrom_np(&actions, 3) == 0 &&
        posix_spawn_file_actions_addchdir_np(&actions, folder.c_str()) == 0 &&
        posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        pid_ = 0;
    }
    posix_spawn_file_actions_destroy(&actions);
}

ChildProcess::~ChildProcess() {
    if (signal(SIGKILL)) {
        (void)exitStatus();
    }
}

int ChildProcess::count(const std::string& text) const {
    int found = 0;
    const std::string all = output() + '\0' + errors();  // no match across the two
    for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + text.size())) {
        ++found;
    }
    return found;
}

bool ChildProcess::waitFor(const std::string& text, int times, std::chrono::milliseconds timeout) const {
    return waitUntil([&] { return count(text) >= times; }, timeout);
}

int ChildProcess::exitStatus(std::chrono::milliseconds timeout) {
    int status = 0;
    if (pid_ > 0 && status_ < 0 &&
        waitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, timeout)) {
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return status_;
}

bool ChildProcess::signal(int number) {
    return pid_ > 0 && status_ < 0 && kill(pid_, number) == 0;
}
