// varnoch-bench-hexload: the hex loader against objcopy on the same firmware-like images. The loader
// runs in-process as startUpload runs it; objcopy converts the file to a binary in a child process.
// Both are timed in wall-clock time, and by processor time. The reading, parsing and message-building stages
// are timed on their own as well, to show where the loader's time goes.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "HexImage.h"
#include "HexLoader.h"
#include "fileio.h"

extern char** environ;

namespace {

constexpr std::int64_t kSmallKiB = 64;
constexpr std::int64_t kLargeKiB = 4096;

// One scratch folder per run, holding one image per size; removed at exit.
class Images {
  public:
    ~Images() {
        for (const auto& entry : paths_) {
            (void)std::remove(entry.second.c_str());  // scratch files: a leftover harms nobody
        }
        if (!folder_.empty()) {
            (void)std::remove((folder_ + "/image.bin").c_str());
            (void)rmdir(folder_.c_str());
        }
    }

    // Path of the image of `kib` KiB, written on first use; empty when it cannot be written.
    const std::string& pathFor(std::int64_t kib) {
        auto found = paths_.find(kib);
        if (found != paths_.end()) {
            return found->second;
        }
        std::string path;
        if (makeFolder()) {
            path = folder_ + "/image-" + std::to_string(kib) + "k.hex";
            if (!varnochbench::writeHexImage(path, static_cast<std::uint32_t>(kib * 1024))) {
                path.clear();
            }
        }
        return paths_.emplace(kib, path).first->second;
    }

    std::string binaryPath() const { return folder_ + "/image.bin"; }

  private:
    bool makeFolder() {
        if (folder_.empty()) {
            const char* base = std::getenv("TMPDIR");
            std::string pattern =
                std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/varnoch-bench-XXXXXX";
            std::vector<char> name(pattern.begin(), pattern.end());
            name.push_back('\0');
            if (mkdtemp(name.data()) == nullptr) {
                return false;
            }
            folder_ = name.data();
        }
        return true;
    }

    std::string folder_;
    std::map<std::int64_t, std::string> paths_;
};

Images images;

const std::string* imageOrSkip(benchmark::State& state) {
    const std::string& path = images.pathFor(state.range(0));
    if (path.empty()) {
        state.SkipWithError("cannot write the hex image");
        return nullptr;
    }
    return &path;
}

void setBytes(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0) * 1024);
}

// The whole load as startUpload runs it: the state is checked before every line.
void BM_LoadHexMessages(benchmark::State& state) {
    const std::string* path = imageOrSkip(state);
    if (path == nullptr) {
        return;
    }
    const std::function<bool()> keepReading = [] { return true; };
    for (auto _ : state) {
        // A fresh list each time, as the daemon's first job has: its growth is part of the load.
        auto messages = std::make_unique<CANFlasher::UploadMessages>();
        if (CANFlasher::loadHexMessages(*path, *messages, keepReading) != CANFlasher::HexLoadResult::Loaded) {
            state.SkipWithError("the image did not load");
            return;
        }
        state.PauseTiming();
        messages.reset();
        state.ResumeTiming();
    }
    setBytes(state);
}

// Runs objcopy once on the image; false when it could not be run or failed. `cpuSeconds` gets the
// child's user and system time.
bool runObjcopy(const std::string& input, const std::string& output, double& cpuSeconds) {
    std::vector<std::string> words = {"objcopy", "-I", "ihex", "-O", "binary", input, output};
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) {
        argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    pid_t child = 0;
    if (posix_spawnp(&child, "objcopy", nullptr, nullptr, argv.data(), environ) != 0) {
        return false;
    }
    int status = 0;
    rusage usage{};
    if (wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return false;
    }
    const auto seconds = [](const timeval& t) {
        return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
    };
    cpuSeconds = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    return true;
}

// objcopy converting the same file to a binary image: process start, parse, write. Wall-clock time.
void BM_Objcopy(benchmark::State& state) {
    const std::string* path = imageOrSkip(state);
    if (path == nullptr) {
        return;
    }
    double cpuSeconds = 0;
    for (auto _ : state) {
        if (!runObjcopy(*path, images.binaryPath(), cpuSeconds)) {
            state.SkipWithError("objcopy could not be run or failed");
            return;
        }
    }
    setBytes(state);
}

// The same, timed by the child's processor time (user + system), which other load on the machine
// disturbs less than wall-clock time; compare it with the loader's CPU time.
void BM_ObjcopyCpu(benchmark::State& state) {
    const std::string* path = imageOrSkip(state);
    if (path == nullptr) {
        return;
    }
    double cpuSeconds = 0;
    for (auto _ : state) {
        if (!runObjcopy(*path, images.binaryPath(), cpuSeconds)) {
            state.SkipWithError("objcopy could not be run or failed");
            return;
        }
        state.SetIterationTime(cpuSeconds);
    }
    setBytes(state);
}

// Stage 1 alone: the file's lines through the file layer's line reader.
void BM_ReadLines(benchmark::State& state) {
    const std::string* path = imageOrSkip(state);
    if (path == nullptr) {
        return;
    }
    std::string line;
    for (auto _ : state) {
        fileio::LineReader reader(*path, CANFlasher::kMaxHexLineLength);
        std::size_t lines = 0;
        while (!reader.atEnd()) {
            (void)reader.next(line);  // cannot fail before the end
            ++lines;
        }
        benchmark::DoNotOptimize(lines);
    }
    setBytes(state);
}

// Stages 1 and 2: reading and parsing every record, no messages built.
void BM_ReadAndParse(benchmark::State& state) {
    const std::string* path = imageOrSkip(state);
    if (path == nullptr) {
        return;
    }
    std::string line;
    std::vector<std::uint8_t> data;
    for (auto _ : state) {
        fileio::LineReader reader(*path, CANFlasher::kMaxHexLineLength);
        std::uint32_t address = 0;
        std::uint32_t type = 0;
        while (!reader.atEnd()) {
            (void)reader.next(line);  // cannot fail before the end
            if (!CANFlasher::parseHexLine(line, address, type, data)) {
                state.SkipWithError("a record did not parse");
                return;
            }
        }
        benchmark::DoNotOptimize(data.data());
    }
    setBytes(state);
}

}  // namespace

BENCHMARK(BM_LoadHexMessages)->Arg(kSmallKiB)->Arg(kLargeKiB)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Objcopy)->Arg(kSmallKiB)->Arg(kLargeKiB)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ObjcopyCpu)->Arg(kLargeKiB)->Unit(benchmark::kMillisecond)->UseManualTime();
BENCHMARK(BM_ReadLines)->Arg(kLargeKiB)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadAndParse)->Arg(kLargeKiB)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
