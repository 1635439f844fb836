#include "threadfunc.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <list>
#include <mutex>
#include <new>
#include <vector>

#include "threadstack.h"
#include "tick.h"

namespace threadfunc {

namespace {

std::atomic<bool> quietFlag{true};

// Handed from the creating thread to the created one, which frees it.
struct StartRecord {
    ThreadEntry entry;
    void* argument;
    int osPriority;
    const char* originFile;
    std::uint32_t originLine;
    bool announce;  // print the start-up lines (the quiet flag was off)
};

// What the convenience forms wrap around their entry.
struct ProcRecord {
    ThreadProc entry;
    void* argument;
};

void* threadStart(void* argument) {
    auto* record = static_cast<StartRecord*>(argument);
    const detail::FaultStack faultStack;
    const detail::StackWatermark watermark(record->originFile, record->originLine);
    InitThread(record->osPriority);
    if (record->announce) {
        printf("Starting thread. Process: %i, thread: %i, priority: %i\n", static_cast<int>(getpid()),
               static_cast<int>(threadId()), threadPriority());
        printf("Call origin: %s line %u\n", record->originFile, record->originLine);
        fflush(stdout);
    }
    const std::uint32_t result = record->entry(record->argument);
    delete record;
    // pthread hands a thread's result back as a pointer; nothing dereferences it.
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(result));  // NOLINT(performance-no-int-to-ptr)
}

std::uint32_t procAdaptor(void* argument) {
    auto* record = static_cast<ProcRecord*>(argument);
    if (record == nullptr) {
        return 0;
    }
    if (record->entry != nullptr) {
        record->entry(record->argument, 0, 0);
    }
    delete record;
    return 0;
}

bool createProcThread(int priority, ThreadProc entry, void* argument, std::uint32_t stackSize,
                      const char* originFile, std::uint32_t originLine) {
    auto* record = new (std::nothrow) ProcRecord{entry, argument};
    if (record == nullptr) {
        return false;
    }
    const ThreadHandle handle =
        ThreadCreate(priority, procAdaptor, record, stackSize, originFile, originLine);
    if (handle == 0) {
        delete record;
        return false;
    }
    // Nobody can join a thread whose handle is not handed out: detach it so that it is reclaimed when
    // it ends. Cannot fail for a handle that was just created and is neither joined nor detached.
    (void)pthread_detach(handle);
    return true;
}

}  // namespace

std::uint32_t minimumStackSize() {
    const long systemMinimum = sysconf(_SC_THREAD_STACK_MIN);
    return systemMinimum > static_cast<long>(kMinStackSize) ? static_cast<std::uint32_t>(systemMinimum)
                                                            : kMinStackSize;
}

int osPriorityFor(int priority) {
    const int osPriority = sched_get_priority_max(SCHED_RR) - priority;
    return osPriority < sched_get_priority_min(SCHED_RR) ? 0 : osPriority;
}

ThreadHandle ThreadCreate(int priority, ThreadEntry entry, void* argument, std::uint32_t stackSize,
                          const char* originFile, std::uint32_t originLine) {
    pthread_attr_t attributes;
    int result = pthread_attr_init(&attributes);
    if (result != 0) {
        fprintf(stderr, "threadfunc::ThreadCreate() - pthread_attr_init() reports error: %s\n",
                strerror(result));
        fflush(stderr);
        return 0;
    }
    result = pthread_attr_setstacksize(&attributes, std::max(stackSize, minimumStackSize()));
    if (result != 0) {
        fprintf(stderr, "threadfunc::ThreadCreate() - pthread_attr_setstacksize() reports error: %s\n",
                strerror(result));
        fflush(stderr);
        pthread_attr_destroy(&attributes);
        return 0;
    }
    auto* record = new (std::nothrow)
        StartRecord{entry, argument, osPriorityFor(priority), originFile, originLine, !quietThreads()};
    if (record == nullptr) {
        pthread_attr_destroy(&attributes);
        return 0;
    }
    pthread_t handle{};
    result = pthread_create(&handle, &attributes, threadStart, record);
    pthread_attr_destroy(&attributes);
    if (result != 0) {
        fprintf(stderr, "threadfunc::ThreadCreate() - pthread_create() reports error: %s\n",
                strerror(result));
        fflush(stderr);
        delete record;  // the thread never ran, so nobody else will free it
        return 0;
    }
    return handle;
}

