#include "tick.h"

#include <ctime>
#include <mutex>

namespace {

// call_once publishes the origin to every thread, so a reader racing the first use is still safe.
std::once_flag originTaken;
timespec origin{};

// The coarse clock's period in whole milliseconds, rounded up; -1 where it cannot be read.
std::int32_t coarsePeriodMs() {
    static const std::int32_t period = [] {
        timespec resolution{};
        if (clock_getres(CLOCK_MONOTONIC_COARSE, &resolution) != 0) {
            return static_cast<std::int32_t>(-1);
        }
        return static_cast<std::int32_t>(resolution.tv_sec * 1000 + (resolution.tv_nsec + 999999) / 1000000);
    }();
    return period;
}

void takeOrigin() {
    std::call_once(originTaken, [] { clock_gettime(CLOCK_MONOTONIC, &origin); });
}

}  // namespace

int startTick() {
    takeOrigin();
    timespec now{};
    return clock_gettime(CLOCK_MONOTONIC, &now);
}

namespace {

std::int32_t millisecondsSinceOrigin(const timespec& now) {
    // The nanosecond difference is divided on its own (a negative part rounds toward zero) before
    // the seconds are added; unsigned arithmetic gives the intended 32-bit wrap without overflow.
    const auto partialMs = static_cast<std::int32_t>((now.tv_nsec - origin.tv_nsec) / 1000000);
    const auto seconds = static_cast<std::uint32_t>(now.tv_sec - origin.tv_sec);
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(partialMs) + seconds * 1000U);
}

}  // namespace

std::int32_t tickMilliseconds() {
    takeOrigin();
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail for CLOCK_MONOTONIC with a valid pointer
    return millisecondsSinceOrigin(now);
}

std::int32_t tickMillisecondsNotBefore() {
    takeOrigin();
    const std::int32_t period = coarsePeriodMs();
    timespec now{};
    if (period < 0 || clock_gettime(CLOCK_MONOTONIC_COARSE, &now) != 0) {
        return tickMilliseconds();
    }
    // The coarse clock is the precise one as of the last kernel tick: behind it by less than a period
    // when that tick came on time, and by a millisecond more at most once both are cut to whole
    // milliseconds.
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(millisecondsSinceOrigin(now)) +
                                     static_cast<std::uint32_t>(period) + 1U);
}
