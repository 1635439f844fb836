#include "FuzzSupport.h"

#include <fcntl.h>
#include <ftw.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace varnochfuzz {

namespace {

std::string folder;

int removeEntry(const char* path, const struct stat* /*status*/, int /*kind*/, FTW* /*walk*/) {
    (void)::remove(path);  // best effort: /tmp is cleaned up by the system anyway
    return 0;
}

void removeFolder() {
    if (!folder.empty()) {
        (void)nftw(folder.c_str(), removeEntry, 8, FTW_DEPTH | FTW_PHYS);
    }
}

}  // namespace

const std::string& scratchFolder() {
    if (folder.empty()) {
        char name[] = "/tmp/varnoch-fuzz-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        folder = name;
        (void)std::atexit(removeFolder);  // fails only when the table is full; the folder then stays
    }
    return folder;
}

void writeFile(const std::string& path, const void* bytes, std::size_t size) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) {
        std::perror(path.c_str());
        std::abort();
    }
    const auto* next = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t written = ::write(fd, next, size);
        if (written <= 0) {
            std::perror(path.c_str());
            std::abort();
        }
        next += written;
        size -= static_cast<std::size_t>(written);
    }
    if (::close(fd) != 0) {
        std::perror(path.c_str());
        std::abort();
    }
}

}  // namespace varnochfuzz
