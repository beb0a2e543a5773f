// The C++ interface beside the C calls that it makes, each pair in the same run on files of the same kind.
// Read the ratio of a pair, from interleaved repetitions:
//     build/release/bench/micro_cpp --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true
#include "copy/copy.h"
#include "cpp/attributes.hpp"
#include "cpp/copy.hpp"
#include "ea/ea.h"

#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

// A directory on tmpfs where there is one, with a file of `bytes` bytes.
class Files {
  public:
    explicit Files(std::size_t bytes) {
        if (::access("/dev/shm", W_OK) == 0) {
            m_directory = "/dev/shm/vexo-micro-XXXXXX";
        }
        if (::mkdtemp(m_directory.data()) == nullptr) {
            std::abort();
        }
        from = m_directory + "/from";
        to = m_directory + "/to";
        const int fd = ::open(from.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        const std::string content(bytes, 'x');
        if (fd < 0 || ::write(fd, content.data(), bytes) != static_cast<ssize_t>(bytes)) {
            std::abort();
        }
        ::close(fd);
    }
    Files(const Files &) = delete;
    Files &operator=(const Files &) = delete;
    ~Files() {
        (void)vexofileop::remove_store(from).has_value();
        ::unlink(from.c_str());
        ::unlink(to.c_str());
        ::rmdir(m_directory.c_str());
    }
    std::string from, to;

  private:
    std::string m_directory = "/tmp/vexo-micro-XXXXXX";
};

constexpr std::uint32_t kFailKeepOwnerCopyAcl = 1 | 8 | 32;

void BM_CopyFileC(benchmark::State &state) {
    const Files files(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        VEXOCopyArgs args{};
        args.fsTypeSrc = args.fsTypeDst = -1;
        if (VEXOFileOpCopyFile(files.from.c_str(), files.to.c_str(), kFailKeepOwnerCopyAcl, &args) != 0) {
            std::abort();
        }
        ::unlink(files.to.c_str());
    }
}
BENCHMARK(BM_CopyFileC)->Arg(4096);

void BM_CopyFileCpp(benchmark::State &state) {
    const Files files(static_cast<std::size_t>(state.range(0)));
    const std::filesystem::path from = files.from;
    const std::filesystem::path to = files.to;
    for (auto _ : state) {
        if (!vexofileop::copy_file(from, to)) {
            std::abort();
        }
        ::unlink(files.to.c_str());
    }
}
BENCHMARK(BM_CopyFileCpp)->Arg(4096);

// A thousand blocks with a callback for each: what a callback costs.
constexpr std::int64_t kSmallBlock = 4096;
constexpr std::int64_t kManyBytes = 1000 * kSmallBlock;

struct Counters {
    std::int64_t bytes = 0, asked = 0;
};

void BM_CallbacksC(benchmark::State &state) {
    const Files files(kManyBytes);
    for (auto _ : state) {
        Counters counters;
        VEXOCopyArgs args{};
        args.fsTypeSrc = args.fsTypeDst = -1;
        VEXOCopyArgsSetFnSetProgress(
            &args, [](void *data, int64_t bytes, int64_t) { static_cast<Counters *>(data)->bytes += bytes; },
            &counters);
        VEXOCopyArgsSetFnIsCancel(
            &args, [](void *data) { return ++static_cast<Counters *>(data)->asked < 0 ? 1 : 0; }, &counters);
        VEXOCopyArgsSetFnGetReadSize(
            &args, [](void *, int64_t, int64_t) -> int64_t { return kSmallBlock; }, &counters);
        if (VEXOFileOpCopyFile(files.from.c_str(), files.to.c_str(), kFailKeepOwnerCopyAcl, &args) != 0 ||
            counters.bytes != kManyBytes) {
            std::abort();
        }
        ::unlink(files.to.c_str());
    }
}
BENCHMARK(BM_CallbacksC);

void BM_CallbacksCpp(benchmark::State &state) {
    const Files files(kManyBytes);
    const std::filesystem::path from = files.from;
    const std::filesystem::path to = files.to;
    for (auto _ : state) {
        Counters counters;
        const auto options = vexofileop::CopyOptions()
                                 .progress([&](const vexofileop::Progress &now) { counters.bytes += now.bytes; })
                                 .cancel([&] { return ++counters.asked < 0; })
                                 .read_size([](std::int64_t, std::int64_t) { return kSmallBlock; });
        if (!vexofileop::copy_file(from, to, options) || counters.bytes != kManyBytes) {
            std::abort();
        }
        ::unlink(files.to.c_str());
    }
}
BENCHMARK(BM_CallbacksCpp);

// One attribute out of an open stream, of unknown size.
void BM_GetC(benchmark::State &state) {
    const Files files(1);
    auto stream =
        vexofileop::Stream::open(files.from, vexofileop::Access::create, vexofileop::StoreKind::file_ea).value();
    stream.set("user.attribute", std::string(100, 'v')).value();
    for (auto _ : state) {
        char none = 0;
        const int size = VEXOEASRead(stream.handle(), "user.attribute", &none, 0, 0);
        std::string value(static_cast<std::size_t>(size), '\0');
        if (VEXOEASRead(stream.handle(), "user.attribute", value.data(), static_cast<std::uint32_t>(size), 0) != size) {
            std::abort();
        }
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_GetC);

void BM_GetCpp(benchmark::State &state) {
    const Files files(1);
    auto stream =
        vexofileop::Stream::open(files.from, vexofileop::Access::create, vexofileop::StoreKind::file_ea).value();
    stream.set("user.attribute", std::string(100, 'v')).value();
    for (auto _ : state) {
        benchmark::DoNotOptimize(stream.get("user.attribute").value());
    }
}
BENCHMARK(BM_GetCpp);

// All names of an open stream: as a list of copies, and by the iterator.
void BM_NamesC(benchmark::State &state) {
    const Files files(1);
    auto stream =
        vexofileop::Stream::open(files.from, vexofileop::Access::create, vexofileop::StoreKind::file_ea).value();
    for (int number = 0; number < 10; ++number) {
        stream.set("user.attribute" + std::to_string(number), "value").value();
    }
    for (auto _ : state) {
        VLIBCSzList *list = VLIBCSzListAlloc(16);
        benchmark::DoNotOptimize(VEXOEASEnum(stream.handle(), &list));
        VLIBCSzListFree(list);
    }
}
BENCHMARK(BM_NamesC);

void BM_NamesCpp(benchmark::State &state) {
    const Files files(1);
    auto stream =
        vexofileop::Stream::open(files.from, vexofileop::Access::create, vexofileop::StoreKind::file_ea).value();
    for (int number = 0; number < 10; ++number) {
        stream.set("user.attribute" + std::to_string(number), "value").value();
    }
    for (auto _ : state) {
        for (const vexofileop::Attribute attribute : stream) {
            benchmark::DoNotOptimize(attribute.name.size());
        }
    }
}
BENCHMARK(BM_NamesCpp);

} // namespace
