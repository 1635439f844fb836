// The application event queue: key order, dispatch rules and the bound on pending events.
#include "EventQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#include "WaitUntil.h"

using Events = std::vector<std::pair<std::int32_t, std::int32_t>>;

static Events handled;  // the handler runs on the thread calling processNextEvent: the test's own
static const EventQueue::Handler record = [](std::int32_t code, std::int32_t parameter) {
    handled.emplace_back(code, parameter);
};

TEST(EventQueue, SmallerKeysFirstPostingOrderWithinAKeyCodeZeroAndNoHandlerConsumeSilently) {
    EventQueue queue;
    queue.setEventHandler(record);
    EXPECT_FALSE(queue.postEvent(1, 21, 0));
    EXPECT_TRUE(queue.postEvent(-1, 22, 1));  // a key that sorts after 0
    for (const auto& [code, parameter] : Events{{23, 2}, {0, 3}, {23, 4}, {24, 5}}) {
        EXPECT_TRUE(queue.postEvent(0, code, parameter));
    }
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(queue.processNextEvent());
    }
    EXPECT_EQ(handled, (Events{{23, 2}, {23, 4}, {24, 5}, {22, 1}}));
    queue.setEventHandler(nullptr);
    EXPECT_TRUE(queue.postEvent(0, 22, 6));
    EXPECT_TRUE(queue.processNextEvent());
    EXPECT_EQ(handled.size(), 4u);
}

TEST(EventQueue, PosterBeyondTenThousandPendingWaitsUntilAnEventIsProcessed) {
    constexpr std::int32_t kBound = 10000;
    static auto& queue = *new EventQueue;  // outlives a poster left blocked by a failure
    static std::atomic<std::int32_t> posted{0};
    std::thread([] {
        for (std::int32_t i = 0; i <= kBound; ++i) {
            queue.postEvent(0, 21, i);
            ++posted;
        }
    }).detach();
    ASSERT_TRUE(waitUntil([] { return posted == kBound; }));
    ASSERT_FALSE(waitUntil([] { return posted > kBound; }, std::chrono::milliseconds(250)));
    queue.setEventHandler(record);
    EXPECT_TRUE(queue.processNextEvent());
    ASSERT_TRUE(waitUntil([] { return posted == kBound + 1; }));
    for (std::int32_t i = 0; i < kBound; ++i) {
        queue.processNextEvent();
    }
    ASSERT_EQ(handled.size(), static_cast<std::size_t>(kBound + 1));
    EXPECT_EQ(handled.back(), std::pair(21, kBound));
}
