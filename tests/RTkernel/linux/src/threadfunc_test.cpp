// Threads, synchronisation objects, bounded queues and software timers of the kernel layer.
#include "threadfunc.h"

#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sched.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "WaitUntil.h"
#include "tick.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using threadfunc::queue_template;

namespace {

// Real-time scheduling needs CAP_SYS_NICE; without it threads run time-sharing.
bool mayUseRealTime(bool drop = false) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    EXPECT_EQ(syscall(SYS_capget, &header, data), 0);
    data[0].effective &= drop ? ~(1u << CAP_SYS_NICE) : ~0u;
    EXPECT_TRUE(!drop || syscall(SYS_capset, &header, data) == 0);
    return (data[0].effective & (1u << CAP_SYS_NICE)) != 0;
}

struct Seen {  // what a created thread finds itself running with
    int policy = -1, priority = -1;
    std::size_t stack = 0;
    sigset_t mask{};
};

Seen runThread(int priority, std::uint32_t stackSize = 0) {
    Seen seen;
    const auto entry = [](void* argument) -> std::uint32_t {
        auto& out = *static_cast<Seen*>(argument);
        out.policy = sched_getscheduler(0);
        out.priority = threadfunc::threadPriority();
        pthread_sigmask(SIG_SETMASK, nullptr, &out.mask);
        pthread_attr_t attributes;
        EXPECT_EQ(pthread_getattr_np(pthread_self(), &attributes), 0);
        pthread_attr_getstacksize(&attributes, &out.stack);
        pthread_attr_destroy(&attributes);
        return 7;
    };
    EXPECT_EQ(
        threadfunc::threadJoin(threadfunc::ThreadCreate(priority, entry, &seen, stackSize, "here.cpp", 42)),
        7u);
    return seen;
}

using Expiry = std::pair<int, std::int32_t>;  // timer id, tick
std::atomic<int> timerThreadPriority{-2};

Expiry nextExpiry(queue_template<Expiry>& log) {
    Expiry expiry{-1, 0};
    waitUntil([&] { return log.tryPop(&expiry); });
    return expiry;
}

struct RecordingTimer : threadfunc::TTimerBase {  // touches nothing of itself after logging
    RecordingTimer(queue_template<Expiry>& log, int id, std::function<void()> before = {})
        : TTimerBase(0), log_(log), id_(id), before_(std::move(before)) {}
    void onTimeout(std::uintptr_t, std::uintptr_t) override {
        timerThreadPriority = threadfunc::threadPriority();
        if (before_) {
            before_();
        }
        EXPECT_TRUE(log_.tryPush({id_, tickMilliseconds()}));
    }
    queue_template<Expiry>& log_;
    const int id_;
    std::function<void()> before_;
};

volatile int recursionLimit = 1 << 30;  // never reached: the stack runs out long before

[[gnu::noinline]] int recurse(int depth) {
    volatile char frame[256];
    frame[0] = static_cast<char>(depth);
    return depth < recursionLimit ? recurse(depth + 1) + frame[0] : 0;
}

}  // namespace

TEST(Threads,
     PriorityMapsOntoRoundRobinFromTheTopAndBeyondItsRangeOntoTimeSharingAndEverySignalButSigsegvIsBlocked) {
    const bool rr = mayUseRealTime();
    for (const auto& [priority, policy, reported] :
         {std::tuple{10, SCHED_RR, 10}, {98, SCHED_RR, 98}, {99, SCHED_OTHER, 99}, {200, SCHED_OTHER, 99}}) {
        const Seen seen = runThread(priority);
        EXPECT_EQ(std::pair(seen.policy, seen.priority),
                  rr ? std::pair(policy, reported) : std::pair(SCHED_OTHER, 99))
            << priority;
        for (const int blocked : {SIGINT, SIGTERM, SIGPIPE, SIGHUP, SIGUSR1, SIGALRM, SIGCHLD}) {
            EXPECT_EQ(sigismember(&seen.mask, blocked), 1) << blocked;
        }
        EXPECT_EQ(sigismember(&seen.mask, SIGSEGV), 0);
    }
}

#if !defined(__SANITIZE_THREAD__)  // ThreadSanitizer enlarges every thread stack
TEST(Threads, StacksBelow16384BytesAreRaisedTo16384) {
    for (const auto& [asked, stack] :
         {std::pair{0u, 16384u}, {1024u, 16384u}, {16383u, 16384u}, {65536u, 65536u}}) {
        EXPECT_EQ(runThread(50, asked).stack, std::max(stack, threadfunc::minimumStackSize())) << asked;
    }
}
#endif

