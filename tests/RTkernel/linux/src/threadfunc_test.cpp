// Threads, synchronisation objects, bounded queues and software timers of the kernel layer.
#include "threadfunc.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "tick.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using threadfunc::queue_template;

namespace {

// Polls `condition` until it holds or `limit` has passed.
template <typename Condition>
bool waitUntil(Condition condition, std::chrono::milliseconds limit = 10s) {
    for (const auto deadline = Clock::now() + limit; !condition(); std::this_thread::sleep_for(1ms)) {
        if (Clock::now() > deadline) {
            return false;
        }
    }
    return true;
}

struct ThreadView {  // what a created thread sees of itself
    std::size_t stackSize = 0;
    int policy = -1;
    int priority = -2;
};

std::uint32_t observeThread(void* argument) {
    auto& view = *static_cast<ThreadView*>(argument);
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstacksize(&attributes, &view.stackSize);
        pthread_attr_destroy(&attributes);
    }
    view.policy = sched_getscheduler(0);
    view.priority = threadfunc::threadPriority();
    return 0xC0FFEEu;
}

ThreadView runObserved(int priority, std::uint32_t stackSize) {
    ThreadView view;
    const auto handle = threadfunc::ThreadCreate(priority, observeThread, &view, stackSize, "caller.cpp", 7);
    EXPECT_NE(handle, 0u);
    EXPECT_EQ(handle == 0 ? 0u : threadfunc::threadJoin(handle), 0xC0FFEEu);
    return view;
}

void countCall(void* argument, std::uintptr_t word1, std::uintptr_t word2) {
    static_cast<std::atomic<int>*>(argument)->fetch_add(word1 == 0 && word2 == 0 ? 1 : 100);
}

// Scheduler state letter of one of our threads ('S' = sleeping in a wait), '?' once it is gone.
char taskState(pid_t tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const auto close = line.rfind(')');
    return close == std::string::npos || close + 2 >= line.size() ? '?' : line[close + 2];
}

std::atomic<int> signalsTaken{0};
void noteSignal(int /*signal*/) {
    ++signalsTaken;
}

}  // namespace

TEST(ThreadCreate, RaisesSmallStacksToTheMinimumAndKeepsLargerOnes) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer enlarges every thread stack";
#endif
    for (const std::uint32_t requested : {0u, 1024u, 16383u}) {
        EXPECT_EQ(runObserved(50, requested).stackSize, 16384u) << requested;
    }
    EXPECT_EQ(runObserved(50, 65536).stackSize, 65536u);
}

TEST(ThreadCreate, MapsZeroToTheTopRoundRobinLevelAndOutOfRangeToTimeSharing) {
    const int max = sched_get_priority_max(SCHED_RR);
    EXPECT_EQ(threadfunc::osPriorityFor(0), max);
    EXPECT_EQ(threadfunc::osPriorityFor(99), 0);
    EXPECT_EQ(threadfunc::osPriorityFor(200), 0);
    const ThreadView relaxed = runObserved(200, 0);
    EXPECT_EQ(relaxed.policy, SCHED_OTHER);
    EXPECT_EQ(relaxed.priority, max);
    const ThreadView urgent = runObserved(0, 0);
    ASSERT_TRUE(urgent.policy == SCHED_RR || geteuid() != 0);  // without root: time-sharing
    EXPECT_EQ(urgent.priority, urgent.policy == SCHED_RR ? 0 : max);
}

TEST(ThreadCreate, ConvenienceFormsCallTheirEntryWithTheArgument) {
    std::atomic<int> calls{0};
    EXPECT_TRUE(threadfunc::ThreadCreate(30, countCall, &calls, "caller.cpp", 1));
    EXPECT_TRUE(threadfunc::ThreadCreate(30, countCall, &calls, 65536u, "caller.cpp", 2));
    EXPECT_TRUE(threadfunc::ThreadCreate(30, 65536u, countCall, &calls, "caller.cpp", 3));
    EXPECT_TRUE(threadfunc::ThreadCreate(30, nullptr, &calls, "caller.cpp", 4));  // no entry: nothing called
    EXPECT_TRUE(waitUntil([&] { return calls == 3; }));
}

TEST(ThreadJoin, InvalidHandleReportsTheErrorAndYieldsZero) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(threadfunc::threadJoin(0), 0u);
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        std::string("threadfunc::threadJoin() - pthread_join() reports error: ") + strerror(ESRCH) + "\n");
}

TEST(Sleep, NegativeReturnsAtOnceAndLongSleepsCarryIntoTheSeconds) {
    auto start = Clock::now();
    threadfunc::sleep(-1);
    threadfunc::sleep(0);
    EXPECT_LT(Clock::now() - start, 100ms);
    testing::internal::CaptureStderr();
    start = Clock::now();
    threadSleep(1999);
    const auto slept = Clock::now() - start;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");  // a missed carry makes the deadline invalid
    EXPECT_GE(slept, 1999ms);
    EXPECT_LT(slept, 3500ms);
}