bool ThreadCreate(int priority, ThreadProc entry, void* argument, const char* originFile,
                  std::uint32_t originLine) {
    return createProcThread(priority, entry, argument, kConvenienceStackSize, originFile, originLine);
}

bool ThreadCreate(int priority, ThreadProc entry, void* argument, std::uint32_t stackSize,
                  const char* originFile, std::uint32_t originLine) {
    return createProcThread(priority, entry, argument, stackSize, originFile, originLine);
}

bool ThreadCreate(int priority, std::uint32_t stackSize, ThreadProc entry, void* argument,
                  const char* originFile, std::uint32_t originLine) {
    return createProcThread(priority, entry, argument, stackSize, originFile, originLine);
}

void InitThread(int osPriority) {
    // Asynchronous signals (SIGINT, SIGTERM, SIGPIPE, ...) are then delivered to the main thread only.
    sigset_t mask;
    sigfillset(&mask);
    sigdelset(&mask, SIGSEGV);
    (void)pthread_sigmask(SIG_SETMASK, &mask, nullptr);  // cannot fail with a valid set and SIG_SETMASK

    struct sigaction action {};
    action.sa_sigaction = detail::reportSegmentationFault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;  // on the thread's fault stack, where it has one
    sigemptyset(&action.sa_mask);
    if (sigaction(SIGSEGV, &action, nullptr) == -1) {
        perror("sigaction");
        exit(1);
    }

    sched_param parameter{};
    parameter.sched_priority = osPriority;
    if (sched_setscheduler(0, osPriority != 0 ? SCHED_RR : SCHED_OTHER, &parameter) == 0) {
        return;
    }
    const int error = errno;
    if (quietThreads() && error == EPERM) {
        return;
    }
    fprintf(stderr, "threadfunc::InitThread() - sched_setscheduler() reports error: %s%s\n", strerror(error),
            error == EPERM ? " # Run as ROOT to allow setting of thread priority" : "");
    fflush(stderr);
}

int threadPriority() {
    sched_param parameter{};
    if (sched_getparam(0, &parameter) != 0) {
        fprintf(stderr, "threadfunc::threadPriority() - sched_getparam() reports error: %s\n",
                strerror(errno));
        fflush(stderr);
        return -1;
    }
    return sched_get_priority_max(SCHED_RR) - parameter.sched_priority;
}

std::uint32_t threadJoin(ThreadHandle handle) {
    void* result = nullptr;
    // glibc dereferences the handle, so the one handle known to be invalid is refused up front.
    const int error = handle == 0 ? ESRCH : pthread_join(handle, &result);
    if (error != 0) {
        fprintf(stderr, "threadfunc::threadJoin() - pthread_join() reports error: %s\n", strerror(error));
        fflush(stderr);
        return 0;
    }
    return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(result));
}

void sleep(std::int32_t msec) {
    if (msec < 0) {
        return;
    }
    timespec deadline{};
    (void)clock_gettime(CLOCK_MONOTONIC, &deadline);  // cannot fail for CLOCK_MONOTONIC
    deadline.tv_sec += msec / 1000;
    deadline.tv_nsec += static_cast<long>(msec % 1000) * 1000000L;
    if (deadline.tv_nsec > 999999999L) {
        deadline.tv_nsec -= 1000000000L;
        deadline.tv_sec += 1;
    }
    int result = 0;
    int calls = 0;
    do {
        result = clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr);
        ++calls;
    } while (result == EINTR);
    if (result != 0) {
        fprintf(stderr,
                "threadfunc::sleep() - nanosleep() reports result: %i msec: %i tv_sec: %li tv_nsec: %li cnt: "
                "%i\n",
                result, msec, static_cast<long>(deadline.tv_sec), deadline.tv_nsec, calls);
        fflush(stderr);
    }
}

void setQuietThreads() {
    quietFlag.store(true);
}
void clearQuietThreads() {
    quietFlag.store(false);
}
bool quietThreads() {
    return quietFlag.load();
}

const std::string& processName() {
    static std::string name;
    static std::mutex fillLock;
    static std::atomic<bool> filled{false};
    if (!filled.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> guard(fillLock);
        if (name.empty()) {
            std::ifstream comm("/proc/self/comm");
            if (comm) {
                std::getline(comm, name);
            }
        }
        if (!name.empty()) {
            filled.store(true, std::memory_order_release);
        }
    }
    return name;
}

