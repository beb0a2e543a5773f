// Micro-benchmarks of what every file with attributes pays for: the stream file, the paths of companions, and the
// shortening of names. Counts of instructions, which repeat where times do not:
//     valgrind --tool=callgrind --toggle-collect='VEXOEASSearch' build/release/bench/micro
//     --benchmark_filter=SearchFirst/10
#include "ea/ea.h"
#include "ea/names/short_name.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr std::string_view kValue =
    "a value of a hundred bytes, such as photograph managers and office programs keep in "
    "an attribute, as";

std::string name_of(long number) {
    return "user.attribute" + std::to_string(number);
}

// A stream file in memory with so many attributes, open for writing.
class StreamFile {
  public:
    explicit StreamFile(long attributes)
        : m_fd(::memfd_create("stream", MFD_CLOEXEC)), m_stream(VEXOEASOpen(m_fd, F_WRLCK)) {
        for (long number = 0; number < attributes; ++number) {
            write(number);
        }
    }
    StreamFile(const StreamFile &) = delete;
    StreamFile &operator=(const StreamFile &) = delete;
    ~StreamFile() {
        VEXOEASClose(m_stream);
        ::close(m_fd);
    }
    VEXOEAS *get() const { return m_stream; }
    void write(long number) const {
        constexpr int kOverwrite = 1;
        if (VEXOEASWrite(m_stream, name_of(number).c_str(), kValue.data(), kValue.size(), 0, kOverwrite) < 0) {
            std::abort();
        }
    }

  private:
    int m_fd;
    VEXOEAS *m_stream;
};

// One of n attributes, written over: it becomes the last one, and the values behind it move. The next is again the
// first.
void BM_WriteNth(benchmark::State &state) {
    const StreamFile file(state.range(0));
    long number = 0;
    for (auto _ : state) {
        file.write(number++ % state.range(0));
    }
}
BENCHMARK(BM_WriteNth)->Arg(1)->Arg(10)->Arg(100);

// The first of n attributes, which is found last.
void BM_SearchFirst(benchmark::State &state) {
    const StreamFile file(state.range(0));
    const std::string name = name_of(0);
    for (auto _ : state) {
        if (VEXOEASSearch(file.get(), name.c_str()) != 0) {
            std::abort();
        }
    }
}
BENCHMARK(BM_SearchFirst)->Arg(1)->Arg(10)->Arg(100);

void BM_Enumerate(benchmark::State &state) {
    const StreamFile file(state.range(0));
    for (auto _ : state) {
        VLIBCSzList *list = VLIBCSzListAlloc(16);
        benchmark::DoNotOptimize(VEXOEASEnum(file.get(), &list));
        VLIBCSzListFree(list);
    }
}
BENCHMARK(BM_Enumerate)->Arg(1)->Arg(10)->Arg(100);

// The path of a companion; one statfs is part of it.
void BM_CompanionPath(benchmark::State &state) {
    std::array<char, 4096> out;
    for (auto _ : state) {
        benchmark::DoNotOptimize(VEXOEAPath(1, "/tmp/holiday.jpg", "VexoEAStream", out.data(), 4095, 0));
    }
}
BENCHMARK(BM_CompanionPath);

void BM_DirectoryPath(benchmark::State &state) {
    std::array<char, 4096> out;
    for (auto _ : state) {
        benchmark::DoNotOptimize(VEXOEADirPath(1, "/volume1/photo/2026/holiday.jpg", out.data(), 4095));
    }
}
BENCHMARK(BM_DirectoryPath);

void BM_ShortenName(benchmark::State &state) {
    const std::string name = std::string(static_cast<size_t>(state.range(0)), 'n') + ".jpg";
    for (auto _ : state) {
        std::string copy = name;
        benchmark::DoNotOptimize(vexo::shorten_base(copy, vexo::kDefaultBaseLimit));
    }
}
BENCHMARK(BM_ShortenName)->Arg(20)->Arg(251);

} // namespace
