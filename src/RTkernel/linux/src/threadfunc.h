// The daemon's thin real-time kernel layer over POSIX: threads with round-robin priorities,
// mutexes, semaphores, bounded message queues, the process-wide recursive lock and software timers.
#pragma once

#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

namespace threadfunc {

// ---------------------------------------------------------------------------------------------
// Threads

// A pthread_t kept at its native width (it does not fit 32 bits on 64-bit targets); 0 = no thread.
using ThreadHandle = pthread_t;

// Entry of a thread made by the primary ThreadCreate; its result becomes the thread's result.
using ThreadEntry = std::uint32_t (*)(void* argument);
// Entry of the convenience forms: the argument plus two further words (always 0); no result.
using ThreadProc = void (*)(void* argument, std::uintptr_t word1, std::uintptr_t word2);

// Every thread gets at least this stack; smaller requests (0 included) are raised to it, or to the C
// library's own minimum where that is larger (aarch64 glibc refuses anything below 128 KiB).
constexpr std::uint32_t kMinStackSize = 16384;
// The smallest stack a thread of this process actually gets: max(kMinStackSize, the system's minimum).
std::uint32_t minimumStackSize();
// Stack the first convenience form asks for (raised to kMinStackSize).
constexpr std::uint32_t kConvenienceStackSize = 1024;

// Starts a thread at `priority` (0 = most urgent; mapped onto SCHED_RR, or time-sharing when out of
// range). The origin identifies the calling source line. Returns the handle, or 0 on failure.
[[nodiscard]] ThreadHandle ThreadCreate(int priority, ThreadEntry entry, void* argument,
                                        std::uint32_t stackSize, const char* originFile,
                                        std::uint32_t originLine);
// Convenience forms; true when a thread was started.
[[nodiscard]] bool ThreadCreate(int priority, ThreadProc entry, void* argument, const char* originFile,
                                std::uint32_t originLine);
[[nodiscard]] bool ThreadCreate(int priority, ThreadProc entry, void* argument, std::uint32_t stackSize,
                                const char* originFile, std::uint32_t originLine);
[[nodiscard]] bool ThreadCreate(int priority, std::uint32_t stackSize, ThreadProc entry, void* argument,
                                const char* originFile, std::uint32_t originLine);

// Per-thread set-up run first by every created thread: signal mask (all but SIGSEGV), the
// segmentation-fault reporter and the scheduling class for `osPriority` (0 = time-sharing).
void InitThread(int osPriority);

// Maps a priority of this layer to the OS round-robin priority; 0 means time-sharing.
int osPriorityFor(int priority);

// The calling thread's priority on this layer's scale, or -1 on error.
int threadPriority();

// Waits for the thread to end; returns its result (0 if the join failed).
std::uint32_t threadJoin(ThreadHandle handle);

// Sleeps `msec` milliseconds to an absolute monotonic deadline; negative values return at once.
void sleep(std::int32_t msec);

// While set (the default), thread start-up messages and missing real-time permission stay silent.
void setQuietThreads();
void clearQuietThreads();
bool quietThreads();

// First line of /proc/self/comm, read once and cached (empty if it could not be read yet).
const std::string& processName();

// Kernel thread id of the caller.
pid_t threadId();

// Resident memory in bytes (/proc/self/statm), 0 on failure.
long residentMemory();

// Peak resident memory in bytes (getrusage), 0 on failure.
long peakMemory();

// ---------------------------------------------------------------------------------------------
// Synchronisation

// A normal (non-recursive) POSIX mutex.
class mutex {
  public:
    mutex();
    virtual ~mutex();
    mutex(const mutex&) = delete;
    mutex& operator=(const mutex&) = delete;

    // Blocks until the mutex is held.
    void lock();
    // True when the mutex was acquired, false when it was busy.
    [[nodiscard]] bool trylock();
    void unlock();

  private:
    std::unique_ptr<pthread_mutex_t> handle_;
};

// An unnamed, process-private counting semaphore.
class semaphore {
  public:
    explicit semaphore(unsigned int initial);
    virtual ~semaphore();
    semaphore(const semaphore&) = delete;
    semaphore& operator=(const semaphore&) = delete;

    // Blocks until the count could be decremented (signals do not end the wait); returns 0, or -1
    // after an error other than EINTR, which is reported and leaves the count untouched.
    int wait();
    // True when the count was decremented, false when it was 0.
    [[nodiscard]] bool trywait();
    void post();
    // Current count.
    int getvalue();

  private:
    std::unique_ptr<sem_t> handle_;
};

// Bounded FIFO: blocking operations wait on a semaphore before taking the mutex, so no thread ever
// sleeps while holding it. The destructor abandons queued items (owners drain pointer queues first).
template <typename T>
class queue_template {
  public:
    explicit queue_template(std::uint32_t capacity) : capacity_(capacity), free_(capacity) {}
    virtual ~queue_template() = default;
    queue_template(const queue_template&) = delete;
    queue_template& operator=(const queue_template&) = delete;