pid_t threadId() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

long residentMemory() {
    FILE* statm = fopen("/proc/self/statm", "r");
    if (statm == nullptr) {
        return 0;
    }
    long pages = 0;
    if (fscanf(statm, "%*s%ld", &pages) != 1) {
        pages = 0;
    }
    fclose(statm);
    return pages * sysconf(_SC_PAGESIZE);
}

long peakMemory() {
    rusage usage{};
    if (getrusage(RUSAGE_SELF, &usage) != 0) {
        return 0;
    }
    return usage.ru_maxrss * 1024;
}

// ---------------------------------------------------------------------------------------------
// mutex and semaphore

mutex::mutex() : handle_(new (std::nothrow) pthread_mutex_t) {
    if (handle_) {
        pthread_mutex_init(handle_.get(), nullptr);
    }
}

mutex::~mutex() {
    if (handle_) {
        pthread_mutex_destroy(handle_.get());
    }
}

void mutex::lock() {
    if (handle_) {
        pthread_mutex_lock(handle_.get());
    }
}

bool mutex::trylock() {
    return handle_ && pthread_mutex_trylock(handle_.get()) == 0;
}

void mutex::unlock() {
    if (handle_) {
        pthread_mutex_unlock(handle_.get());
    }
}

semaphore::semaphore(unsigned int initial) : handle_(new (std::nothrow) sem_t) {
    if (handle_ && sem_init(handle_.get(), 0, initial) != 0) {
        handle_.reset();
    }
}

semaphore::~semaphore() {
    if (handle_) {
        sem_destroy(handle_.get());
    }
}

int semaphore::wait() {
    if (!handle_) {
        return -1;
    }
    for (;;) {
        if (sem_wait(handle_.get()) == 0) {
            return 0;
        }
        if (errno != EINTR) {
            printf("sem_wait() %i\n", errno);
            fflush(stdout);
            return -1;
        }
    }
}

bool semaphore::trywait() {
    if (!handle_) {
        return false;
    }
    int result = 0;
    do {
        result = sem_trywait(handle_.get());
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

void semaphore::post() {
    if (handle_) {
        sem_post(handle_.get());
    }
}

int semaphore::getvalue() {
    int value = 0;
    if (handle_) {
        sem_getvalue(handle_.get(), &value);
    }
    return value;
}

// ---------------------------------------------------------------------------------------------
// Global recursive lock

namespace {
pthread_mutex_t globalMutex;
pthread_mutexattr_t globalMutexAttributes;
std::once_flag globalMutexInitialised;

void initialiseGlobalLock() {
    if (pthread_mutexattr_init(&globalMutexAttributes) == 0 &&
        pthread_mutexattr_settype(&globalMutexAttributes, PTHREAD_MUTEX_RECURSIVE) == 0) {
        pthread_mutex_init(&globalMutex, &globalMutexAttributes);
    }
}
}  // namespace

void globalLock() {
    std::call_once(globalMutexInitialised, initialiseGlobalLock);
    pthread_mutex_lock(&globalMutex);
}

void globalLockEnter() {
    globalLock();
}

void globalUnlock() {
    pthread_mutex_unlock(&globalMutex);
}

// ---------------------------------------------------------------------------------------------
// Timers

namespace {
constexpr std::int32_t kTimerIdleWaitMs = 200;
constexpr const char* kTimerThreadOrigin = "RTkernel/linux/src/threadfunc";
constexpr std::uint32_t kTimerThreadOriginLine = 385;

// Signed distance of two ticks that survives the 32-bit wrap.
std::int32_t tickDistance(std::int32_t from, std::int32_t to) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(to) - static_cast<std::uint32_t>(from));
}
}  // namespace

// Everything the timer thread shares with the arming threads. It is created with the first timer
// and deliberately never destroyed: the timer thread is never joined and uses it until exit.
struct TimerMachinery {
    mutex lock;
    std::list<TTimerBase*> armed;   // ascending expiry
    std::list<TTimerBase*> spare;   // nodes of earlier arms, reused so that re-arming does not allocate
    std::vector<TTimerBase*> due;   // taken from `armed`, not yet called; a destroyed timer is nulled
    TTimerBase* running = nullptr;  // timer whose expiry the thread is processing
    pthread_t thread{};             // the timer thread, once it runs
    bool threadKnown = false;
    // While the thread sleeps it wakes by itself at wakeAt at the latest; only an expiry before
    // that needs the pipe. Re-arming a long reply timer per message then costs no thread switch.
    bool sleepPlanned = false;
    std::int32_t wakeAt = 0;
    int pipeRead = -1;
    int pipeWrite = -1;

