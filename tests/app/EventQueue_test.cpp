// The application event queue: key order, dispatch rules and the bound on pending events.
#include "EventQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>
#include <vector>

using namespace std::chrono_literals;
using Event = std::pair<std::int32_t, std::int32_t>;
using Events = std::vector<Event>;

namespace {

Events handled;  // the handler runs on the thread calling processNextEvent: the test's own

void recordEvent(std::int32_t code, std::int32_t parameter) {
    handled.emplace_back(code, parameter);
}

// True once `flag` is set; false if that did not happen within `limit`.
bool becomesTrue(const std::atomic<bool>& flag, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!flag && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(1ms);
    }
    return flag;
}

class EventQueueTest : public testing::Test {
  protected:
    void SetUp() override {
        handled.clear();
        queue.setEventHandler(recordEvent);
    }
    // Processes `times` events and returns those that reached the handler.
    Events process(int times) {
        for (int i = 0; i < times; ++i) {
            EXPECT_TRUE(queue.processNextEvent());
        }
        return std::exchange(handled, {});
    }
    EventQueue queue;
};

}  // namespace

TEST_F(EventQueueTest, RefusesKeysAboveZeroAndServesNegativeKeysAfterZero) {
    EXPECT_FALSE(queue.postEvent(1, 21, 0));
    EXPECT_TRUE(queue.postEvent(-1, 22, 1));
    EXPECT_TRUE(queue.postEvent(0, 23, 2));
    EXPECT_TRUE(queue.postEvent(0, 23, 3));
    EXPECT_TRUE(queue.postEvent(0, 24, 4));
    EXPECT_EQ(process(4), (Events{{23, 2}, {23, 3}, {24, 4}, {22, 1}}));
}

TEST_F(EventQueueTest, CodeZeroAndEventsWithoutAHandlerAreConsumedUnhandled) {
    EXPECT_TRUE(queue.postEvent(0, 0, 5));
    EXPECT_TRUE(queue.postEvent(0, 21, 6));
    EXPECT_EQ(process(1), Events{});
    EXPECT_EQ(process(1), (Events{{21, 6}}));
    queue.setEventHandler(nullptr);
    EXPECT_TRUE(queue.postEvent(0, 22, 7));
    EXPECT_EQ(process(1), Events{});
    queue.setEventHandler(recordEvent);
    EXPECT_TRUE(queue.postEvent(0, 23, 8));
    EXPECT_EQ(process(1), (Events{{23, 8}}));  // the dropped event is gone for good
}

TEST_F(EventQueueTest, PosterBeyondTheCapacityWaitsUntilAnEventIsProcessed) {
    const auto capacity = static_cast<std::int32_t>(EventQueue::kCapacity);
    for (std::int32_t i = 0; i < capacity; ++i) {
        ASSERT_TRUE(queue.postEvent(0, 21, i));
    }
    std::atomic<bool> posted{false};
    std::thread poster([&] { posted = queue.postEvent(0, 22, capacity); });
    EXPECT_FALSE(becomesTrue(posted, 250ms));
    EXPECT_EQ(process(1), (Events{{21, 0}}));
    EXPECT_TRUE(becomesTrue(posted, 10s));
    poster.join();
    const Events rest = process(capacity);
    ASSERT_EQ(rest.size(), EventQueue::kCapacity);
    EXPECT_EQ(rest.back(), (Event{22, capacity}));
}
