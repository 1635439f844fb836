// Threads, synchronisation objects, bounded queues and software timers of the kernel layer.
#include "threadfunc.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <algorithm>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>

#include "WaitUntil.h"
#include "tick.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using threadfunc::queue_template;

namespace {

[[maybe_unused]] std::size_t stackOfAThreadAsking(std::uint32_t stackSize) {  // unused under ThreadSanitizer
    std::size_t stack = 0;
    const auto entry = [](void* argument) -> std::uint32_t {
        pthread_attr_t attributes;
        if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
            pthread_attr_getstacksize(&attributes, static_cast<std::size_t*>(argument));
            pthread_attr_destroy(&attributes);
        }
        return 7;
    };
    EXPECT_EQ(threadfunc::threadJoin(threadfunc::ThreadCreate(50, entry, &stack, stackSize, "x", 1)), 7u);
    return stack;
}

using Expiry = std::pair<int, std::int32_t>;  // timer id, tick

Expiry nextExpiry(queue_template<Expiry>& log) {
    Expiry expiry{-1, 0};
    waitUntil([&] { return log.tryPop(&expiry); });
    return expiry;
}

struct RecordingTimer : threadfunc::TTimerBase {  // touches nothing of itself after logging
    RecordingTimer(queue_template<Expiry>& log, int id, std::function<void()> before = {})
        : TTimerBase(0), log_(log), id_(id), before_(std::move(before)) {}
    void onTimeout(std::uintptr_t, std::uintptr_t) override {
        if (before_) {
            before_();
        }
        log_.tryPush({id_, tickMilliseconds()});
    }
    queue_template<Expiry>& log_;
    const int id_;
    std::function<void()> before_;
};

}  // namespace

TEST(Threads, StackMinimumPriorityMappingJoinErrorAndSleepCarry) {
#if !defined(__SANITIZE_THREAD__)  // ThreadSanitizer enlarges every thread stack
    for (const std::uint32_t asked : {0u, 1024u, 16383u, 65536u}) {
        EXPECT_EQ(stackOfAThreadAsking(asked), std::max(asked, threadfunc::minimumStackSize())) << asked;
    }
#endif
    EXPECT_EQ(threadfunc::osPriorityFor(0), sched_get_priority_max(SCHED_RR));
    EXPECT_EQ(threadfunc::osPriorityFor(99), 0);  // beyond max - min: time-sharing
    testing::internal::CaptureStderr();
    EXPECT_EQ(threadfunc::threadJoin(0), 0u);
    const auto start = Clock::now();
    threadfunc::sleep(-1);
    threadSleep(1999);
    const auto slept = Clock::now() - start;  // a missed carry makes the deadline invalid: an error line
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        "threadfunc::threadJoin() - pthread_join() reports error: " + std::string(strerror(ESRCH)) + "\n");
    EXPECT_GE(slept, 1999ms);
    EXPECT_LT(slept, 3500ms);
}

TEST(Semaphore, WaitSurvivesASignal) {
    static std::atomic<int> signals{0};
    struct sigaction action = {};
    struct sigaction previous = {};
    action.sa_handler = [](int) { ++signals; };  // no SA_RESTART: sem_wait really fails with EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    threadfunc::semaphore semaphore(0);
    std::atomic<pid_t> tid{0};
    std::atomic<int> result{1};
    std::thread waiter([&] { tid = threadfunc::threadId(), result = semaphore.wait(); });
    const auto sleeping = [&] {  // state letter after the name in /proc/.../stat
        std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
        std::string line;
        std::getline(stat, line);
        return line.find(") S ") != std::string::npos;
    };
    ASSERT_TRUE(waitUntil([&] { return tid != 0 && sleeping(); }));
    ASSERT_EQ(pthread_kill(waiter.native_handle(), SIGUSR1), 0);
    ASSERT_TRUE(waitUntil([&] { return signals == 1; }));
    EXPECT_TRUE(waitUntil(sleeping));  // back in the wait, not ended
    semaphore.post();
    waiter.join();
    EXPECT_EQ(result, 0);
    sigaction(SIGUSR1, &previous, nullptr);
}

TEST(Queue, OrderCapacityBlockingAndFlushAcrossThreads) {
    queue_template<int> queue(2);
    int out = -7;
    EXPECT_FALSE(queue.tryPop(&out));
    EXPECT_EQ(out, -7);
    EXPECT_TRUE(queue.tryPush(1));
    queue.push(2);
    EXPECT_FALSE(queue.tryPush(3));
    EXPECT_EQ(queue.pop(), 1);
    EXPECT_TRUE(queue.tryPop(&out));
    EXPECT_EQ(out, 2);  // 3 was never queued

    constexpr int kEach = 2000;  // each producer's own order must survive the interleaving
    const auto produce = [&queue](int first) {
        for (int item = first; item < 2 * kEach; item += 2) {
            queue.push(item);
        }
    };
    std::thread even(produce, 0), odd(produce, 1);
    for (int taken = 0, next[2] = {0, 1}; taken < 2 * kEach; ++taken) {
        const int item = queue.pop();
        EXPECT_EQ(item, next[item % 2]);
        next[item % 2] = item + 2;
    }
    even.join();
    odd.join();

    queue.push(1);  // a full queue holds producers until a pop, or a flush, lets them in
    queue.push(2);
    std::atomic<int> pushed{0};
    std::thread first([&] { queue.push(9), ++pushed; }), second([&] { queue.push(9), ++pushed; });
    EXPECT_FALSE(waitUntil([&] { return pushed > 0; }, 250ms));
    EXPECT_EQ(queue.pop(), 1);
    EXPECT_TRUE(waitUntil([&] { return pushed == 1; }));
    EXPECT_FALSE(waitUntil([&] { return pushed > 1; }, 250ms));
    queue.flush();  // gives the waiting producer its turn between discarded items
    EXPECT_TRUE(waitUntil([&] { return pushed == 2; }));
    first.join();
    second.join();
    queue.flush();
    EXPECT_EQ(std::pair(queue.filledCount(), queue.freeCount()), std::pair(0, 2));
}