TEST(Mutex, TrylockTakesAFreeMutexAndFailsWhileAnotherThreadHoldsIt) {
    threadfunc::mutex mutex;
    ASSERT_TRUE(mutex.trylock());
    bool taken = true;
    std::thread([&] { taken = mutex.trylock(); }).join();
    EXPECT_FALSE(taken);
    mutex.unlock();
    std::thread([&] {
        taken = mutex.trylock();
        mutex.unlock();
    }).join();
    EXPECT_TRUE(taken);
}

TEST(GlobalLock, IsRecursiveAndHeldUntilTheLastUnlock) {
    threadfunc::globalLock();
    threadfunc::globalLockEnter();
    std::atomic<bool> acquired{false};
    std::thread other([&] {
        threadfunc::globalLock();
        acquired = true;
        threadfunc::globalUnlock();
    });
    threadfunc::globalUnlock();
    EXPECT_FALSE(waitUntil([&] { return acquired.load(); }, 250ms));
    threadfunc::globalUnlock();
    EXPECT_TRUE(waitUntil([&] { return acquired.load(); }));
    other.join();
}

TEST(Semaphore, WaitSurvivesASignal) {
    struct sigaction action {};
    action.sa_handler = noteSignal;  // no SA_RESTART: sem_wait really fails with EINTR
    struct sigaction previous {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    threadfunc::semaphore semaphore(0);
    std::atomic<pid_t> tid{0};
    std::atomic<int> result{1};
    std::thread waiter([&] {
        tid = threadfunc::threadId();
        result = semaphore.wait();
    });
    ASSERT_TRUE(waitUntil([&] { return tid != 0 && taskState(tid) == 'S'; }));
    ASSERT_EQ(pthread_kill(waiter.native_handle(), SIGUSR1), 0);
    ASSERT_TRUE(waitUntil([&] { return signalsTaken == 1; }));
    EXPECT_TRUE(waitUntil([&] { return taskState(tid) == 'S'; }));  // back in the wait, not ended
    EXPECT_EQ(result, 1);
    semaphore.post();
    waiter.join();
    EXPECT_EQ(result, 0);
    sigaction(SIGUSR1, &previous, nullptr);
}

TEST(Queue, FifoWithinCapacityAndNonBlockingEdges) {
    queue_template<int> queue(3);
    int out = -7;
    EXPECT_FALSE(queue.tryPop(&out));
    EXPECT_EQ(out, -7);
    queue.push(1);
    EXPECT_TRUE(queue.tryPush(2));
    EXPECT_TRUE(queue.tryPush(3));
    EXPECT_FALSE(queue.tryPush(4));
    EXPECT_EQ(queue.filledCount(), 3);
    EXPECT_EQ(queue.freeCount(), 0);
    EXPECT_EQ(queue.pop(), 1);
    EXPECT_TRUE(queue.tryPop(nullptr));
    EXPECT_TRUE(queue.tryPop(&out));
    EXPECT_EQ(out, 3);  // 4 was never queued
    EXPECT_FALSE(queue.tryPop(&out));
}

TEST(Queue, FullQueueHoldsProducersUntilAPopOrAFlush) {
    queue_template<int> queue(2);
    queue.push(1);
    queue.push(2);
    std::atomic<int> pushed{0};
    const auto produce = [&] {
        queue.push(9);
        ++pushed;
    };
    std::thread first(produce);
    std::thread second(produce);
    EXPECT_FALSE(waitUntil([&] { return pushed > 0; }, 250ms));
    EXPECT_EQ(queue.pop(), 1);
    EXPECT_TRUE(waitUntil([&] { return pushed == 1; }));
    EXPECT_FALSE(waitUntil([&] { return pushed > 1; }, 250ms));
    queue.flush();  // gives the waiting producer its turn between discarded items
    EXPECT_TRUE(waitUntil([&] { return pushed == 2; }));
    first.join();
    second.join();
    EXPECT_EQ(queue.filledCount() + queue.freeCount(), 2);
    queue.flush();
    EXPECT_EQ(queue.filledCount(), 0);
    EXPECT_EQ(queue.freeCount(), 2);
}

namespace {

struct Expiry {
    int id;
    std::int32_t tick;
};

// Expiries of the timers sharing one log, in the order the timer thread reported them.
class ExpiryLog {
  public:
    void add(int id) {
        std::lock_guard<std::mutex> guard(lock_);
        entries_.push_back({id, tickMilliseconds()});
    }
    std::vector<Expiry> entries() {
        std::lock_guard<std::mutex> guard(lock_);
        return entries_;
    }
    std::vector<int> ids() {
        std::vector<int> ids;
        for (const Expiry& entry : entries()) {
            ids.push_back(entry.id);
        }
        return ids;
    }
    int count(int id) {
        const auto all = ids();
        return static_cast<int>(std::count(all.begin(), all.end(), id));
    }
    bool waitFor(int id, int times = 1) {
        return waitUntil([&] { return count(id) >= times; });
    }

  private:
    std::mutex lock_;
    std::vector<Expiry> entries_;
};

class RecordingTimer : public threadfunc::TTimerBase {
  public:
    RecordingTimer(ExpiryLog& log, int id, std::function<void()> before = {})
        : TTimerBase(0), log_(log), id_(id), before_(std::move(before)) {}
    // Touches nothing of the timer after logging, so a test may destroy it once the log shows it.
    void onTimeout(std::uintptr_t /*word1*/, std::uintptr_t /*word2*/) override {
        if (before_) {
            before_();
        }
        log_.add(id_);
    }

  private:
    ExpiryLog& log_;
    const int id_;
    std::function<void()> before_;
};

}  // namespace

TEST(Timer, EqualExpiriesFireLatestArmedFirstAndATimerDestroyedOnTheWayIsSkipped) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        ExpiryLog log;
        auto victim = std::make_unique<RecordingTimer>(log, 3);
        RecordingTimer earlier(log, 1);
        RecordingTimer later(log, 2, [&] { victim.reset(); });
        const std::int32_t before = tickMilliseconds();
        victim->startOnce(300);
        earlier.startOnce(300);
        later.startOnce(300);
        if (tickMilliseconds() == before) {  // all three share one expiry
            ASSERT_TRUE(log.waitFor(1));
            EXPECT_EQ(log.ids(), (std::vector<int>{2, 1}));
            return;
        }
    }
    FAIL() << "could not arm three timers within one tick";
}