    static TimerMachinery& instance();
    void wake() const;
    void unlinkLocked(const TTimerBase* timer);
    void forgetLocked(const TTimerBase* timer);
    static std::uint32_t threadEntry(void* argument);
    void run();
};

TimerMachinery& TimerMachinery::instance() {
    static TimerMachinery* machinery = [] {
        auto* created = new TimerMachinery;
        int fds[2];
        if (pipe(fds) != 0) {
            fprintf(stderr, " Unable to initialize pipe for Thread timer\n");
            fflush(stderr);
        } else {
            created->pipeRead = fds[0];
            created->pipeWrite = fds[1];
        }
        // The handle is not kept: the timer thread runs for the life of the process. Without it
        // timers never expire, which ThreadCreate has reported already.
        (void)ThreadCreate(0, threadEntry, created, 0, kTimerThreadOrigin, kTimerThreadOriginLine);
        return created;
    }();
    return *machinery;
}

void TimerMachinery::wake() const {
    const char byte = 0;
    if (write(pipeWrite, &byte, 1) != 1) {
        fprintf(stderr, " _threadTimerWakeup unable to do a write\n");
        fflush(stderr);
    }
}

// Stopping takes a timer off the list only: an expiry the thread has already taken still fires.
void TimerMachinery::unlinkLocked(const TTimerBase* timer) {
    for (auto entry = armed.begin(); entry != armed.end();) {
        const auto next = std::next(entry);
        if (*entry == timer) {
            spare.splice(spare.begin(), armed, entry);
        }
        entry = next;
    }
}

// A timer being destroyed must not be called any more, even for an expiry already taken.
void TimerMachinery::forgetLocked(const TTimerBase* timer) {
    unlinkLocked(timer);
    std::replace(due.begin(), due.end(), const_cast<TTimerBase*>(timer), static_cast<TTimerBase*>(nullptr));
}

std::uint32_t TimerMachinery::threadEntry(void* argument) {
    static_cast<TimerMachinery*>(argument)->run();
    return 0;
}

void TimerMachinery::run() {
    lock.lock();
    thread = pthread_self();
    threadKnown = true;
    lock.unlock();
    std::int32_t waitMs = kTimerIdleWaitMs;
    for (;;) {
        timeval timeout{waitMs / 1000, static_cast<suseconds_t>((waitMs % 1000) * 1000)};
        fd_set readable;
        FD_ZERO(&readable);
        int ready = -1;
        if (pipeRead >= 0) {
            FD_SET(pipeRead, &readable);
            ready = select(pipeRead + 1, &readable, nullptr, nullptr, &timeout);
        } else {
            ready = select(0, nullptr, nullptr, nullptr, &timeout);  // no pipe: poll every 200 ms
        }
        if (ready > 0 && pipeRead >= 0 && FD_ISSET(pipeRead, &readable)) {
            char byte = 0;
            if (read(pipeRead, &byte, 1) != 1) {
                fprintf(stderr, " _threadTimerSleep unable to do a read\n");
                fflush(stderr);
            }
        }

        const std::int32_t now = tickMilliseconds();
        lock.lock();
        sleepPlanned = false;
        while (!armed.empty() && tickDistance(now, armed.front()->expiry_) <= 0) {
            due.push_back(armed.front());
            spare.splice(spare.begin(), armed, armed.begin());
        }
        for (std::size_t i = 0; i < due.size(); ++i) {
            TTimerBase* timer = due[i];
            if (timer == nullptr) {
                continue;  // destroyed after it was taken from the list
            }
            due[i] = nullptr;
            running = timer;
            lock.unlock();
            timer->onTimeout(0, 0);
            lock.lock();
            const bool periodic = timer->periodic_;
            const std::uint32_t interval = timer->interval_;
            lock.unlock();
            if (periodic) {
                timer->arm(interval);
            }
            lock.lock();
            running = nullptr;
        }
        due.clear();
        // The wait is planned from the list as the callbacks left it.
        const std::int32_t planned = tickMilliseconds();
        waitMs = armed.empty()
                     ? kTimerIdleWaitMs
                     : std::clamp(tickDistance(planned, armed.front()->expiry_), 0, kTimerIdleWaitMs);
        wakeAt = static_cast<std::int32_t>(static_cast<std::uint32_t>(planned) +
                                           static_cast<std::uint32_t>(waitMs));
        sleepPlanned = true;
        lock.unlock();
    }
}

