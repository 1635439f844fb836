// Runs a simulated module on a bus: receives frames, answers them through the ModuleSimulator (late
// when a delay is set), saves the image when an upload ends, and adds unrelated traffic on request.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

#include "FrameTransport.h"
#include "ModuleSimulator.h"

namespace modulesim {

struct RunnerOptions {
    std::string imagePath = "module-image.bin";
    bool once = false;              // return after the first upload that ended and was finished
    bool verbose = false;           // one line per frame handled, per reply and per traffic frame
    std::uint32_t trafficRate = 0;  // unrelated frames per second; 0 = none
    std::uint32_t bitrate = 0;      // bus speed whose timing the replies keep, bit/s; 0 = answer at once
    std::FILE* out = stdout;        // progress lines
    std::FILE* err = stderr;        // failures
};

enum class RunOutcome { Stopped, UploadFinished, TransportFailed };

// Nominal time on a bus of `bitrate` bit/s of a request and its reply, stuff bits left out.
std::chrono::nanoseconds busTime(const CanFrame& request, const CanFrame& reply, std::uint32_t bitrate);

// Serves the bus until `stop` becomes true (looked at least every 100 ms), the transport fails, or with
// `once` an upload has finished. Nothing is allocated per frame.
RunOutcome runModule(ModuleSimulator& module, FrameTransport& transport, const RunnerOptions& options,
                     const std::atomic<bool>& stop);

// The `sequence`-th frame of the unrelated traffic: a few engine and vehicle messages that no
// module of the flashing dialogue answers, standard and extended, with a rolling counter in byte 0.
CanFrame trafficFrame(std::uint32_t sequence);

// "%08X ext|std <length>: %02X ..." for verbose lines; 48 characters hold any frame.
void formatFrame(const CanFrame& frame, char* text, std::size_t size);

}  // namespace modulesim
