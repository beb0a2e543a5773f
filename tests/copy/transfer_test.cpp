// Copying between descriptors: both front doors of the one loop, and the function that writes everything.
#include "copy/copy.h"

#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <ostream>
#include <string>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/vfs.h>
#include <syslog.h>
#include <tuple>
#include <unistd.h>
#include <vector>

namespace {

constexpr int64_t kKiB = 1024;
constexpr int64_t kMiB = 1024 * kKiB;
constexpr int64_t kBlock = 8 * kMiB;

// What the callbacks of a copy were called with, in order, and what they answer.
struct Watch {
    std::vector<std::string> events;
    std::function<int64_t(int64_t last, int64_t offset)> readSize = {};
    std::function<int(int poll)> cancel = {};
    int polls = 0;

    void progressed(int64_t bytes, int64_t offset) {
        events.push_back("progress " + std::to_string(bytes) + " " + std::to_string(offset));
    }
    int isCancelled() {
        events.emplace_back("cancel?");
        return cancel ? cancel(polls++) : 0;
    }
    int64_t nextSize(int64_t last, int64_t offset) {
        events.push_back("size? " + std::to_string(last) + " " + std::to_string(offset));
        return readSize(last, offset);
    }
    std::vector<std::string> progress() const {
        std::vector<std::string> lines;
        for (const std::string &event : events) {
            if (event.rfind("progress ", 0) == 0) {
                lines.push_back(event.substr(9));
            }
        }
        return lines;
    }
};

Watch *watched = nullptr; // for the bare callbacks

enum class Door { copyEngine, fileOperations };

const char *nameOf(Door door) {
    return door == Door::copyEngine ? "CopyEngine" : "FileOperations";
}
void PrintTo(Door door, std::ostream *out) { // for the test's listing
    *out << nameOf(door);
}

int copyWith(Door door, int srcFd, int dstFd, int64_t size, Watch *watch) {
    if (door == Door::copyEngine) {
        watched = watch;
        VEXOCopyArgsEx ex = {};
        if (watch->readSize) {
            ex.getReadSize = [](int64_t last, int64_t offset) { return watched->nextSize(last, offset); };
        }
        return VEXOCopyFileFdEx(
            srcFd, dstFd, size, [](int64_t bytes, int64_t offset) { watched->progressed(bytes, offset); },
            [] { return watched->isCancelled(); }, &ex);
    }
    VEXOCopyArgs args = {};
    args.progress = [](void *data, int64_t bytes, int64_t offset) {
        static_cast<Watch *>(data)->progressed(bytes, offset);
    };
    args.isCancel = [](void *data) { return static_cast<Watch *>(data)->isCancelled(); };
    if (watch->readSize) {
        args.getReadSize = [](void *data, int64_t last, int64_t offset) {
            return static_cast<Watch *>(data)->nextSize(last, offset);
        };
    }
    args.progressArg = args.isCancelArg = args.getReadSizeArg = watch;
    return VEXOFileOpCopyFileFd(srcFd, dstFd, size, &args);
}

// A descriptor of a test's own.
class Open {
  public:
    explicit Open(int fd) : m_fd(fd) {}
    Open(const std::string &path, int flags) : m_fd(::open(path.c_str(), flags | O_CLOEXEC, 0644)) {}
    Open(const Open &) = delete;
    Open &operator=(const Open &) = delete;
    ~Open() { close(); }
    operator int() const { return m_fd; } // NOLINT(google-explicit-constructor): stands for the number
    void close() {
        if (m_fd >= 0) {
            ::close(m_fd);
            m_fd = -1;
        }
    }

  private:
    int m_fd;
};

// How the bytes of a block go: moved by the kernel, or read and written where it refuses to.
enum class Way { inKernel, readAndWritten };

void PrintTo(Way way, std::ostream *out) {
    *out << (way == Way::inKernel ? "in the kernel" : "read and written");
}

// Whether the kernel may move blocks there. Elsewhere (an overlay, say) all of them are read and written.
bool isOnOwnVolume(const std::string &directory) {
    struct statfs volume = {};
    constexpr std::array<uint32_t, 4> kOwn = {0xEF53, 0x58465342, 0x9123683E, 0x01021994}; // ext4, XFS, btrfs, tmpfs
    return ::statfs(directory.c_str(), &volume) == 0 &&
           std::find(kOwn.begin(), kOwn.end(), static_cast<uint32_t>(volume.f_type)) != kOwn.end();
}

void refuseKernel(Way way) {
    if (way == Way::readAndWritten) {
        kit::Faults::failAlways("sendfile", EINVAL);
    }
}

class Transfer : public kit::Behaviour, public testing::WithParamInterface<std::tuple<Door, Way>> {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        if (way() == Way::inKernel && !isOnOwnVolume(scratch.path())) {
            GTEST_SKIP() << "the kernel moves nothing on the volume of TMPDIR";
        }
        refuseKernel(way());
    }

    // Counts calls from here on, without those that made the files.
    void countFromHere() const {
        kit::Faults::reset();
        refuseKernel(way());
        kit::Faults::record(true);
    }
    Door door() const { return std::get<0>(GetParam()); }
    Way way() const { return std::get<1>(GetParam()); }
    std::string source() const { return scratch / "source"; }
    std::string destination() const { return scratch / "destination"; }
    const char *sourceName() const {
        return door() == Door::copyEngine ? "copy/copy_file_copy_fd.c" : "copy/fileop_copy_file_fd.c";
    }

    int copy(int srcFd, int dstFd, int64_t size) { return copyWith(door(), srcFd, dstFd, size, &watch); }
    // From `source()` to `destination()`, which is made when it is missing and never cut.
    int copy(int64_t size) {
        const Open from(source(), O_RDONLY);
        const Open to(destination(), O_WRONLY | O_CREAT);
        return copy(from, to, size);
    }
    // Failed, with this code from this front door, and without a log line.
    void expectFailed(int result, uint32_t code) {
        EXPECT_FAILS(result, code);
        EXPECT_STREQ(sourceName(), VLIBCErrorGetFile());
        EXPECT_NE(0u, VLIBCErrorGetLine());
        EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
    }
    // The same, after one line.
    void expectFailedWithLine(int result, const std::string &line) {
        EXPECT_FAILS(result, 0x8000);
        EXPECT_STREQ(sourceName(), VLIBCErrorGetFile());
        ASSERT_EQ(1u, kit::Log::lines().size()) << kit::Log::all();
        EXPECT_EQ(LOG_ERR, kit::Log::lines()[0].priority);
        EXPECT_EQ(sourceName(), kit::Log::lines()[0].source);
        EXPECT_EQ(line, kit::Log::lines()[0].body);
    }

    Watch watch;
};

INSTANTIATE_TEST_SUITE_P(, Transfer,
                         testing::Combine(testing::Values(Door::copyEngine, Door::fileOperations),
                                          testing::Values(Way::inKernel, Way::readAndWritten)),
                         [](const auto &one) {
                             return std::string(nameOf(std::get<0>(one.param))) +
                                    (std::get<1>(one.param) == Way::inKernel ? "InKernel" : "ReadAndWritten");
                         });