TTimerBase::TTimerBase(std::uint32_t intervalMs) : self_(this), interval_(intervalMs) {
    (void)TimerMachinery::instance();  // the first timer starts the machinery
}

TTimerBase::~TTimerBase() {
    retire();
}

void TTimerBase::retire() {
    TimerMachinery& machinery = TimerMachinery::instance();
    machinery.lock.lock();
    self_ = nullptr;
    machinery.forgetLocked(this);
    // Wait out a callback of this timer running on the timer thread, unless we are that callback.
    const bool onTimerThread = machinery.threadKnown && pthread_equal(machinery.thread, pthread_self()) != 0;
    while (machinery.running == this && !onTimerThread) {
        machinery.lock.unlock();
        sched_yield();
        machinery.lock.lock();
    }
    machinery.lock.unlock();
}

void TTimerBase::lockTimers() {
    TimerMachinery::instance().lock.lock();
}
void TTimerBase::unlockTimers() {
    TimerMachinery::instance().lock.unlock();
}

void TTimerBase::arm(std::uint32_t intervalMs, bool late) {
    TimerMachinery& machinery = TimerMachinery::instance();
    const std::int32_t now = late ? tickMillisecondsNotBefore() : tickMilliseconds();
    machinery.lock.lock();
    if (self_ == nullptr) {
        machinery.lock.unlock();
        machinery.wake();
        return;
    }
    interval_ = intervalMs;
    expiry_ = static_cast<std::int32_t>(static_cast<std::uint32_t>(now) + intervalMs);
    // Equal expiries: the newcomer goes in front of the timers already waiting for that tick.
    auto position =
        std::find_if(machinery.armed.begin(), machinery.armed.end(),
                     [this](const TTimerBase* entry) { return tickDistance(expiry_, entry->expiry_) >= 0; });
    const bool needsWake = position == machinery.armed.begin() &&
                           !(machinery.sleepPlanned && tickDistance(machinery.wakeAt, expiry_) >= 0);
    if (machinery.spare.empty()) {
        machinery.armed.insert(position, this);
    } else {
        machinery.spare.front() = this;
        machinery.armed.splice(position, machinery.spare, machinery.spare.begin());
    }
    machinery.lock.unlock();
    if (needsWake) {
        machinery.wake();
    }
}

void TTimerBase::stop() {
    TimerMachinery& machinery = TimerMachinery::instance();
    machinery.lock.lock();
    machinery.unlinkLocked(this);
    machinery.lock.unlock();
}

void TTimerBase::startPeriodic(std::uint32_t intervalMs) {
    stop();
    lockTimers();
    periodic_ = true;
    unlockTimers();
    arm(intervalMs);
}

void TTimerBase::startOnce(std::uint32_t intervalMs) {
    stop();
    lockTimers();
    periodic_ = false;
    unlockTimers();
    // A one-shot is what a reply timer re-armed for every request is: the clock reading that needs
    // no system call on any clock source.
    arm(intervalMs, true);
}

void TTimerBase::restartPeriodic() {
    startPeriodic(getInterval());
}

void TTimerBase::restartOnce() {
    startOnce(getInterval());
}

void TTimerBase::setInterval(std::uint32_t intervalMs) {
    lockTimers();
    interval_ = intervalMs;
    unlockTimers();
}

std::uint32_t TTimerBase::getInterval() {
    lockTimers();
    const std::uint32_t interval = interval_;
    unlockTimers();
    return interval;
}

void TTimerBase::fire(std::uintptr_t word1, std::uintptr_t word2) {
    onTimeout(word1, word2);
    lockTimers();
    const bool periodic = periodic_;
    const std::uint32_t interval = interval_;
    unlockTimers();
    if (periodic) {
        arm(interval);
    }
}

}  // namespace threadfunc

void threadSleep(std::int32_t msec) {
    threadfunc::sleep(msec);
}
