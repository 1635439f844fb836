// varnoch-bench-mkhex: writes the benchmarks' firmware-like Intel-HEX image of a given size.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "HexImage.h"

namespace {

constexpr unsigned long kMaxKiB = 64UL * 1024;  // every address a 16-bit page number reaches

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 3 || std::strcmp(argv[1], "--help") == 0) {
        std::fprintf(stderr,
                     "Usage: varnoch-bench-mkhex KIB FILE\n"
                     "Writes KIB KiB of deterministic pseudo-random data from address 0 to FILE as\n"
                     "Intel HEX: 16-byte data records, an extended linear address record every 64 KiB.\n");
        return 2;
    }
    char* end = nullptr;
    const unsigned long kib = std::strtoul(argv[1], &end, 10);
    if (*argv[1] == '\0' || *end != '\0' || kib == 0 || kib > kMaxKiB) {
        std::fprintf(stderr, "varnoch-bench-mkhex: size must be 1..%lu KiB, not '%s'\n", kMaxKiB, argv[1]);
        return 2;
    }
    if (!varnochbench::writeHexImage(argv[2], static_cast<std::uint32_t>(kib * 1024))) {
        std::fprintf(stderr, "varnoch-bench-mkhex: cannot write %s\n", argv[2]);
        return 1;
    }
    return 0;
}
