#include "TempDir.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

TempDir::TempDir(const std::string& tag) {
    const char* base = std::getenv("TMPDIR");
    path_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/varnoch-" + tag + "-XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) {
        std::perror(path_.c_str());
        std::abort();  // no test can go on without its folder
    }
}

TempDir::~TempDir() {
    std::error_code ignored;  // a folder left behind in the temporary area fails no test
    std::filesystem::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& bytes) const {
    const std::string file = path(name);
    std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
    return file;
}

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