TEST(Timer, RestartReplacesThePendingExpiryAndADestroyedTimerNeverFires) {
    ExpiryLog log;
    RecordingTimer timer(log, 1);
    RecordingTimer sentinel(log, 9);
    auto destroyed = std::make_unique<RecordingTimer>(log, 2);
    destroyed->startOnce(50);
    timer.startOnce(50);
    timer.restartOnce();
    timer.startPeriodic(50);
    timer.startOnce(50);
    destroyed.reset();
    sentinel.startOnce(400);
    ASSERT_TRUE(log.waitFor(9));
    EXPECT_EQ(log.ids(), (std::vector<int>{1, 9}));
}

TEST(Timer, ZeroIntervalFiresAsSoonAsTheThreadIsWoken) {
    ExpiryLog log;
    RecordingTimer timer(log, 1);
    timer.startOnce(0);
    ASSERT_TRUE(log.waitFor(1));  // the timer thread now begins an idle wait
    const std::int32_t armed = tickMilliseconds();
    timer.startOnce(0);
    ASSERT_TRUE(log.waitFor(1, 2));
    EXPECT_LT(log.entries()[1].tick - armed, 150);  // well before the 200 ms idle wait would end
}

TEST(Timer, PeriodicRearmsAfterEachExpiryUntilStoppedFromOutside) {
    constexpr int kPeriod = 100;
    ExpiryLog log;
    RecordingTimer passDone(log, 8);
    RecordingTimer sentinel(log, 9);
    RecordingTimer periodic(log, 1, [&] {
        if (log.count(1) == 2) {
            passDone.startOnce(0);  // fires on the next pass, after this one has re-armed
        }
    });
    periodic.startPeriodic(kPeriod);
    ASSERT_TRUE(log.waitFor(8));
    periodic.stop();
    const int expiries = log.count(1);
    sentinel.startOnce(3 * kPeriod);
    ASSERT_TRUE(log.waitFor(9));
    EXPECT_EQ(log.count(1), expiries);
    const auto expiry = log.entries();
    EXPECT_GE(expiry[1].tick - expiry[0].tick, kPeriod);  // measured from the tick after the callback
    EXPECT_GE(expiry[2].tick - expiry[1].tick, kPeriod);
}

TEST(Timer, TemplatePostsItsMessageAndAFullQueueLosesIt) {
    queue_template<int> queue(1);
    queue_template<int> done(1);
    threadfunc::timer_template<int> first(0, &queue, 11);
    threadfunc::timer_template<int> second(0, &queue, 22);
    threadfunc::timer_template<int> last(0, &done, 1);
    first.startOnce(10);
    second.startOnce(20);
    last.startOnce(80);
    ASSERT_TRUE(waitUntil([&] { return done.tryPop(nullptr); }));
    int item = 0;
    EXPECT_TRUE(queue.tryPop(&item));
    EXPECT_EQ(item, 11);
    EXPECT_FALSE(queue.tryPop(&item));
}
