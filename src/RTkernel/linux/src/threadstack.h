// Inside the thread layer: what every created thread carries on top of its 16 KiB stack. A stack of its
// own for the segmentation-fault report, and on request a high-water mark of the thread's stack.
#pragma once

#include <signal.h>

#include <cstddef>
#include <cstdint>
#include <memory>

namespace threadfunc {
namespace detail {

// The report a segmentation fault prints, built without stdio or the heap so that it is safe in a
// signal handler: "Process: <pid>, thread: <tid>, reports segmentation fault" and "Thread: signal
// address <address as printf's %p>", each with a line end. Returns the text's length.
std::size_t formatFaultReport(char* out, std::size_t capacity, long pid, long tid, const void* address);

// The SIGSEGV handler: writes the report to standard error and ends the process with status 1.
void reportSegmentationFault(int signalNumber, siginfo_t* info, void* context);

// The calling thread's alternate signal stack, for as long as the object lives. A thread that faults
// because its stack ran out has no room left for the handler, so the report runs here.
class FaultStack {
  public:
    FaultStack();
    ~FaultStack();
    FaultStack(const FaultStack&) = delete;
    FaultStack& operator=(const FaultStack&) = delete;

  private:
    std::unique_ptr<char[]> memory_;
};

// With VARNOCH_STACK_REPORT set in the environment, paints the calling thread's unused stack; when
// the object goes (or at exit, for threads still running then) prints the deepest use on standard
// error as "threadfunc: stack headroom <origin> line <n>: <free> of <size> bytes". Does nothing
// otherwise.
class StackWatermark {
  public:
    StackWatermark(const char* origin, std::uint32_t line);
    ~StackWatermark();
    StackWatermark(const StackWatermark&) = delete;
    StackWatermark& operator=(const StackWatermark&) = delete;

  private:
    int slot_ = -1;
};

}  // namespace detail
}  // namespace threadfunc
