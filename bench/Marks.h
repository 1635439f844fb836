// Marks for a watcher outside a virtual machine: a benchmark appends one line to a shared file when a
// timed stretch begins and ends, so that the host can read the guest's processor time at those moments.
#pragma once

#include <string>

namespace varnochbench {

/// Appends "<what> <label>\n" to `path` in one write; nothing when `path` is empty. False when the
/// line could not be written (the benchmark goes on: the marks only add a second figure).
bool appendMark(const std::string& path, const char* what, const std::string& label);

}  // namespace varnochbench