using Lines = std::vector<std::string>;

// ---- Dense sources

TEST_P(Transfer, DenseFileArrivesAsItIs) {
    const std::string content = kit::pattern(100001);
    kit::writeFile(source(), content);
    EXPECT_EQ(0, copy(100001));
    EXPECT_EQ(content, kit::readFile(destination()));
    EXPECT_EQ((Lines{"cancel?", "progress 100001 100001"}), watch.events);
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_P(Transfer, BlocksHaveEightMebibytes) {
    const std::string content = kit::pattern(2 * kBlock + 1);
    kit::writeFile(source(), content);
    EXPECT_EQ(0, copy(2 * kBlock + 1));
    EXPECT_EQ(content, kit::readFile(destination()));
    EXPECT_EQ((Lines{"8388608 8388608", "8388608 16777216", "1 16777217"}), watch.progress());
}

TEST_P(Transfer, OnlyTheBytesAskedForAreCopied) {
    kit::writeFile(source(), "abcdefgh");
    EXPECT_EQ(0, copy(3));
    EXPECT_EQ("abc", kit::readFile(destination()));
}

TEST_P(Transfer, DescriptorsStayOpenBehindTheLastByte) {
    kit::writeFile(source(), "abcdefgh");
    const Open from(source(), O_RDONLY);
    const Open to(destination(), O_WRONLY | O_CREAT);
    EXPECT_EQ(0, copy(from, to, 5));
    EXPECT_EQ(5, ::lseek(from, 0, SEEK_CUR));
    EXPECT_EQ(5, ::lseek(to, 0, SEEK_CUR));
}

TEST_P(Transfer, DestinationIsWrittenWhereItStands) {
    kit::writeFile(source(), "new");
    kit::writeFile(destination(), "old content");
    const Open from(source(), O_RDONLY);
    const Open to(destination(), O_WRONLY);
    ::lseek(to, 4, SEEK_SET);
    EXPECT_EQ(0, copy(from, to, 3));
    EXPECT_EQ("old newtent", kit::readFile(destination()));
}

TEST_P(Transfer, SizeBelowOneTouchesNothing) {
    kit::writeFile(source(), "abc");
    kit::writeFile(destination(), "old");
    countFromHere();
    EXPECT_EQ(0, copy(0));
    EXPECT_EQ(0, copy(-1));
    EXPECT_EQ(0, copy(INT64_MIN));
    EXPECT_EQ("old", kit::readFile(destination()));
    EXPECT_EQ(0, kit::Faults::count("lseek") + kit::Faults::count("write") + kit::Faults::count("ftruncate"));
    EXPECT_TRUE(watch.events.empty());
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_P(Transfer, NegativeDescriptorIsRefusedBeforeAnything) {
    kit::Faults::record(true);
    kit::Faults::failAllocation(1); // it would be met
    expectFailed(copy(-1, 1, 10), 0x0D00);
    expectFailed(copy(0, -1, 10), 0x0D00);
    expectFailed(copy(-5, -5, 0), 0x0D00);
    kit::Faults::failAllocation(0);
    EXPECT_TRUE(kit::Faults::recorded().empty());
    EXPECT_TRUE(watch.events.empty());
}

TEST_P(Transfer, DenseFilePaysForNoExtentLookups) {
    kit::writeFile(source(), kit::pattern(100 * kKiB));
    countFromHere();
    EXPECT_EQ(0, copy(100 * kKiB));
    EXPECT_EQ(0, kit::Faults::count("lseek"));
    EXPECT_EQ(0, kit::Faults::count("fallocate"));
    EXPECT_EQ(0, kit::Faults::count("ftruncate"));
    const int blocksRead = way() == Way::inKernel ? 0 : 1;
    EXPECT_EQ(1, kit::Faults::count("sendfile"));
    EXPECT_EQ(blocksRead, kit::Faults::count("read"));
    EXPECT_EQ(blocksRead, kit::Faults::count("write"));
}

TEST_P(Transfer, SourceThatCannotBeLookedAtCountsAsDense) {
    kit::writeSparse(source(), 192 * kKiB, {{64 * kKiB, 64 * kKiB}});
    const std::string content = kit::readFile(source());
    kit::Faults::fail("fstat", EIO, source());
    EXPECT_EQ(0, copy(192 * kKiB));
    EXPECT_EQ((Lines{"196608 196608"}), watch.progress());
    EXPECT_EQ(content, kit::readFile(destination()));
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_P(Transfer, PipeTakesADenseFile) {
    const std::string content = kit::pattern(10 * kKiB);
    kit::writeFile(source(), content);
    std::array<int, 2> ends{};
    ASSERT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
    const Open out(ends[0]);
    Open in(ends[1]);
    const Open from(source(), O_RDONLY);
    EXPECT_EQ(0, copy(from, in, 10 * kKiB));
    in.close();
    std::string got(10 * kKiB + 1, '\0');
    EXPECT_EQ(10 * kKiB, ::read(out, got.data(), got.size()));
    got.resize(10 * kKiB);
    EXPECT_EQ(content, got);
}

TEST_P(Transfer, PipeGivesItsBytes) {
    std::array<int, 2> ends{};
    ASSERT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
    const Open out(ends[0]);
    Open in(ends[1]);
    ASSERT_EQ(6, ::write(in, "abcdef", 6));
    in.close();
    const Open to(destination(), O_WRONLY | O_CREAT);
    expectFailed(copy(out, to, 7), 0x0A00);
    EXPECT_EQ("abcdef", kit::readFile(destination()));
    EXPECT_EQ((Lines{"6 6"}), watch.progress());
}

// ---- Memory

TEST_P(Transfer, BufferIsNoLargerThanWhatThereIsToCopy) {
    kit::writeFile(source(), kit::pattern(4096));
    const Open from(source(), O_RDONLY);
    const Open to(destination(), O_WRONLY | O_CREAT);
    kit::Faults::onlyAllocationsFrom(4097);
    if (!kit::Faults::failAllocation(1, 1000)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    EXPECT_EQ(0, copy(from, to, 4096));
    kit::Faults::failAllocation(0);
}

TEST_P(Transfer, BufferIsNeverLargerThanABlock) {
    kit::writeFile(source(), "short");
    const Open from(source(), O_RDONLY);
    const Open to(destination(), O_WRONLY | O_CREAT);
    kit::Faults::onlyAllocationsFrom(kBlock + 1);
    if (!kit::Faults::failAllocation(1, 1000)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    expectFailed(copy(from, to, INT64_MAX), 0x0A00); // it got as far as the end of the source
    kit::Faults::failAllocation(0);
}

TEST_P(Transfer, NoMemoryForTheBufferFailsBeforeAnyByte) {
    kit::writeFile(source(), kit::pattern(100 * kKiB));
    const Open from(source(), O_RDONLY);
    const Open to(destination(), O_WRONLY | O_CREAT);
    kit::Faults::onlyAllocationsFrom(100 * kKiB);
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    expectFailed(copy(from, to, 100 * kKiB), 0x0200);
    EXPECT_EQ(0, kit::statOf(destination()).st_size);
    EXPECT_TRUE(watch.events.empty());
}

TEST_P(Transfer, NoMemoryIsMetEvenWithNothingToCopy) {
    kit::writeFile(source(), "abc");
    const Open from(source(), O_RDONLY);
    const Open to(destination(), O_WRONLY | O_CREAT);
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    expectFailed(copy(from, to, 0), 0x0200);
}

// ---- Callbacks

TEST_P(Transfer, EachBlockPollsAsksReadsAndReports) {
    kit::writeFile(source(), kit::pattern(10000));
    watch.readSize = [](int64_t, int64_t) { return 4096; };
    EXPECT_EQ(0, copy(10000));
    EXPECT_EQ((Lines{"cancel?", "size? 0 0", "progress 4096 4096", "cancel?", "size? 4096 4096", "progress 4096 8192",
                     "cancel?", "size? 4096 8192", "progress 1808 10000"}),
              watch.events);
}

TEST_P(Transfer, OneByteAtATime) {
    kit::writeFile(source(), "abcde");
    watch.readSize = [](int64_t, int64_t) { return 1; };
    countFromHere();
    EXPECT_EQ(0, copy(5));
    EXPECT_EQ(0, kit::Faults::count("sendfile")) << "so little is read and written";
    EXPECT_EQ(5, kit::Faults::count("read"));
    EXPECT_EQ((Lines{"1 1", "1 2", "1 3", "1 4", "1 5"}), watch.progress());
    EXPECT_EQ("abcde", kit::readFile(destination()));
}

TEST_P(Transfer, ReadSizeOutOfRangeIsReplacedByTheLargest) {
    kit::writeFile(source(), kit::pattern(4 * kBlock + 5));
    std::vector<int64_t> answers = {0, -1, kBlock + 1, 16 * kMiB, INT64_MIN};
    watch.readSize = [&answers, at = size_t{0}](int64_t, int64_t) mutable { return answers.at(at++); };
    EXPECT_EQ(0, copy(4 * kBlock + 5));
    EXPECT_EQ((Lines{"8388608 8388608", "8388608 16777216", "8388608 25165824", "8388608 33554432", "5 33554437"}),
              watch.progress());
}

TEST_P(Transfer, ReadSizeMayChangeBetweenBlocks) {
    kit::writeFile(source(), kit::pattern(kBlock + 101));
    watch.readSize = [](int64_t last, int64_t) { return last == 0 ? 100 : last == 100 ? 1 : kBlock; };
    EXPECT_EQ(0, copy(kBlock + 101));
    EXPECT_EQ((Lines{"100 100", "1 101", "8388608 8388709"}), watch.progress());
    EXPECT_EQ(kit::readFile(source()), kit::readFile(destination()));
}

TEST_P(Transfer, ShortReadIsWrittenAndGoneOnFrom) {
    std::array<int, 2> ends{};
    ASSERT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
    const Open out(ends[0]);
    const Open in(ends[1]);
    ASSERT_EQ(4, ::write(in, "abcd", 4));
    kit::Faults::add({.function = "read", .path = "pipe:", .skip = 1, .before = [&in] { ::write(in, "ef", 2); }});
    const Open to(destination(), O_WRONLY | O_CREAT);
    watch.readSize = [](int64_t, int64_t) { return 100; };
    EXPECT_EQ(0, copy(out, to, 6));
    EXPECT_EQ("abcdef", kit::readFile(destination()));
    EXPECT_EQ((Lines{"cancel?", "size? 0 0", "progress 4 4", "cancel?", "size? 4 4", "progress 2 6"}), watch.events);
}

TEST_P(Transfer, CancelStopsBeforeAnyBlock) {
    for (int stopAt = 0; stopAt < 4; ++stopAt) {
        kit::writeFile(source(), kit::pattern(4 * 4096));
        kit::writeFile(destination(), "");
        watch = {};
        watch.readSize = [](int64_t, int64_t) { return 4096; };
        watch.cancel = [stopAt](int poll) { return poll == stopAt ? -7 : 0; };
        expectFailed(copy(4 * 4096), 0xA600);
        EXPECT_EQ(stopAt * 4096, kit::statOf(destination()).st_size);
        EXPECT_EQ(stopAt + 1, watch.polls);
        EXPECT_EQ("cancel?", watch.events.back()); // no size is asked for a block that is not read
        VLIBCErrSetEx(0, "", 0);
    }
}

TEST_P(Transfer, CopyWithoutCallbacks) {
    const std::string content = kit::pattern(50000);
    kit::writeFile(source(), content);
    const Open from(source(), O_RDONLY);
    const Open to(destination(), O_WRONLY | O_CREAT);
    EXPECT_EQ(0, door() == Door::copyEngine ? VEXOCopyFileFd(from, to, 50000, nullptr, nullptr)
                                            : VEXOFileOpCopyFileFd(from, to, 50000, nullptr));
    EXPECT_EQ(content, kit::readFile(destination()));
}

// ---- Sources that end early

TEST_P(Transfer, SourceShorterThanTheSizeFails) {
    kit::writeFile(source(), kit::pattern(5000));
    expectFailed(copy(5001), 0x0A00);
    EXPECT_EQ(kit::readFile(source()), kit::readFile(destination()));
    EXPECT_EQ((Lines{"5000 5000"}), watch.progress());
}

TEST_P(Transfer, EmptySourceForASizeFails) {
    kit::writeFile(source(), "");
    expectFailed(copy(1), 0x0A00);
}

TEST_P(Transfer, SourceThatShrinksWhileItIsCopiedFails) {
    kit::writeFile(source(), kit::pattern(4 * 4096));
    const std::string content = kit::readFile(source());
    watch.readSize = [](int64_t, int64_t) { return 4096; };
    kit::Faults::add({.function = "read", .path = source(), .skip = 2, .before = [this] {
                          ASSERT_EQ(0, ::truncate(source().c_str(), 6000));
                      }});
    expectFailed(copy(4 * 4096), 0x0A00);
    EXPECT_EQ(content.substr(0, 8192), kit::readFile(destination()));
}

// ---- Sparse sources

TEST_P(Transfer, LeadingHoleIsReportedBeforeAnyData) {
    kit::writeSparse(source(), 128 * kKiB, {{64 * kKiB, 64 * kKiB}});
    EXPECT_EQ(0, copy(128 * kKiB));
    EXPECT_EQ((Lines{"progress 65536 65536", "cancel?", "progress 65536 131072"}), watch.events);
    EXPECT_EQ(kit::readFile(source()), kit::readFile(destination()));
    EXPECT_EQ(kit::statOf(source()).st_blocks, kit::statOf(destination()).st_blocks);
}

TEST_P(Transfer, TrailingHoleKeepsTheLength) {
    kit::writeSparse(source(), 192 * kKiB + 7, {{0, 64 * kKiB}});
    EXPECT_EQ(0, copy(192 * kKiB + 7));
    EXPECT_EQ((Lines{"65536 65536", "131079 196615"}), watch.progress());
    EXPECT_EQ(192 * kKiB + 7, kit::statOf(destination()).st_size);
    EXPECT_EQ(kit::readFile(source()), kit::readFile(destination()));
    EXPECT_EQ(kit::statOf(source()).st_blocks, kit::statOf(destination()).st_blocks);
}

TEST_P(Transfer, FullySparseFileIsOneGap) {
    const int64_t size = int64_t{1} << 40;
    kit::writeSparse(source(), size, {});
    EXPECT_EQ(0, copy(size));
    EXPECT_EQ((Lines{"progress 1099511627776 1099511627776"}), watch.events);
    EXPECT_EQ(size, kit::statOf(destination()).st_size);
    EXPECT_EQ(0, kit::statOf(destination()).st_blocks);
}

TEST_P(Transfer, HolesBetweenDataStayHoles) {
    const std::vector<kit::Extent> extents = {
        {64 * kKiB, 4 * kKiB}, {256 * kKiB, 128 * kKiB}, {kMiB, 64 * kKiB}, {2 * kMiB, 4 * kKiB}};
    kit::writeSparse(source(), 3 * kMiB, extents);
    EXPECT_EQ(0, copy(3 * kMiB));
    EXPECT_EQ((Lines{"65536 65536", "4096 69632", "192512 262144", "131072 393216", "655360 1048576", "65536 1114112",
                     "983040 2097152", "4096 2101248", "1044480 3145728"}),
              watch.progress());
    EXPECT_EQ(kit::readFile(source()), kit::readFile(destination()));
    const std::vector<kit::Extent> copied = kit::extentsOf(destination());
    ASSERT_EQ(extents.size(), copied.size());
    for (size_t at = 0; at < extents.size(); ++at) {
        EXPECT_EQ(extents[at].offset, copied[at].offset);
        EXPECT_EQ(extents[at].length, copied[at].length);
    }
}

TEST_P(Transfer, SparseExtentIsReadInTheSizesAskedFor) {
    kit::writeSparse(source(), 128 * kKiB, {{64 * kKiB, 10 * kKiB}});
    watch.readSize = [](int64_t, int64_t) { return 8 * kKiB; };
    EXPECT_EQ(0, copy(128 * kKiB));
    EXPECT_EQ((Lines{"progress 65536 65536", "cancel?", "size? 0 65536", "progress 8192 73728", "cancel?",
                     "size? 8192 73728", "progress 4096 77824", "progress 53248 131072"}),
              watch.events);
}

TEST_P(Transfer, GapsOfAFilledDestinationArePunched) {
    kit::writeSparse(source(), 192 * kKiB, {{64 * kKiB, 64 * kKiB}});
    kit::writeFile(destination(), kit::pattern(192 * kKiB, 9));
    EXPECT_EQ(0, copy(192 * kKiB));
    EXPECT_EQ(kit::readFile(source()), kit::readFile(destination()));
    const std::vector<kit::Extent> copied = kit::extentsOf(destination());
    ASSERT_EQ(1u, copied.size());
    EXPECT_EQ(64 * kKiB, copied[0].offset);
    EXPECT_EQ(64 * kKiB, copied[0].length);
}

TEST_P(Transfer, SizeInsideAHoleEndsThere) {
    kit::writeSparse(source(), kMiB, {{0, 64 * kKiB}, {512 * kKiB, 64 * kKiB}});
    EXPECT_EQ(0, copy(256 * kKiB));
    EXPECT_EQ((Lines{"65536 65536", "196608 262144"}), watch.progress());
    EXPECT_EQ(kit::readFile(source()).substr(0, 256 * kKiB), kit::readFile(destination()));
}

TEST_P(Transfer, SizeInsideAnExtentEndsThere) {
    kit::writeSparse(source(), kMiB, {{64 * kKiB, 128 * kKiB}});
    EXPECT_EQ(0, copy(100 * kKiB));
    EXPECT_EQ((Lines{"65536 65536", "36864 102400"}), watch.progress());
    EXPECT_EQ(kit::readFile(source()).substr(0, 100 * kKiB), kit::readFile(destination()));
}

TEST_P(Transfer, SparseSourceThatShrinksIsFilledUpWithAHole) {
    kit::writeSparse(source(), kMiB, {{0, 64 * kKiB}, {512 * kKiB, 64 * kKiB}});
    const std::string content = kit::readFile(source()).substr(0, 64 * kKiB);
    kit::Faults::add({.function = "write", .path = destination(), .before = [this] {
                          ASSERT_EQ(0, ::truncate(source().c_str(), 64 * kKiB));
                      }});
    EXPECT_EQ(0, copy(kMiB));
    EXPECT_EQ((Lines{"65536 65536", "983040 1048576"}), watch.progress());
    EXPECT_EQ(content + std::string(960 * kKiB, '\0'), kit::readFile(destination()));
}

TEST_P(Transfer, SparseSourceCutInsideItsExtentFails) {
    kit::writeSparse(source(), kMiB, {{0, 64 * kKiB}});
    kit::Faults::add(
        {.function = "read", .path = source(), .before = [this] { ASSERT_EQ(0, ::truncate(source().c_str(), 0)); }});
    expectFailed(copy(kMiB), 0x0A00);
}

TEST_P(Transfer, SparseStepsCallTheKernelInOrder) {
    kit::writeSparse(source(), 384 * kKiB, {{128 * kKiB, 128 * kKiB}});
    const Open from(source(), O_RDONLY);
    const Open to(destination(), O_WRONLY | O_CREAT);
    kit::Faults::record(true);
    EXPECT_EQ(0, copy(from, to, 384 * kKiB));
    const std::string src = "(" + source() + ")";
    const std::string dst = "(" + destination() + ")";
    Lines expected = {
        "fstat" + src, //
        "lseek" + src,
        "lseek" + src, // the leading hole: an empty extent
        "lseek" + src, // where data begin
        "lseek" + src,
        "lseek" + src, // their extent
        "lseek" + dst,
        "fallocate" + dst, // the gap before it
        "fstat" + dst,     // whether the kernel may move them
        "fcntl" + dst,     "fstatfs" + src, "fstatfs" + dst, "sendfile" + dst,
        "lseek" + src, // no more data
        "lseek" + src,
        "lseek" + src, // the empty extent at the end
        "lseek" + dst,
        "fallocate" + dst, // the trailing gap
        "lseek" + src,     //
        "ftruncate" + dst,
    };
    if (way() == Way::readAndWritten) {
        const auto sent = std::find(expected.begin(), expected.end(), "sendfile" + dst);
        expected.insert(sent + 1, {"read" + src, "write" + dst});
    }
    EXPECT_EQ(expected, kit::Faults::recorded());
}

TEST_P(Transfer, CancelBetweenExtentsKeepsWhatWasWritten) {
    kit::writeSparse(source(), kMiB, {{0, 64 * kKiB}, {512 * kKiB, 64 * kKiB}});
    watch.cancel = [](int poll) { return poll == 1 ? 1 : 0; };
    expectFailed(copy(kMiB), 0xA600);
    EXPECT_EQ((Lines{"65536 65536", "458752 524288"}), watch.progress());
    EXPECT_EQ(64 * kKiB, kit::statOf(destination()).st_size);
}

TEST_P(Transfer, VolumeWithoutHolePunchingGetsThePlainGap) {
    for (const int error : {EOPNOTSUPP, ENOSYS}) {
        kit::writeSparse(source(), 192 * kKiB, {{64 * kKiB, 64 * kKiB}});
        kit::writeFile(destination(), "");
        kit::Faults::failAlways("fallocate", error, destination());
        watch = {};
        EXPECT_EQ(0, copy(192 * kKiB));
        EXPECT_EQ(2, kit::Faults::count("fallocate"));
        EXPECT_EQ(kit::readFile(source()), kit::readFile(destination()));
        EXPECT_EQ((Lines{"65536 65536", "65536 131072", "65536 196608"}), watch.progress());
        EXPECT_EQ(0u, VLIBCErrGet());
        kit::Faults::reset();
    }
}

TEST_P(Transfer, FailedHolePunchingFailsBeforeTheGapIsReported) {
    kit::writeSparse(source(), 128 * kKiB, {{64 * kKiB, 64 * kKiB}});
    kit::Faults::fail("fallocate", EIO, destination());
    expectFailed(copy(128 * kKiB), 0x2A00);
    EXPECT_TRUE(watch.events.empty());
}

TEST_P(Transfer, FailedCutToLengthFails) {
    kit::writeSparse(source(), 128 * kKiB, {{0, 64 * kKiB}});
    kit::Faults::fail("ftruncate", EIO, destination());
    expectFailed(copy(128 * kKiB), 0x2A00);
}

TEST_P(Transfer, EverySeekOfTheSourceMayFail) {
    // The leading hole: its end, its start, the first data; then the extent: its end and its start; then the end.
    for (int nth = 0; nth < 9; ++nth) {
        kit::writeSparse(source(), 192 * kKiB, {{64 * kKiB, 64 * kKiB}});
        kit::Faults::fail("lseek", EIO, source(), nth);
        expectFailed(copy(192 * kKiB), 0x2600);
        kit::Faults::reset();
        VLIBCErrSetEx(0, "", 0);
    }
}

TEST_P(Transfer, EverySeekOfTheDestinationMayFail) {
    for (int nth = 0; nth < 2; ++nth) {
        kit::writeSparse(source(), 192 * kKiB, {{64 * kKiB, 64 * kKiB}});
        kit::Faults::fail("lseek", EIO, destination(), nth);
        expectFailed(copy(192 * kKiB), 0x2600);
        kit::Faults::reset();
        VLIBCErrSetEx(0, "", 0);
    }
}

TEST_P(Transfer, GapIntoAPipeFails) {
    kit::writeSparse(source(), 128 * kKiB, {{64 * kKiB, 64 * kKiB}});
    std::array<int, 2> ends{};
    ASSERT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
    const Open out(ends[0]);
    const Open in(ends[1]);
    const Open from(source(), O_RDONLY);
    expectFailed(copy(from, in, 128 * kKiB), 0x2600);
}

TEST_P(Transfer, ExtentsGoingBackwardsAreRefused) {
    kit::writeSparse(source(), 192 * kKiB, {{0, 64 * kKiB}});
    // The third seek asks for the data behind the first extent.
    kit::Faults::add({.function = "lseek", .result = 4096, .path = source(), .skip = 2, .answers = true});
    expectFailed(copy(192 * kKiB), 0x0D00);
    EXPECT_EQ((Lines{"65536 65536"}), watch.progress());
}

TEST_P(Transfer, ExtentEndingBeforeItBeginsIsRefused) {
    kit::writeSparse(source(), 192 * kKiB, {{64 * kKiB, 64 * kKiB}});
    // The fourth seek asks for the end of the extent at 64 KiB.
    kit::Faults::add({.function = "lseek", .result = 4096, .path = source(), .skip = 3, .answers = true});
    expectFailed(copy(192 * kKiB), 0x0D00);
}

TEST_P(Transfer, ExtentsThatNeverGoOnAreRefused) {
    kit::writeSparse(source(), 192 * kKiB, {{64 * kKiB, 64 * kKiB}});
    countFromHere();
    kit::Faults::add({.function = "lseek", .result = 0, .path = source(), .times = 0, .answers = true});
    expectFailed(copy(192 * kKiB), 0x0D00);
    EXPECT_EQ(5, kit::Faults::count("lseek")); // twice hole and start, and once data between them
}

TEST_P(Transfer, HoleFilledBetweenTwoLookupsIsCopiedAsData) {
    kit::writeSparse(source(), 192 * kKiB, {{64 * kKiB, 64 * kKiB}});
    const std::string filled = kit::pattern(64 * kKiB, 5);
    // The third seek asks where data begin: now at once.
    kit::Faults::add({.function = "lseek", .path = source(), .skip = 2, .before = [this, &filled] {
                          const Open writer(source(), O_WRONLY);
                          ASSERT_EQ(64 * kKiB, ::write(writer, filled.data(), filled.size()));
                      }});
    EXPECT_EQ(0, copy(192 * kKiB));
    EXPECT_EQ(kit::readFile(source()), kit::readFile(destination()));
    EXPECT_EQ((Lines{"131072 131072", "65536 196608"}), watch.progress());
}

// ---- What the kernel refuses

struct Row {
    int number;
    uint32_t code;
};

TEST_P(Transfer, FailedReadIsToldByItsErrno) {
    for (const Row row :
         {Row{EIO, 0x0600}, Row{EBADF, 0x0600}, Row{ENXIO, 0x6C00}, Row{EFAULT, 0x0300}, Row{EHOSTDOWN, 0x1100}}) {
        SCOPED_TRACE(std::strerror(row.number));
        kit::writeFile(source(), kit::pattern(3 * 4096));
        kit::writeFile(destination(), "");
        watch.readSize = [](int64_t, int64_t) { return 4096; };
        kit::Faults::fail("read", row.number, source(), 1);
        expectFailed(copy(3 * 4096), row.code);
        EXPECT_EQ(4096, kit::statOf(destination()).st_size);
        kit::Faults::reset();
        VLIBCErrSetEx(0, "", 0);
    }
}

TEST_P(Transfer, FailedWriteIsToldByItsErrno) {
    for (const Row row : {Row{EIO, 0x0600}, Row{EBADF, 0x0600}, Row{ENXIO, 0x6C00}, Row{EFAULT, 0x0300},
                          Row{EFBIG, 0xAA00}, Row{ENOSPC, 0x2900}, Row{EHOSTDOWN, 0x1100}, Row{EDQUOT, 0x2400}}) {
        SCOPED_TRACE(std::strerror(row.number));
        kit::writeFile(source(), kit::pattern(3 * 4096));
        kit::writeFile(destination(), "");
        watch = {};
        watch.readSize = [](int64_t, int64_t) { return 4096; };
        kit::Faults::fail("write", row.number, destination(), 1);
        expectFailed(copy(3 * 4096), row.code);
        EXPECT_EQ(4096, kit::statOf(destination()).st_size);
        EXPECT_EQ((Lines{"4096 4096"}), watch.progress());
        kit::Faults::reset();
        VLIBCErrSetEx(0, "", 0);
    }
}

TEST_P(Transfer, AnyOtherFailedReadIsLogged) {
    const Open from(scratch.path(), O_RDONLY | O_DIRECTORY);
    const Open to(destination(), O_WRONLY | O_CREAT);
    expectFailedWithLine(copy(from, to, 10), "Unable to readfile, errno=21(Is a directory)");
}

TEST_P(Transfer, AnyOtherFailedWriteIsLogged) {
    kit::writeFile(source(), "abc");
    std::array<int, 2> ends{};
    ASSERT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
    Open out(ends[0]);
    const Open in(ends[1]);
    out.close();
    const Open from(source(), O_RDONLY);
    EXPECT_TRUE(kit::holdsInChild([&] {
        ::signal(SIGPIPE, SIG_IGN);
        expectFailedWithLine(copy(from, in, 3), "Unable to writefile, errno=32(Broken pipe)");
    }));
}

TEST_P(Transfer, InterruptedReadAndWriteFail) {
    kit::writeFile(source(), "abc");
    kit::Faults::fail("read", EINTR, source());
    expectFailedWithLine(copy(3), "Unable to readfile, errno=4(Interrupted system call)");
    kit::Faults::reset();
    kit::Log::reset();
    kit::Faults::fail("write", EINTR, destination());
    expectFailedWithLine(copy(3), "Unable to writefile, errno=4(Interrupted system call)");
    EXPECT_EQ(1, kit::Faults::count("write")) << "it was tried again";
}

TEST_P(Transfer, DescriptorsOpenTheWrongWay) {
    kit::writeFile(source(), "abc");
    kit::writeFile(destination(), "old");
    const Open unreadable(source(), O_WRONLY);
    const Open readable(source(), O_RDONLY);
    const Open unwritable(destination(), O_RDONLY);
    const Open writable(destination(), O_WRONLY);
    expectFailed(copy(unreadable, writable, 3), 0x0600);
    expectFailed(copy(readable, unwritable, 3), 0x0600);
    EXPECT_EQ("old", kit::readFile(destination()));
}

TEST_P(Transfer, FullVolume) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(kMiB));
    processAsNow();
    const std::string content = kit::pattern(2 * kMiB);
    kit::writeFile(source(), content);
    {
        const Open from(source(), O_RDONLY);
        const Open to(volume / "destination", O_WRONLY | O_CREAT);
        watch.readSize = [](int64_t, int64_t) { return 64 * kKiB; };
        expectFailed(copy(from, to, 2 * kMiB), 0x2900);
    }
    const std::string got = kit::readFile(volume / "destination");
    EXPECT_EQ(content.substr(0, got.size()), got) << "what was written stays for the caller to remove";
    EXPECT_FALSE(got.empty());
    EXPECT_EQ(content, kit::readFile(source()));
}

TEST_P(Transfer, FileSizeLimitOfTheProcess) {
    kit::writeFile(source(), kit::pattern(64 * kKiB));
    EXPECT_TRUE(kit::holdsInChild([this] {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {32 * kKiB, 32 * kKiB};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
        expectFailed(copy(64 * kKiB), 0xAA00);
    }));
    EXPECT_EQ(32 * kKiB, kit::statOf(destination()).st_size);
}

TEST_P(Transfer, PartlyWrittenBlockIsGoneOnWith) {
    kit::writeFile(source(), "abcdefgh");
    // The kernel takes three bytes of the first write; here they go nowhere, so the rest stands at the start.
    kit::Faults::add({.function = "write", .result = 3, .path = destination(), .answers = true});
    EXPECT_EQ(0, copy(8));
    EXPECT_EQ("defgh", kit::readFile(destination()));
    EXPECT_EQ((Lines{"8 8"}), watch.progress());
}

TEST_P(Transfer, WriteOfAnotherLengthIsAFailureOfItsOwn) {
    kit::writeFile(source(), "abcdefgh");
    // A volume that says it took more than it was given.
    kit::Faults::add({.function = "write", .result = 9, .path = destination(), .answers = true});
    expectFailed(copy(8), 0x3B00);
    EXPECT_TRUE(watch.progress().empty());
}

// ---- Moved by the kernel, or read and written: nobody can tell

// Whether another file uses an extent of this one as well, as far as the first extents tell.
bool sharesExtents(int fd) {
    constexpr size_t kMost = 64;
    std::array<uint64_t, (sizeof(struct fiemap) + kMost * sizeof(struct fiemap_extent)) / sizeof(uint64_t)> room{};
    auto *const map = reinterpret_cast<struct fiemap *>(room.data());
    map->fm_length = FIEMAP_MAX_OFFSET;
    map->fm_flags = FIEMAP_FLAG_SYNC;
    map->fm_extent_count = kMost;
    EXPECT_EQ(0, ::ioctl(fd, FS_IOC_FIEMAP, map));
    EXPECT_LT(0u, map->fm_mapped_extents);
    return std::any_of(map->fm_extents, map->fm_extents + map->fm_mapped_extents,
                       [](const fiemap_extent &extent) { return (extent.fe_flags & FIEMAP_EXTENT_SHARED) != 0; });
}

// All that a caller sees of a copy.
struct Seen {
    int result;
    uint32_t code;
    std::vector<std::string> events, log;
    std::string written;
    int64_t readTo;
    int sent, read; // calls, which may differ
};

class Ways : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        if (!isOnOwnVolume(scratch.path())) {
            GTEST_SKIP() << "the kernel moves nothing on the volume of TMPDIR";
        }
    }
    // Copies `size` bytes to a new file, with what the test arranges beforehand.
    Seen seen(Way way, int64_t size, const std::string &destination, const std::function<void(Watch &)> &arrange) {
        kit::Faults::reset();
        kit::Log::reset();
        VLIBCErrSetEx(0, "", 0);
        kit::Faults::record(true);
        Watch watch;
        arrange(watch);
        refuseKernel(way);
        ::unlink(destination.c_str());
        const Open from(source(), O_RDONLY);
        const Open to(destination, O_WRONLY | O_CREAT);
        Seen got = {};
        got.result = copyWith(Door::copyEngine, from, to, size, &watch);
        got.code = VLIBCErrGet();
        got.sent = kit::Faults::count("sendfile");
        got.read = kit::Faults::count("read");
        kit::Faults::reset();
        got.events = watch.events;
        for (const auto &line : kit::Log::lines()) {
            got.log.push_back(line.body);
        }
        got.written = kit::readFile(destination);
        got.readTo = ::lseek(from, 0, SEEK_CUR);
        kit::Log::reset();
        VLIBCErrSetEx(0, "", 0);
        return got;
    }
    static void expectAlike(const Seen &one, const Seen &other) {
        EXPECT_EQ(one.result, other.result);
        EXPECT_EQ(one.code, other.code);
        EXPECT_EQ(one.events, other.events);
        EXPECT_EQ(one.log, other.log);
        EXPECT_TRUE(one.written == other.written) << one.written.size() << " and " << other.written.size() << " bytes";
    }
    std::string source() const { return scratch / "source"; }
    std::string destination() const { return scratch / "destination"; }
};

void blocksOf128KiB(Watch &watch) {
    watch.readSize = [](int64_t, int64_t) { return 128 * kKiB; };
}

TEST_F(Ways, KernelMovesWholeBlocks) {
    kit::writeFile(source(), kit::pattern(2 * kBlock + 5));
    const Seen kernel = seen(Way::inKernel, 2 * kBlock + 5, destination(), [](Watch &) {});
    const Seen plain = seen(Way::readAndWritten, 2 * kBlock + 5, destination(), [](Watch &) {});
    expectAlike(plain, kernel);
    EXPECT_EQ(plain.readTo, kernel.readTo);
    EXPECT_EQ(2, kernel.sent);
    EXPECT_EQ(1, kernel.read) << "the last block is a small one";
    EXPECT_EQ(1, plain.sent) << "a refusal holds for the whole copy";
    EXPECT_EQ(3, plain.read);
}

TEST_F(Ways, RefusalsOfTheKernelAreMadeUpFor) {
    kit::writeFile(source(), kit::pattern(512 * kKiB));
    const Seen plain = seen(Way::readAndWritten, 512 * kKiB, destination(), blocksOf128KiB);
    for (const int error : {EINVAL, ENOSYS, EOPNOTSUPP}) {
        for (int nth = 0; nth < 4; ++nth) {
            SCOPED_TRACE(std::string(std::strerror(error)) + " at " + std::to_string(nth));
            const Seen kernel = seen(Way::inKernel, 512 * kKiB, destination(), [error, nth](Watch &watch) {
                blocksOf128KiB(watch);
                kit::Faults::fail("sendfile", error, {}, nth);
            });
            expectAlike(plain, kernel);
            EXPECT_EQ(4 - nth, kernel.read) << "that block and all that follow";
            EXPECT_EQ(nth + 1, kernel.sent);
        }
    }
}

// A failure is told once: written again, the block would arrive, and what the failure was about would be lost.
TEST_F(Ways, FailuresOfTheKernelAreFinal) {
    kit::writeFile(source(), kit::pattern(512 * kKiB));
    const std::string content = kit::readFile(source());
    struct Final {
        int number;
        uint32_t code;
    };
    for (const Final row :
         {Final{EIO, 0x0600}, Final{EBADF, 0x0600}, Final{ENXIO, 0x6C00}, Final{EFAULT, 0x0300}, Final{EFBIG, 0xAA00},
          Final{ENOSPC, 0x2900}, Final{EHOSTDOWN, 0x1100}, Final{EDQUOT, 0x2400}, Final{EINTR, 0x8000},
          Final{EAGAIN, 0x8000}, Final{ENOMEM, 0x8000}}) {
        for (int nth = 0; nth < 4; ++nth) {
            SCOPED_TRACE(std::string(std::strerror(row.number)) + " at " + std::to_string(nth));
            const Seen kernel = seen(Way::inKernel, 512 * kKiB, destination(), [row, nth](Watch &watch) {
                blocksOf128KiB(watch);
                kit::Faults::fail("sendfile", row.number, {}, nth);
            });
            EXPECT_EQ(-1, kernel.result);
            EXPECT_EQ(row.code, kernel.code);
            EXPECT_EQ(nth + 1, kernel.sent);
            EXPECT_EQ(1, kernel.read) << "to tell the side";
            EXPECT_TRUE(kernel.written == content.substr(0, static_cast<size_t>(nth * 128 * kKiB)));
            const std::vector<std::string> line = {"Unable to writefile, errno=" + std::to_string(row.number) + "(" +
                                                   std::strerror(row.number) + ")"};
            EXPECT_EQ(row.code == 0x8000 ? line : std::vector<std::string>(), kernel.log);
        }
    }
}

TEST_F(Ways, FailureBehindPartOfABlockIsFinalEvenWhereItWouldBeARefusal) {
    kit::writeFile(source(), kit::pattern(512 * kKiB));
    const Seen kernel = seen(Way::inKernel, 512 * kKiB, destination(), [](Watch &watch) {
        blocksOf128KiB(watch);
        kit::Faults::add({.function = "sendfile", .result = 1000, .answers = true}); // so many, and they are elsewhere
        kit::Faults::fail("sendfile", EINVAL);
    });
    EXPECT_EQ(-1, kernel.result);
    EXPECT_EQ(0x8000u, kernel.code);
    EXPECT_EQ(std::vector<std::string>{"Unable to writefile, errno=22(Invalid argument)"}, kernel.log);
    EXPECT_EQ(2, kernel.sent);
}

TEST_F(Ways, FailureOfTheSourceIsToldAsOne) {
    kit::writeFile(source(), kit::pattern(512 * kKiB));
    const Seen known = seen(Way::inKernel, 512 * kKiB, destination(), [this](Watch &watch) {
        blocksOf128KiB(watch);
        kit::Faults::fail("sendfile", EIO);
        kit::Faults::fail("read", ENXIO, source());
    });
    EXPECT_EQ(-1, known.result);
    EXPECT_EQ(0x6C00u, known.code);
    const Seen other = seen(Way::inKernel, 512 * kKiB, destination(), [this](Watch &watch) {
        blocksOf128KiB(watch);
        kit::Faults::fail("sendfile", EIO);
        kit::Faults::fail("read", EISDIR, source());
    });
    EXPECT_EQ(0x8000u, other.code);
    EXPECT_EQ(std::vector<std::string>{"Unable to readfile, errno=21(Is a directory)"}, other.log);
}

TEST_F(Ways, KernelThatMovesNothingIsMadeUpFor) {
    kit::writeFile(source(), kit::pattern(512 * kKiB));
    const Seen plain = seen(Way::readAndWritten, 512 * kKiB, destination(), blocksOf128KiB);
    const Seen kernel = seen(Way::inKernel, 512 * kKiB, destination(), [](Watch &watch) {
        blocksOf128KiB(watch);
        kit::Faults::add({.function = "sendfile", .result = 0, .skip = 2, .answers = true});
    });
    expectAlike(plain, kernel);
    EXPECT_EQ(1, kernel.read);
}

TEST_F(Ways, SourceCutWhileItIsCopied) {
    // At the start of a block and inside one; before every block.
    for (const int64_t left : {2 * 128 * kKiB, 2 * 128 * kKiB + 1000, int64_t{0}}) {
        for (int block = 0; block < 4; ++block) {
            SCOPED_TRACE(std::to_string(left) + " before block " + std::to_string(block));
            const auto arrange = [this, left, block](Watch &watch) {
                kit::writeFile(source(), kit::pattern(512 * kKiB));
                watch.readSize = [this, left, block](int64_t, int64_t offset) {
                    if (offset == block * 128 * kKiB) {
                        EXPECT_EQ(0, ::truncate(source().c_str(), left));
                    }
                    return 128 * kKiB;
                };
            };
            const Seen plain = seen(Way::readAndWritten, 512 * kKiB, destination(), arrange);
            kit::writeFile(source(), kit::pattern(512 * kKiB));
            const Seen kernel = seen(Way::inKernel, 512 * kKiB, destination(), arrange);
            expectAlike(plain, kernel);
            EXPECT_EQ(0x0A00u, kernel.code);
        }
    }
}

TEST_F(Ways, FullVolumeFailsAtTheSameByte) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(kMiB));
    processAsNow();
    kit::writeFile(source(), kit::pattern(2 * kMiB));
    const Seen plain = seen(Way::readAndWritten, 2 * kMiB, volume / "destination", [](Watch &) {});
    const Seen kernel = seen(Way::inKernel, 2 * kMiB, volume / "destination", [](Watch &) {});
    expectAlike(plain, kernel);
    EXPECT_EQ(0x2900u, kernel.code);
    EXPECT_FALSE(kernel.written.empty());
}

