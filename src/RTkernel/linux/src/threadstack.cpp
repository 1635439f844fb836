#include "threadstack.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

namespace threadfunc {
namespace detail {

namespace {

// Ample for the handler's frame and the kernel's signal frame (about 3.4 KB with AVX-512 state), and
// for a sanitizer's handler in front of ours.
constexpr std::size_t kFaultStackSize = 16384;

// Appends to a fixed buffer, dropping what does not fit.
class Appender {
  public:
    Appender(char* out, std::size_t capacity) : out_(out), capacity_(capacity) {}
    Appender& text(const char* text) {
        while (*text != '\0') {
            put(*text++);
        }
        return *this;
    }
    Appender& number(unsigned long value, unsigned base) {
        char digits[24];
        std::size_t count = 0;
        do {
            digits[count++] = "0123456789abcdef"[value % base];
            value /= base;
        } while (value != 0);
        while (count > 0) {
            put(digits[--count]);
        }
        return *this;
    }
    Appender& decimal(long value) {
        if (value < 0) {
            put('-');
            return number(0UL - static_cast<unsigned long>(value), 10);
        }
        return number(static_cast<unsigned long>(value), 10);
    }
    // As glibc's printf prints %p.
    Appender& pointer(const void* address) {
        if (address == nullptr) {
            return text("(nil)");
        }
        return text("0x").number(reinterpret_cast<std::uintptr_t>(address), 16);
    }
    std::size_t length() const { return length_; }

  private:
    void put(char c) {
        if (length_ < capacity_) {
            out_[length_++] = c;
        }
    }
    char* out_;
    std::size_t capacity_;
    std::size_t length_ = 0;
};

// ---------------------------------------------------------------------------------------------
// Stack high-water marks

constexpr unsigned char kPaint = 0xA5;
// Left unpainted below the painting frame: memset's own frame and the red zone live there.
constexpr std::size_t kPaintMargin = 1024;
constexpr int kWatermarkSlots = 64;

struct Watermark {
    bool used = false;
    const unsigned char* low = nullptr;
    std::size_t size = 0;
    const char* origin = nullptr;
    std::uint32_t line = 0;
};

std::mutex watermarkLock;
Watermark watermarks[kWatermarkSlots];

bool watermarksWanted() {
    static const bool wanted = std::getenv("VARNOCH_STACK_REPORT") != nullptr;
    return wanted;
}

void reportWatermark(const Watermark& mark) {
    std::size_t headroom = 0;
    while (headroom < mark.size && mark.low[headroom] == kPaint) {
        ++headroom;
    }
    std::fprintf(stderr, "threadfunc: stack headroom %s line %u: %zu of %zu bytes\n",
                 mark.origin != nullptr ? mark.origin : "?", mark.line, headroom, mark.size);
    std::fflush(stderr);
}

// Threads still running at exit (the CAN reception thread never ends) are measured then.
void reportRunningThreads() {
    const std::lock_guard<std::mutex> guard(watermarkLock);
    for (Watermark& mark : watermarks) {
        if (mark.used) {
            reportWatermark(mark);
            mark.used = false;
        }
    }
}

}  // namespace

std::size_t formatFaultReport(char* out, std::size_t capacity, long pid, long tid, const void* address) {
    Appender report(out, capacity);
    report.text("Process: ")
        .decimal(pid)
        .text(", thread: ")
        .decimal(tid)
        .text(", reports segmentation fault\n");
    report.text("Thread: signal address ").pointer(address).text("\n");
    return report.length();
}

void reportSegmentationFault(int signalNumber, siginfo_t* info, void* /*context*/) {
    if (signalNumber != SIGSEGV) {
        return;
    }
    char report[160];
    const std::size_t length =
        formatFaultReport(report, sizeof report, static_cast<long>(getpid()),
                          static_cast<long>(syscall(SYS_gettid)), info != nullptr ? info->si_addr : nullptr);
    for (std::size_t written = 0; written < length;) {
        const ssize_t result = write(STDERR_FILENO, report + written, length - written);
        if (result < 0 && errno == EINTR) {
            continue;
        }
        if (result <= 0) {
            break;  // nowhere left to report to; the exit status still tells
        }
        written += static_cast<std::size_t>(result);
    }
    // exit() would run destructors and flush stdio, neither safe in a signal handler nor sensible
    // in a process whose memory may be corrupt.
    _exit(1);
}

FaultStack::FaultStack() : memory_(new (std::nothrow) char[kFaultStackSize]) {
    if (!memory_) {
        return;  // the report then runs on the thread's own stack, as far as that goes
    }
    stack_t stack{};
    stack.ss_sp = memory_.get();
    stack.ss_size = kFaultStackSize;
    if (sigaltstack(&stack, nullptr) != 0) {
        memory_.reset();  // cannot fail for a valid size on a thread not running on it
    }
}

FaultStack::~FaultStack() {
    if (memory_) {
        stack_t disable{};
        disable.ss_flags = SS_DISABLE;
        (void)sigaltstack(&disable, nullptr);  // cannot fail: the thread is not running on it
    }
}

StackWatermark::StackWatermark(const char* origin, std::uint32_t line) {
    if (!watermarksWanted()) {
        return;
    }
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) {
        return;
    }
    void* low = nullptr;
    std::size_t size = 0;
    const int found = pthread_attr_getstack(&attributes, &low, &size);
    (void)pthread_attr_destroy(&attributes);
    auto* const bottom = static_cast<unsigned char*>(low);
    auto* const here = static_cast<unsigned char*>(__builtin_frame_address(0));
    if (found != 0 || here < bottom + kPaintMargin || here > bottom + size) {
        return;
    }
    std::memset(bottom, kPaint, static_cast<std::size_t>(here - bottom) - kPaintMargin);
    static const int registered = std::atexit(reportRunningThreads);
    (void)registered;  // without it, only threads that end are reported
    const std::lock_guard<std::mutex> guard(watermarkLock);
    for (int i = 0; i < kWatermarkSlots; ++i) {
        if (!watermarks[i].used) {
            watermarks[i] = Watermark{true, bottom, size, origin, line};
            slot_ = i;
            return;
        }
    }
}

StackWatermark::~StackWatermark() {
    if (slot_ < 0) {
        return;
    }
    const std::lock_guard<std::mutex> guard(watermarkLock);
    if (watermarks[slot_].used) {
        reportWatermark(watermarks[slot_]);
        watermarks[slot_].used = false;
    }
}

}  // namespace detail
}  // namespace threadfunc