// Capabilities belong to a thread, and a created thread has its creator's: the second thread lacks the
// one that real-time scheduling needs.
TEST(Threads, StartUpLinesAndAMissingRealTimePermissionArePrintedOnlyWithTheQuietFlagCleared) {
    const bool rr = mayUseRealTime();
    const std::string started =
        "Starting thread. Process: " + std::to_string(getpid()) + ", thread: [0-9]+, priority: ";
    const std::string origin = "\nCall origin: here.cpp line 42\n";
    const std::string denied =
        "threadfunc::InitThread() - sched_setscheduler() reports error: Operation not "
        "permitted # Run as ROOT to allow setting of thread priority\n";
    for (const bool quiet : {true, false}) {
        quiet ? threadfunc::setQuietThreads() : threadfunc::clearQuietThreads();
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        runThread(20);
        std::thread([] { mayUseRealTime(true), runThread(10); }).join();
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), quiet ? "" : (rr ? "" : denied) + denied);
        EXPECT_THAT(out, testing::MatchesRegex(
                             quiet ? "" : started + (rr ? "20" : "99") + origin + started + "99" + origin));
    }
}

TEST(Threads, JoinErrorGoesToStandardErrorSleepReachesItsDeadlineAcrossTheSecondCarryMemoryIsInBytes) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(threadfunc::threadJoin(0), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "threadfunc::threadJoin() - pthread_join() reports error: No such process\n");
    const auto start = Clock::now();
    threadfunc::sleep(-1);
    threadSleep(1999);
    const auto took = Clock::now() - start;
    EXPECT_GE(took, 1999ms);
    EXPECT_LT(took, 3500ms);
    EXPECT_GT(threadfunc::residentMemory(), 1 << 20) << "not pages";
    EXPECT_GT(threadfunc::peakMemory(), 1 << 20) << "not kilobytes";
}

TEST(Locks, TrylockTakesOnlyAFreeMutexTheGlobalLockReentersOnItsThreadAndASemaphoreWaitSurvivesASignal) {
    threadfunc::mutex mutex;
    EXPECT_TRUE(mutex.trylock());
    bool other = true;
    std::thread([&] { other = mutex.trylock(); }).join();
    EXPECT_FALSE(other);
    mutex.unlock();
    static std::atomic<bool> reentered{false};
    std::thread([] {
        threadfunc::globalLock();
        threadfunc::globalLockEnter();
        threadfunc::globalUnlock();
        threadfunc::globalUnlock();
        reentered = true;
    }).detach();  // left blocked if it deadlocks: the test fails anyway
    EXPECT_TRUE(waitUntil([] { return reentered.load(); }));

    static std::atomic<int> signals{0};
    struct sigaction action = {};
    action.sa_handler = [](int) { ++signals; };  // no SA_RESTART: sem_wait really fails with EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    threadfunc::semaphore semaphore(0);
    std::atomic<pid_t> tid{0};
    std::atomic<int> result{1};
    std::thread waiter([&] { tid = threadfunc::threadId(), result = semaphore.wait(); });
    const auto sleeping = [&] {  // state letter after the name in /proc/.../stat
        std::string line;
        std::getline(std::ifstream("/proc/self/task/" + std::to_string(tid) + "/stat"), line);
        return line.find(") S ") != std::string::npos;
    };
    ASSERT_TRUE(waitUntil([&] { return tid != 0 && sleeping(); }));
    ASSERT_EQ(pthread_kill(waiter.native_handle(), SIGUSR1), 0);
    ASSERT_TRUE(waitUntil([&] { return signals == 1; }));
    EXPECT_TRUE(waitUntil(sleeping));  // back in the wait, not ended
    semaphore.post();
    waiter.join();
    EXPECT_EQ(result, 0);
}

TEST(Queue, OrderCapacityBlockingAndFlush) {
    queue_template<int> queue(2);
    int out = -7;
    EXPECT_FALSE(queue.tryPop(&out));
    EXPECT_EQ(out, -7);
    EXPECT_TRUE(queue.tryPush(1));
    queue.push(2);
    EXPECT_FALSE(queue.tryPush(3));
    std::atomic<bool> pushed{false};
    std::thread producer([&] { queue.push(4), pushed = true; });  // held until a pop frees a place
    EXPECT_FALSE(waitUntil([&] { return pushed.load(); }, 250ms));
    EXPECT_EQ(queue.pop(), 1);
    producer.join();
    EXPECT_TRUE(queue.tryPop(&out));
    EXPECT_EQ(out, 2);  // 3 was never queued
    queue.push(5);
    queue.flush();
    EXPECT_EQ(std::pair(queue.filledCount(), queue.freeCount()), std::pair(0, 2));
}

