// The process-wide millisecond tick.
#include "tick.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

// Runs in a process of its own (one per test case), so the tick has not been used before.
TEST(Tick, StartsAtZeroOnFirstUseAndFollowsTheMonotonicClock) {
    using namespace std::chrono;
    const auto ms = [](steady_clock::duration span) { return duration_cast<milliseconds>(span).count(); };
    const auto beforeFirst = steady_clock::now();
    const std::int32_t first = tickMilliseconds();
    const auto afterFirst = steady_clock::now();
    EXPECT_TRUE(first >= 0 && first <= 50) << first;
    std::this_thread::sleep_for(milliseconds(1500));  // the span being measured
    EXPECT_EQ(startTick(), 0);                        // must not take a new origin
    const auto beforeSecond = steady_clock::now();
    const std::int32_t second = tickMilliseconds();
    EXPECT_GE(second - first, ms(beforeSecond - afterFirst) - 2);  // each reading is off by < 1 ms either way
    EXPECT_LE(second - first, ms(steady_clock::now() - beforeFirst) + 2);
}

// Deadlines set from it may come late, never early: it is never behind the exact tick read before it.
TEST(Tick, NotBeforeTickIsNeverBehindTheExactOne) {
    for (int i = 0; i < 20000; ++i) {
        const std::int32_t exact = tickMilliseconds();
        const std::int32_t notBefore = tickMillisecondsNotBefore();
        ASSERT_GE(notBefore - exact, 0) << "reading " << i;
        ASSERT_LE(notBefore - exact, 1000) << "reading " << i;  // a kernel tick, or a long preemption
    }
}
