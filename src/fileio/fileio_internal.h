// Constants shared by the file access layer's sources.
#pragma once

#include <sys/types.h>

#include <cstddef>

namespace fileio::detail {

/// Buffer size for current-directory queries.
constexpr std::size_t kPathBufferSize = 4096;
/// Permission of directories the layer creates.
constexpr mode_t kDirectoryMode = 0755;
/// Permission of files the layer creates.
constexpr mode_t kFileMode = 0775;
/// Line-end bytes.
constexpr int kCarriageReturn = 13;
constexpr int kLineFeed = 10;

inline bool isLineEnd(int byte) {
    return byte == kCarriageReturn || byte == kLineFeed;
}

}  // namespace fileio::detail
