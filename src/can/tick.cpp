#include "tick.h"

#include <ctime>
#include <mutex>

namespace {

// call_once publishes the origin to every thread, so a reader racing the first use is still safe.
std::once_flag originTaken;
timespec origin{};

void takeOrigin() {
    std::call_once(originTaken, [] { clock_gettime(CLOCK_MONOTONIC, &origin); });
}

}  // namespace

int startTick() {
    takeOrigin();
    timespec now{};
    return clock_gettime(CLOCK_MONOTONIC, &now);
}

std::int32_t tickMilliseconds() {
    takeOrigin();
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for CLOCK_MONOTONIC with a valid pointer
    // The nanosecond difference is divided on its own (a negative part rounds toward zero) before
    // the seconds are added; unsigned arithmetic gives the intended 32-bit wrap without overflow.
    const auto partialMs = static_cast<std::int32_t>((now.tv_nsec - origin.tv_nsec) / 1000000);
    const auto seconds = static_cast<std::uint32_t>(now.tv_sec - origin.tv_sec);
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(partialMs) + seconds * 1000U);
}