    // Waits for a free place, then appends.
    void push(const T& item) {
        free_.wait();
        lock_.lock();
        items_.push_back(item);
        lock_.unlock();
        filled_.post();
    }

    // Appends if a place is free; false (item not queued) when the queue is full.
    [[nodiscard]] bool tryPush(const T& item) {
        lock_.lock();
        if (!free_.trywait()) {
            lock_.unlock();
            return false;
        }
        items_.push_back(item);
        filled_.post();
        lock_.unlock();
        return true;
    }

    // Waits for an item and removes it.
    T pop() {
        filled_.wait();
        lock_.lock();
        T item = items_.front();
        items_.pop_front();
        lock_.unlock();
        free_.post();
        return item;
    }

    // Removes the front item into `out` (when given); false without touching `out` when empty.
    [[nodiscard]] bool tryPop(T* out) {
        lock_.lock();
        const bool taken = filled_.trywait();
        if (taken) {
            if (out != nullptr) {
                *out = items_.front();
            }
            items_.pop_front();
            free_.post();
        }
        lock_.unlock();
        return taken;
    }

    // Discards every queued item, letting waiting producers in between items.
    void flush() {
        lock_.lock();
        while (filled_.trywait()) {
            items_.pop_front();
            free_.post();
            lock_.unlock();
            lock_.lock();
        }
        lock_.unlock();
    }

    std::uint32_t capacity() const { return capacity_; }
    // Counts of queued items and free places (for tests and diagnostics).
    int filledCount() { return filled_.getvalue(); }
    int freeCount() { return free_.getvalue(); }

  private:
    std::deque<T> items_;
    std::uint32_t capacity_;
    semaphore filled_{0};
    semaphore free_;
    mutex lock_;
};

// The process-wide recursive lock (initialised on first use, which must precede any race for it).
void globalLock();
void globalLockEnter();  // same as globalLock, for callers outside this layer's naming
void globalUnlock();

// ---------------------------------------------------------------------------------------------
// Timers

// Abstract software timer. All armed timers live in one list sorted by expiry; one timer thread
// (started by the first timer constructed) calls onTimeout on expiry. Guarded by one process-wide lock.
class TTimerBase {
  public:
    explicit TTimerBase(std::uint32_t intervalMs);
    virtual ~TTimerBase();
    TTimerBase(const TTimerBase&) = delete;
    TTimerBase& operator=(const TTimerBase&) = delete;

    // Stop, then arm as periodic / one-shot with `intervalMs`.
    void startPeriodic(std::uint32_t intervalMs);
    void startOnce(std::uint32_t intervalMs);
    // Stop, then arm with the stored interval.
    void restartPeriodic();
    void restartOnce();
    // Removes the timer from the timer list.
    void stop();
    // The interval used by the next arm.
    void setInterval(std::uint32_t intervalMs);
    std::uint32_t getInterval();
    // Runs the expiry steps now: onTimeout, then re-arm if periodic.
    void fire(std::uintptr_t word1, std::uintptr_t word2);

    // Called on the timer thread without the lock held; must be short and must not block.
    virtual void onTimeout(std::uintptr_t word1, std::uintptr_t word2) = 0;

  protected:
    // Takes and releases the process-wide timer-list lock (for derived timers' own fields).
    static void lockTimers();
    static void unlockTimers();
    // Takes the timer out of service and waits for a callback of it running on the timer thread.
    // Concrete timers call it first in their destructor, so no callback runs on a half-destroyed
    // object; calling it again (from the base destructor) is harmless.
    void retire();

  private:
    friend struct TimerMachinery;
    // `late`: the expiry may come up to a kernel tick late (early only by as much as an overdue kernel
    // tick), for a reading of the clock that costs no system call; a periodic timer keeps its rate with
    // the exact clock.
    void arm(std::uint32_t intervalMs, bool late = false);

    TTimerBase* self_;  // null once destruction began: list entries then refer to no timer
    std::int32_t expiry_ = 0;
    bool periodic_ = false;
    std::uint32_t interval_;
};

// Timer that on expiry puts a fixed message into a queue (dropped silently when the queue is full).
template <typename T>
class timer_template : public TTimerBase {
  public:
    timer_template(std::uint32_t intervalMs, queue_template<T>* queue, const T& message)
        : TTimerBase(intervalMs), queue_(queue), message_(message) {}
    ~timer_template() override { retire(); }

    void onTimeout(std::uintptr_t /*word1*/, std::uintptr_t /*word2*/) override {
        lockTimers();
        queue_template<T>* queue = queue_;
        const T message = message_;
        unlockTimers();
        if (queue != nullptr) {
            (void)queue->tryPush(message);  // a full queue loses the expiry by design
        }
    }

  private:
    queue_template<T>* queue_;
    T message_;
};

}  // namespace threadfunc

// Entry point of the sleep for callers outside the namespace (the CAN layer).
void threadSleep(std::int32_t msec);