TEST(Timer, EqualExpiriesFireLatestArmedFirstAndATimerDestroyedOnTheWayIsSkipped) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        queue_template<Expiry> log(16);
        auto victim = std::make_unique<RecordingTimer>(log, 3);
        RecordingTimer earlier(log, 1), later(log, 2, [&] { victim.reset(); });
        const std::int32_t before = tickMilliseconds();
        victim->startOnce(300);
        earlier.startOnce(300);
        later.startOnce(300);
        if (tickMilliseconds() == before) {  // all three share one expiry
            EXPECT_EQ(nextExpiry(log).first, 2);
            EXPECT_EQ(nextExpiry(log).first, 1);
            return;
        }
    }
    FAIL() << "could not arm three timers within one tick";
}

TEST(Timer, RestartReplacesThePendingExpiryDestroyedNeverFiresNewHeadWakesTheThread) {
    queue_template<Expiry> log(16);
    RecordingTimer timer(log, 1), sentinel(log, 9);
    auto destroyed = std::make_unique<RecordingTimer>(log, 2);
    destroyed->startOnce(50);
    timer.startOnce(50);
    timer.restartOnce();
    timer.startPeriodic(50);
    timer.startOnce(50);
    destroyed.reset();
    sentinel.startOnce(400);
    EXPECT_EQ(nextExpiry(log).first, 1);
    EXPECT_EQ(nextExpiry(log).first, 9);
    const std::int32_t armed = tickMilliseconds();  // with nothing armed the thread idles for 200 ms
    timer.startOnce(0);
    EXPECT_LT(nextExpiry(log).second - armed, 150);  // a new head wakes it at once
}

TEST(Timer, PeriodicRearmsEvenWhenStoppedFromItsOwnCallbackUntilStoppedFromOutside) {
    constexpr int kPeriod = 100;
    queue_template<Expiry> log(16);
    RecordingTimer passDone(log, 8), sentinel(log, 9);
    int calls = 0;
    RecordingTimer periodic(log, 1, [&] {
        if (++calls == 1) {
            periodic.stop();  // leaves the periodic flag set
        } else if (calls == 3) {
            passDone.startOnce(0);  // fires on the next pass, after this one has re-armed
        }
    });
    periodic.startPeriodic(kPeriod);
    const Expiry first = nextExpiry(log), second = nextExpiry(log), third = nextExpiry(log);
    EXPECT_EQ(nextExpiry(log).first, 8);
    periodic.stop();
    sentinel.startOnce(3 * kPeriod);
    EXPECT_EQ(nextExpiry(log).first, 9);               // no expiry of the stopped timer in between
    EXPECT_GE(second.second - first.second, kPeriod);  // measured from the tick after the callback
    EXPECT_GE(third.second - second.second, kPeriod);
}

namespace {

volatile int recursionLimit = 1 << 30;  // never reached: the stack runs out long before

// Faults by running out of its 16 KiB stack: the report has no room left on it.
[[gnu::noinline]] int recurse(int depth) {
    volatile char frame[256];
    frame[0] = static_cast<char>(depth);
    return depth < recursionLimit ? recurse(depth + 1) + frame[0] : 0;
}

std::uint32_t overflowStack(void* /*unused*/) {
    return static_cast<std::uint32_t>(recurse(0));
}

std::uint32_t waitForever(void* /*unused*/) {
    for (;;) {
        pause();
    }
}

// A worker faults while the main thread waits to join it: the whole process ends with status 1.
void faultAWorker(bool byRecursion) {
    const threadfunc::ThreadHandle worker =
        threadfunc::ThreadCreate(10, byRecursion ? overflowStack : waitForever, nullptr, 0, "x", 1);
    if (!byRecursion) {
        std::this_thread::sleep_for(50ms);  // let it reach its wait; the signal is sent either way
        (void)pthread_kill(worker, SIGSEGV);
    }
    (void)threadfunc::threadJoin(worker);
    std::exit(0);
}

constexpr const char* kFaultReport =
    "^Process: [0-9]+, thread: [0-9]+, reports segmentation fault\nThread: signal address "
    "(0x[0-9a-f]+|\\(nil\\))\n$";

}  // namespace

TEST(ThreadsDeathTest, SegmentationFaultIsReportedEvenOnAnExhaustedStack) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(faultAWorker(true), testing::ExitedWithCode(1), kFaultReport);
    EXPECT_EXIT(faultAWorker(false), testing::ExitedWithCode(1), kFaultReport);
}
