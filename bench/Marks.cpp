#include "Marks.h"

#include <fcntl.h>
#include <unistd.h>

namespace varnochbench {

bool appendMark(const std::string& path, const char* what, const std::string& label) {
    if (path.empty()) {
        return true;
    }
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    // One write, so that a watcher reading the file never sees half a line.
    const std::string line = std::string(what) + " " + label + "\n";
    const bool written = write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
    return close(fd) == 0 && written;
}

}  // namespace varnochbench
