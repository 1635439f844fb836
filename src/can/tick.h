// Process-wide monotonic millisecond tick: the one clock that timers, the socket server and the
// flasher measure time-outs on. It counts from the first use (or startTick) and wraps after ~24.8 days;
// compare ticks by subtraction.
#pragma once

#include <cstdint>

// Takes the origin if nobody has yet; returns clock_gettime's result of a second reading (0 = success).
int startTick();

// Milliseconds since the origin, 32-bit signed (taking the origin first if needed).
std::int32_t tickMilliseconds();