TEST_F(Ways, FileSizeLimitFailsAtTheSameByte) {
    kit::writeFile(source(), kit::pattern(512 * kKiB));
    EXPECT_TRUE(kit::holdsInChild([this] {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {200 * kKiB, 200 * kKiB};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
        const Seen plain = seen(Way::readAndWritten, 512 * kKiB, destination(), blocksOf128KiB);
        const Seen kernel = seen(Way::inKernel, 512 * kKiB, destination(), blocksOf128KiB);
        expectAlike(plain, kernel);
        EXPECT_EQ(0xAA00u, kernel.code);
        EXPECT_EQ(200 * kKiB, static_cast<int64_t>(kernel.written.size()));
    }));
}

TEST_F(Ways, CancelStopsAtTheSameBlock) {
    kit::writeFile(source(), kit::pattern(512 * kKiB));
    for (int stopAt = 0; stopAt < 4; ++stopAt) {
        const auto arrange = [stopAt](Watch &watch) {
            blocksOf128KiB(watch);
            watch.cancel = [stopAt](int poll) { return poll == stopAt ? 1 : 0; };
        };
        const Seen plain = seen(Way::readAndWritten, 512 * kKiB, destination(), arrange);
        const Seen kernel = seen(Way::inKernel, 512 * kKiB, destination(), arrange);
        expectAlike(plain, kernel);
        EXPECT_EQ(0xA600u, kernel.code);
    }
}

