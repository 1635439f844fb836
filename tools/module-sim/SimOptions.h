// The command line of varnoch-module-sim: options into settings, and the usage text.
#pragma once

#include <string>

#include "ModuleRunner.h"
#include "ModuleSimulator.h"

namespace modulesim {

struct SimSettings {
    std::string interfaceName;
    ModuleConfig module;
    RunnerOptions runner;
};

enum class ParseOutcome { Run, Help, Error };

// Reads the arguments after the program name; Error with a one-line `error` for an unknown option, a
// missing or invalid value, or no --interface.
ParseOutcome parseSimArguments(int argc, const char* const argv[], SimSettings& settings, std::string& error);

// The text --help prints.
const char* simUsage();

// Names of the modes in `modes` (modeBit() set), as "iso,mtcan,new,global".
std::string modeList(std::uint8_t modes);

}  // namespace modulesim
