// Running under a service manager: the listening socket it passes in (socket activation) and the
// state notifications it reads from its notify socket. Both follow the environment variables the
// manager sets; without them nothing here has any effect.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <string>

namespace service {

// The first descriptor a service manager passes to the process it starts.
constexpr int kFirstPassedDescriptor = 3;

/// The passed listening socket named by the values of LISTEN_PID and LISTEN_FDS (either may be null):
/// kFirstPassedDescriptor when `listenPid` is `self` and `listenFds` is 1, -1 for any other value.
int passedListeningSocket(const char* listenPid, const char* listenFds, pid_t self);

/// Takes the listening socket passed to this process, if any: marks it close-on-exec, so that the
/// programs the daemon runs do not hold it, and removes the variables, which concern this process
/// alone. Returns the descriptor, or -1 when none was passed. Call before any thread is started.
int takePassedListeningSocket();

/// Sends notifications ("READY=1", "STATUS=...", "STOPPING=1") to a service manager's notify socket.
class Notifier {
  public:
    /// Opens a datagram socket for `address`, the value of NOTIFY_SOCKET (a path, or an abstract name
    /// after '@'); with a null, empty or unusable address the notifier stays inactive.
    explicit Notifier(const char* address);
    ~Notifier();
    Notifier(const Notifier&) = delete;
    Notifier& operator=(const Notifier&) = delete;

    /// True when notifications are sent somewhere.
    bool active() const { return socket_ >= 0; }
    /// Sends `message` as one datagram without ever waiting; safe from any thread. Failures are
    /// ignored: the manager's view of the daemon is a convenience, never a reason to stall or stop.
    void notify(const std::string& message) const;

  private:
    int socket_ = -1;
    sockaddr_un address_{};
    socklen_t addressLength_ = 0;
};

}  // namespace service
