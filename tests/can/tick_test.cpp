// The process-wide millisecond tick.
#include "tick.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

// Runs in a process of its own (one per test case), so the tick has not been used before.
TEST(Tick, StartsAtZeroOnFirstUseAndFollowsTheMonotonicClock) {
    using Clock = std::chrono::steady_clock;
    const auto ms = [](Clock::duration span) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(span).count();
    };
    const auto beforeFirst = Clock::now();
    const std::int32_t first = tickMilliseconds();
    const auto afterFirst = Clock::now();
    EXPECT_GE(first, 0);
    EXPECT_LE(first, 50);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // the span being measured
    EXPECT_EQ(startTick(), 0);                                     // must not take a new origin
    const auto beforeSecond = Clock::now();
    const std::int32_t second = tickMilliseconds();
    const auto afterSecond = Clock::now();
    // Each reading is off by less than a millisecond either way.
    EXPECT_GE(second - first, ms(beforeSecond - afterFirst) - 2);
    EXPECT_LE(second - first, ms(afterSecond - beforeFirst) + 2);
}