TEST_F(Ways, HolesAreTheSame) {
    kit::writeSparse(source(), 3 * kMiB, {{64 * kKiB, 4 * kKiB}, {256 * kKiB, 128 * kKiB}, {2 * kMiB, 12 * kKiB}});
    const Seen plain = seen(Way::readAndWritten, 3 * kMiB, destination(), blocksOf128KiB);
    const auto blocks = kit::statOf(destination()).st_blocks;
    const Seen kernel = seen(Way::inKernel, 3 * kMiB, destination(), blocksOf128KiB);
    expectAlike(plain, kernel);
    EXPECT_EQ(blocks, kit::statOf(destination()).st_blocks);
    EXPECT_EQ(2, kernel.read) << "the small ones";
}

TEST_F(Ways, ExtentsAreNotShared) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", 256 * kMiB));
    processAsNow();
    kit::writeFile(volume / "source", kit::pattern(kMiB));
    const Open from(volume / "source", O_RDONLY);
    const Open to(volume / "destination", O_WRONLY | O_CREAT);
    kit::Faults::record(true);
    Watch watch;
    EXPECT_EQ(0, copyWith(Door::copyEngine, from, to, kMiB, &watch));
    EXPECT_EQ(0, kit::Faults::count("read")) << "the kernel moved them";
    EXPECT_FALSE(sharesExtents(to));
}

