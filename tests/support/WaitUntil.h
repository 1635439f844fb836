// Waiting on a condition with a deadline generous enough for a loaded two-core machine, instead of
// sleeping for a guessed time.
#pragma once

#include <chrono>
#include <functional>
#include <thread>

// The deadline every test waits with unless it says otherwise.
constexpr std::chrono::milliseconds kWaitDeadline{10000};

// Checks `condition` every millisecond until it holds (true) or `timeout` has passed (false).
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::milliseconds timeout = kWaitDeadline) {
    for (const auto deadline = std::chrono::steady_clock::now() + timeout; !condition();) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}
