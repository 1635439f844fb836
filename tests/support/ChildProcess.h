// A program under test as a child process: run under the cross build's emulator when there is one, its
// output in files of a scratch folder that a test can wait on.
#pragma once

#include <sys/types.h>

#include <vector>

#include "TempDir.h"
#include "WaitUntil.h"

class ChildProcess {
  public:
    // Runs `command` in `folder`, under $VARNOCH_EMULATOR (words split at blanks) when set; `starter`,
    // if given, comes before the emulator and must exec what follows it. Standard output and error go
    // to <folder>/<program>-<n>.out and .err. Killed with SIGKILL at the end unless it ended.
    ChildProcess(const std::string& folder, const std::vector<std::string>& command,
                 const std::vector<std::string>& starter = {});
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // 0 when the program could not be started.
    pid_t pid() const { return pid_; }
    // Standard output (error) so far.
    std::string output() const { return readText(out_); }
    std::string errors() const { return readText(err_); }
    // How often `text` occurs in standard output and error.
    int count(const std::string& text) const;
    // True once `text` occurred `times` times in standard output and error; false at the deadline.
    bool waitFor(const std::string& text, int times = 1,
                 std::chrono::milliseconds timeout = kWaitDeadline) const;
    // The exit status, 128 + signal when killed; -1 when it did not end in time.
    int exitStatus(std::chrono::milliseconds timeout = kWaitDeadline);
    // False once it has ended or when the signal cannot be sent.
    bool signal(int number);

  private:
    std::string out_, err_;
    pid_t pid_ = 0;
    int status_ = -1;
};