TEST(Timer, EqualExpiriesFireLatestArmedFirstAndATimerDestroyedOnTheWayIsSkipped) {
    for (int attempt = 0; attempt < 50; ++attempt) {
        queue_template<Expiry> log(16);
        auto victim = std::make_unique<RecordingTimer>(log, 3);
        RecordingTimer earlier(log, 1), later(log, 2, [&] { victim.reset(); });
        // A one-shot is armed from the coarse clock, which a kernel tick moves between two readings of
        // the same precise millisecond.
        const std::int32_t before = tickMillisecondsNotBefore();
        victim->startOnce(300);
        earlier.startOnce(300);
        later.startOnce(300);
        if (tickMillisecondsNotBefore() == before) {  // all three share one expiry
            EXPECT_EQ(nextExpiry(log).first, 2);
            EXPECT_EQ(nextExpiry(log).first, 1);
            EXPECT_EQ(timerThreadPriority, mayUseRealTime() ? 0 : 99);
            return;
        }
    }
    FAIL() << "could not arm three timers within one tick";
}

TEST(Timer, ANewHeadWakesTheIdleThreadRestartReplacesThePendingExpiryAndPeriodicsRearmUntilStoppedOutside) {
    queue_template<Expiry> log(16);
    RecordingTimer timer(log, 1), sentinel(log, 9);
    std::int32_t late = 0;  // an idle thread would otherwise sleep up to 200 ms each time
    for (int i = 0; i < 5; ++i) {
        timer.startOnce(0);
        const std::int32_t armed = tickMilliseconds();  // after: this thread's own delays do not count
        late += nextExpiry(log).second - armed;
    }
    EXPECT_LT(late, 250);
    timer.startOnce(50);
    timer.restartOnce();
    timer.startPeriodic(50);
    timer.startOnce(50);
    sentinel.startOnce(400);
    EXPECT_EQ(nextExpiry(log).first, 1);
    EXPECT_EQ(nextExpiry(log).first, 9);

    constexpr int kPeriod = 100;
    RecordingTimer passDone(log, 8);
    int calls = 0;
    RecordingTimer periodic(log, 2, [&] {
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
    const std::int32_t stopped = tickMilliseconds();
    sentinel.startOnce(3 * kPeriod);
    Expiry after = nextExpiry(log);
    for (; after.first == 2; after = nextExpiry(log)) {  // only one already due when this thread stopped it
        EXPECT_LE(after.second - stopped, kPeriod / 2);
    }
    EXPECT_EQ(after.first, 9);
    EXPECT_GE(second.second - first.second, kPeriod);  // measured from the tick after the callback
    EXPECT_GE(third.second - second.second, kPeriod);
}

TEST(Timer, AFullTargetQueueLosesTheMessageWithoutHoldingUpOtherTimers) {
    queue_template<int> full(1), log(4);
    full.push(0);
    threadfunc::timer_template<int> blocked(0, &full, 1), next(0, &log, 2);
    blocked.startOnce(0);
    next.startOnce(20);
    int got = 0;
    EXPECT_TRUE(waitUntil([&] { return log.tryPop(&got); }));
    EXPECT_EQ(std::pair(got, full.pop()), std::pair(2, 0));
}

// A worker that runs out of its 16 KiB stack, which leaves the report no room on it, faults while the
// main thread waits to join it: the whole process ends with status 1.
TEST(ThreadsDeathTest, SegmentationFaultIsReportedEvenOnAnExhaustedStack) {
    if (std::getenv("VARNOCH_EMULATOR") != nullptr) {
        GTEST_SKIP() << "a threadsafe death test re-executes the emulator, not this program";
    }
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto overflow = [](void*) { return static_cast<std::uint32_t>(recurse(0)); };
    EXPECT_EXIT(threadfunc::threadJoin(threadfunc::ThreadCreate(10, overflow, nullptr, 0, "x", 1)),
                testing::ExitedWithCode(1),
                "^Process: [0-9]+, thread: [0-9]+, reports segmentation fault\nThread: signal address "
                "(0x[0-9a-f]+|\\(nil\\))\n$");
}