// ---- The plain variant and the function that writes everything

class WriteFile : public kit::Behaviour {
  protected:
    std::string path() const { return scratch / "file"; }
};

TEST_F(WriteFile, PlainCopyReportsAndPolls) {
    kit::writeFile(path(), "abcdef");
    Watch watch;
    watched = &watch;
    const Open from(path(), O_RDONLY);
    const Open to(scratch / "to", O_WRONLY | O_CREAT);
    EXPECT_EQ(0, VEXOCopyFileFd(
                     from, to, 6, [](int64_t bytes, int64_t offset) { watched->progressed(bytes, offset); },
                     [] { return watched->isCancelled(); }));
    EXPECT_EQ((Lines{"cancel?", "progress 6 6"}), watch.events);
    EXPECT_EQ("abcdef", kit::readFile(scratch / "to"));
}

TEST_F(WriteFile, WritesEverything) {
    const std::string content = kit::pattern(100000);
    const Open to(path(), O_WRONLY | O_CREAT);
    EXPECT_EQ(100000, VEXOWriteFileFd(to, content.data(), 100000));
    EXPECT_EQ(content, kit::readFile(path()));
}

TEST_F(WriteFile, LengthBelowOneIsAnsweredAndNothingWritten) {
    kit::Faults::record(true);
    EXPECT_EQ(0, VEXOWriteFileFd(-1, nullptr, 0));
    EXPECT_EQ(-1, VEXOWriteFileFd(-1, nullptr, -1));
    EXPECT_EQ(-7, VEXOWriteFileFd(-1, nullptr, -7));
    EXPECT_EQ(0, VEXOWriteFileFd(-1, nullptr, -0x100000000));
    EXPECT_EQ(0, kit::Faults::count("write"));
}

