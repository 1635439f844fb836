// The process-wide find-first/find-next listing and its DOS-style file records.
#include <glob.h>
#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <mutex>
#include <vector>

#include "fileio.h"

namespace fileio {

namespace {

constexpr mode_t kDirectoryBit = 0x4000;
constexpr mode_t kRegularBit = 0x8000;

struct Listing {
    std::mutex lock;
    std::vector<std::string> paths;
    std::size_t position = 0;
};

Listing& listing() {
    static Listing shared;
    return shared;
}

struct GlobResult {
    glob_t result{};
    ~GlobResult() { globfree(&result); }
};

// Fills the record for one path; a path that cannot be queried leaves the record as it was.
void describe(const std::string& path, TFileInfo& info) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        return;
    }
    std::tm local{};
    if (::localtime_r(&status.st_mtime, &local) != nullptr) {
        info.time = static_cast<std::uint32_t>(local.tm_hour * 10000 + local.tm_min * 100 + local.tm_sec);
        info.date = static_cast<std::uint32_t>((local.tm_year + 1900) * 10000 + (local.tm_mon + 1) * 100 +
                                               local.tm_mday);
    }
    info.size = static_cast<std::uint32_t>(status.st_size);
    // Plain bit tests: block devices and sockets carry the directory bit and report as directories.
    info.attrib = 0;
    if ((status.st_mode & kDirectoryBit) != 0) {
        info.attrib = kAttribDirectory;
    } else if ((status.st_mode & kRegularBit) == 0) {
        info.attrib = kAttribSystem;
    }
    if ((status.st_mode & S_IWUSR) == 0) {
        info.attrib |= kAttribReadOnly;
    }
    const std::size_t slash = path.rfind('/');
    info.name = slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

bool findFirst(const std::string& pattern, TFileInfo& info) {
    Listing& shared = listing();
    const std::lock_guard<std::mutex> guard(shared.lock);
    shared.paths.clear();
    shared.position = 0;
    GlobResult found;
    if (::glob(normalizePath(pattern).c_str(), 0, nullptr, &found.result) != 0) {
        return false;
    }
    for (std::size_t i = 0; i < found.result.gl_pathc; ++i) {
        shared.paths.emplace_back(found.result.gl_pathv[i]);
    }
    if (shared.paths.empty()) {
        return false;
    }
    describe(shared.paths.front(), info);
    return true;
}

bool findNext(TFileInfo& info) {
    Listing& shared = listing();
    const std::lock_guard<std::mutex> guard(shared.lock);
    if (shared.position + 1 >= shared.paths.size()) {
        shared.paths.clear();
        shared.position = 0;
        return false;
    }
    ++shared.position;
    describe(shared.paths[shared.position], info);
    return true;
}

std::string formatFileInfo(const TFileInfo& info) {
    char numbers[96];
    std::snprintf(numbers, sizeof numbers, "attrib: 0x%2x; time: %6u; date: %6u; size: %10u; '",
                  static_cast<unsigned>(info.attrib), static_cast<unsigned>(info.time),
                  static_cast<unsigned>(info.date), static_cast<unsigned>(info.size));
    return numbers + info.name + "'";
}

}  // namespace fileio
