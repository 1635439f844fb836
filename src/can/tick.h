// Process-wide monotonic millisecond tick: the one clock that timers, the socket server and the
// flasher measure time-outs on. It counts from the first use (or startTick) and wraps after ~24.8 days;
// compare ticks by subtraction.
#pragma once

#include <cstdint>

// Takes the origin if nobody has yet; returns clock_gettime's result of a second reading (0 = success).
int startTick();

// Milliseconds since the origin, 32-bit signed (taking the origin first if needed).
std::int32_t tickMilliseconds();

// A tick at most one coarse clock period (a kernel tick, 1 to 10 ms) and a millisecond ahead of
// tickMilliseconds(), read from the kernel's coarse clock: unlike the precise clock it never needs a
// system call, even where the hardware clock cannot be read from user space. For deadlines that may
// come a little late, set at a high rate. It is behind the precise clock only while the kernel's own
// tick is overdue (a virtual CPU held up by its host), and by no more than that delay.
std::int32_t tickMillisecondsNotBefore();
