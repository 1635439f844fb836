// Firmware-like Intel-HEX files for the benchmarks: deterministic pseudo-random data in 16-byte data
// records with an extended linear address record every 64 KiB, as common toolchains write them.
#pragma once

#include <cstdint>
#include <string>

namespace varnochbench {

/// Data bytes per record, the usual choice of compilers and objcopy.
constexpr std::uint32_t kHexRecordBytes = 16;

/// Writes an image of `bytes` data bytes from address 0 (LF line ends, end-of-file record last);
/// false when the file could not be written completely.
bool writeHexImage(const std::string& path, std::uint32_t bytes);

}  // namespace varnochbench
