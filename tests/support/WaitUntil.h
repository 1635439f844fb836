// Waiting on a condition with a deadline generous enough for a loaded two-core machine, instead of
// sleeping for a guessed time.
#pragma once

#include <chrono>
#include <functional>

// The deadline every test waits with unless it says otherwise.
constexpr std::chrono::milliseconds kWaitDeadline{10000};

// Checks `condition` every millisecond until it holds (true) or `timeout` has passed (false).
bool waitUntil(const std::function<bool()>& condition, std::chrono::milliseconds timeout = kWaitDeadline);