TEST_F(WriteFile, GoesOnUntilAllIsWritten) {
    const Open to(path(), O_WRONLY | O_CREAT);
    kit::Faults::add({.function = "write", .result = 2, .answers = true}); // taken, but not by this file
    kit::Faults::add({.function = "write", .result = 0, .times = 3, .answers = true});
    EXPECT_EQ(6, VEXOWriteFileFd(to, "abcdef", 6));
    EXPECT_EQ("cdef", kit::readFile(path()));
    EXPECT_EQ(5, kit::Faults::count("write"));
}

TEST_F(WriteFile, FailureLeavesErrnoAndSetsNoCode) {
    const Open to(path(), O_WRONLY | O_CREAT);
    kit::Faults::fail("write", EINTR, path());
    EXPECT_EQ(-1, VEXOWriteFileFd(to, "abc", 3));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(1, kit::Faults::count("write"));
    EXPECT_EQ(-1, VEXOWriteFileFd(-1, "abc", 3));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(WriteFile, ResultHasTheLow32BitsOfTheLength) {
    const Open to(path(), O_WRONLY | O_CREAT);
    kit::Faults::add({.function = "write", .result = 0x100000005, .answers = true});
    EXPECT_EQ(5, VEXOWriteFileFd(to, "", 0x100000005));
}

} // namespace
