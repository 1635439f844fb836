// The service manager's variables as the daemon reads them, and notifications to abstract addresses.
#include "ServiceManager.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <string>

namespace {

TEST(ServiceManager, OnlyOneSocketPassedToThisVeryProcessIsTaken) {
    // clang-format off
    const struct { const char* pid; const char* fds; int socket; } cases[] = {
        {"4242", "1", 3}, {"4243", "1", -1}, {"4242", "2", -1}, {"4242", "0", -1}, {nullptr, "1", -1},
        {"4242", nullptr, -1}, {"", "1", -1}, {"4242x", "1", -1}, {"4242", "1 ", -1}, {"0", "1", -1},
    };
    // clang-format on
    for (const auto& row : cases) {
        EXPECT_EQ(service::passedListeningSocket(row.pid, row.fds, 4242), row.socket)
            << (row.pid ? row.pid : "(unset)") << " " << (row.fds ? row.fds : "(unset)");
    }
}

TEST(ServiceManager, NotifiesAnAbstractAddressAndIgnoresUnusableOnes) {
    const std::string name = "varnoch-notify-test-" + std::to_string(getpid());
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    name.copy(address.sun_path + 1, name.size());
    ASSERT_EQ(bind(manager, reinterpret_cast<const sockaddr*>(&address),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size())),
              0);
    service::Notifier(("@" + name).c_str()).notify("READY=1");
    char received[16] = {};
    EXPECT_EQ(recv(manager, received, sizeof received, MSG_DONTWAIT), 7);
    EXPECT_STREQ(received, "READY=1");
    close(manager);

    for (const char* unusable : {static_cast<const char*>(nullptr), "", "relative/path", "vsock:2:1"}) {
        EXPECT_FALSE(service::Notifier(unusable).active()) << (unusable ? unusable : "(unset)");
    }
    // A manager that went away costs nothing but the notification.
    service::Notifier(("@" + name + "-gone").c_str()).notify("STOPPING=1");
}

}  // namespace
