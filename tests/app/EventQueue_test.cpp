// The application event queue: key order, dispatch rules and the bound on pending events.
#include "EventQueue.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <utility>
#include <vector>

using namespace std::chrono_literals;
using Events = std::vector<std::pair<std::int32_t, std::int32_t>>;

namespace {

Events handled;  // the handler runs on the thread calling processNextEvent: the test's own

void record(std::int32_t code, std::int32_t parameter) {
    handled.emplace_back(code, parameter);
}

// Processes `times` events and returns those that reached the handler.
Events process(EventQueue& queue, int times) {
    for (int i = 0; i < times; ++i) {
        EXPECT_TRUE(queue.processNextEvent());
    }
    return std::exchange(handled, {});
}

}  // namespace

TEST(EventQueue, KeyOrderPostingOrderAndEventsConsumedUnhandled) {
    EventQueue queue;
    queue.setEventHandler(record);
    EXPECT_FALSE(queue.postEvent(1, 21, 0));
    EXPECT_TRUE(queue.postEvent(-1, 22, 1));  // sorts after key 0
    EXPECT_TRUE(queue.postEvent(0, 23, 2));
    EXPECT_TRUE(queue.postEvent(0, 0, 3));  // code 0: consumed without calling the handler
    EXPECT_TRUE(queue.postEvent(0, 23, 4));
    EXPECT_TRUE(queue.postEvent(0, 24, 5));
    EXPECT_EQ(process(queue, 5), (Events{{23, 2}, {23, 4}, {24, 5}, {22, 1}}));
    queue.setEventHandler(nullptr);
    EXPECT_TRUE(queue.postEvent(0, 22, 6));
    EXPECT_EQ(process(queue, 1), Events{});
}

TEST(EventQueue, PosterBeyondTenThousandPendingWaitsUntilAnEventIsProcessed) {
    constexpr std::int32_t kBound = 10000;
    EventQueue queue;
    for (std::int32_t i = 0; i < kBound; ++i) {
        ASSERT_TRUE(queue.postEvent(0, 21, i));
    }
    auto posted = std::async(std::launch::async, [&] { return queue.postEvent(0, 22, kBound); });
    EXPECT_EQ(posted.wait_for(250ms), std::future_status::timeout);
    EXPECT_TRUE(queue.processNextEvent());
    ASSERT_EQ(posted.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(posted.get());
    queue.setEventHandler(record);
    const Events rest = process(queue, kBound);
    ASSERT_EQ(rest.size(), static_cast<std::size_t>(kBound));
    EXPECT_EQ(rest.back(), std::pair(22, kBound));
}
