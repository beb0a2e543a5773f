// Changes of a stream file that fail in the middle: file and handle are as they were, and nothing stays reserved.
#include "tests/ea/stream_fixture.h"
#include "tests/kit/child.h"

#include <cerrno>
#include <csignal>
#include <functional>
#include <map>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace {

class StreamFailure : public StreamFile {
  protected:
    using Operation = std::function<int(VEXOEAS *)>;
    const std::string fork = kit::pattern(40000);
    const stream::Attributes all = {{"a", "AAAA"}, {"b", std::string(3000, 'b')}, {"c", "C"}};
    const std::string before = stream::bytes(all, 40000) + fork;
    const std::map<std::string, Operation> operations = {
        {"new", [](VEXOEAS *eas) { return write(eas, "new", std::string(9000, 'n')); }},
        {"small", [](VEXOEAS *eas) { return write(eas, "new", "n"); }},
        {"overwrite", [](VEXOEAS *eas) { return write(eas, "a", "B"); }},
        {"grow", [](VEXOEAS *eas) { return write(eas, "a", std::string(50000, 'B')); }},
        {"cut", [](VEXOEAS *eas) { return VEXOEASTruncate(eas, "b", 1); }},
        {"remove", [](VEXOEAS *eas) { return VEXOEASRemove(eas, "b"); }},
    };
    off_t blocks() const {
        struct stat status {};
        EXPECT_EQ(0, ::fstat(fd, &status));
        return status.st_blocks;
    }
    // What the operation makes of the file when nothing fails.
    std::string contentAfter(const Operation &run) {
        put(before);
        VEXOEAS *eas = open();
        EXPECT_LE(0, run(eas));
        EXPECT_EQ(0, VEXOEASClose(eas));
        return content();
    }
    // Fails the n-th call of a function as `rule` says, for n = 0, 1, … until the operation succeeds. After each
    // failure file and handle are as they were, so that trying again succeeds.
    void sweep(const std::string &name, const Operation &run, kit::FaultRule rule) {
        const std::string after = contentAfter(run);
        for (rule.skip = 0;; ++rule.skip) {
            const std::string what = name + ", " + rule.function + " " + std::to_string(rule.skip);
            ASSERT_LT(rule.skip, 40) << what;
            put(before);
            VEXOEAS *eas = open();
            kit::Faults::reset();
            kit::Faults::add(rule);
            const bool failed = run(eas) < 0;
            kit::Faults::reset();
            // Cutting the file is what a removal ends with.
            const bool isCut = failed && rule.function == "ftruncate" && name == "remove";
            EXPECT_TRUE(content() == (isCut ? after + before.substr(after.size()) : failed ? before : after)) << what;
            if (failed && !isCut) {
                EXPECT_LE(0, run(eas)) << what;
                EXPECT_TRUE(content() == after) << what;
            }
            EXPECT_EQ(0, VEXOEASClose(eas));
            if (!failed) {
                break;
            }
        }
    }
};

TEST_F(StreamFailure, EveryFailingCallIsUndone) {
    for (const auto &[name, run] : operations) {
        for (const char *function : {"read", "write", "lseek", "ftruncate", "fstat"}) {
            sweep(name, run, {.function = function, .error = EIO});
        }
        sweep(name, run, {.function = "write", .error = EINTR});
        sweep(name, run, {.function = "write", .result = 0, .answers = true});
        sweep(name, run, {.function = "fallocate", .error = ENOSPC});
    }
}

TEST_F(StreamFailure, EveryFailingAllocationLeavesAllAsItWas) {
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    kit::Faults::reset();
    for (const auto &[name, run] : operations) {
        const std::string after = contentAfter(run);
        put(before);
        const off_t blocksBefore = blocks();
        VEXOEAS *eas = open();
        int nth = 0;
        bool failed = true;
        while (failed && nth < 10) {
            kit::Faults::onlyAllocationsFrom(name == "small" || name == "overwrite" ? 1000 : 1);
            kit::Faults::failAllocation(++nth);
            failed = run(eas) < 0;
            kit::Faults::reset();
            EXPECT_TRUE(content() == (failed ? before : after)) << name << nth;
            EXPECT_TRUE(!failed || blocks() == blocksBefore) << name << nth;
        }
        EXPECT_FALSE(failed) << name;
        EXPECT_GE(nth, 2) << name;
        EXPECT_EQ(0, VEXOEASClose(eas));
    }
}

TEST_F(StreamFailure, FirstWriteLeavesTheFileEmpty) {
    VEXOEAS *eas = open();
    for (const char *function : {"lseek", "write"}) {
        for (int skip = 0; skip < 2; ++skip) {
            kit::Faults::fail(function, ENOSPC, path, skip);
            EXPECT_EQ(-1, write(eas, "a", "value"));
            EXPECT_EQ(ENOSPC, errno);
            kit::Faults::reset();
            EXPECT_EQ("", content());
            EXPECT_EQ(0, blocks());
        }
    }
    kit::Faults::add({.function = "write", .result = 60, .answers = true});
    EXPECT_FAILS(write(eas, "a", "value"), 0x0B00);
    kit::Faults::reset();
    EXPECT_EQ("", content());
    EXPECT_EQ(5, write(eas, "a", "value"));
    EXPECT_EQ(0, VEXOEASClose(eas));
    EXPECT_EQ(stream::bytes({{"a", "value"}}), content());
}

TEST_F(StreamFailure, FileSizeLimitIsKnownBeforeTheFirstByte) {
    EXPECT_TRUE(kit::holdsInChild([this] {
        ::signal(SIGXFSZ, SIG_IGN);
        for (const rlim_t limit : {rlim_t{0}, rlim_t{60}, rlim_t{120}, rlim_t{130}, rlim_t{8191}}) {
            struct rlimit lower {};
            ::getrlimit(RLIMIT_FSIZE, &lower);
            lower.rlim_cur = limit;
            EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &lower));
            put("");
            VEXOEAS *eas = open();
            EXPECT_FAILS(write(eas, "a", std::string(8192, 'v')), 0x0B00);
            EXPECT_EQ(EFBIG, errno);
            EXPECT_EQ("", content());
            lower.rlim_cur = lower.rlim_max;
            EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &lower));
            EXPECT_EQ(8192, write(eas, "a", std::string(8192, 'v')));
            lower.rlim_cur = 8400;
            EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &lower));
            const std::string whole = content();
            EXPECT_FAILS(write(eas, "b", std::string(100, 'v')), 0x0B00);
            EXPECT_EQ(whole, content());
            EXPECT_EQ(3, write(eas, "b", "new"));
            EXPECT_EQ(0, VEXOEASClose(eas));
        }
    }));
}

TEST_F(StreamFailure, VolumeThatCannotReserveAndIsFull) {
    put(before);
    VEXOEAS *eas = open();
    for (int skip = 0; skip < 4; ++skip) {
        kit::Faults::failAlways("fallocate", EOPNOTSUPP);
        kit::Faults::add({.function = "write", .error = ENOSPC, .path = path, .skip = skip, .times = 0});
        EXPECT_FAILS(write(eas, "new", std::string(30000, 'n')), 0x0B00);
        EXPECT_EQ(ENOSPC, errno);
        kit::Faults::reset();
        EXPECT_TRUE(content() == before) << skip;
    }
    kit::Faults::failAlways("fallocate", EOPNOTSUPP);
    EXPECT_EQ(30000, write(eas, "new", std::string(30000, 'n')));
    EXPECT_EQ(0, VEXOEASClose(eas));
    stream::Attributes more = all;
    more.emplace_back("new", std::string(30000, 'n'));
    EXPECT_TRUE(content() == stream::bytes(more, 40000) + fork);
}

// On each kind of volume: what was reserved for a refused change is free again.
TEST_F(StreamFailure, NothingStaysReserved) {
    for (const char *type : {"ext4", "xfs", "btrfs"}) {
        KIT_REQUIRE(volume, kit::Volume::loop(type, uint64_t{400} << 20));
        processAsNow();
        const std::string file = volume / "stream";
        kit::writeFile(file, before);
        const int other = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
        VEXOEAS *eas = VEXOEASOpen(other, F_WRLCK);
        ASSERT_NE(nullptr, eas);
        const auto blocksOf = [other] {
            struct stat status {};
            ::fsync(other);
            ::fstat(other, &status);
            return status.st_blocks;
        };
        const blkcnt_t had = blocksOf();
        for (const char *function : {"read", "write"}) {
            for (int skip = 0; skip < 2; ++skip) {
                kit::Faults::fail(function, EIO, file, skip);
                EXPECT_FAILS(write(eas, "new", "n", 30u << 20), function[0] == 'r' ? 0x0A00 : 0x0B00);
                kit::Faults::reset();
                EXPECT_GE(had + 32, blocksOf()) << type << ", " << function;
                EXPECT_TRUE(kit::readFile(file) == before) << type << ", " << function;
            }
        }
        EXPECT_FAILS(write(eas, "new", "n", 1u << 30), 0x0B00); // there is no room for that
        EXPECT_GE(had + 32, blocksOf()) << type;
        EXPECT_EQ(0, VEXOEASClose(eas));
        ::close(other);
        EXPECT_TRUE(kit::readFile(file) == before) << type;
    }
}

// One block free, in which the header alone would have its place.
TEST_F(StreamFailure, EmptyStreamOnAFullVolumeIsUsableOnceThereIsRoom) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20));
    processAsNow();
    const std::string file = volume / "stream";
    const int other = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct statvfs room {};
    ASSERT_EQ(0, ::statvfs(volume.path().c_str(), &room));
    const int ballast = ::open((volume / "ballast").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_EQ(0, ::posix_fallocate(ballast, 0, static_cast<off_t>((room.f_bavail - 1) * room.f_bsize)));
    for (const size_t size : {size_t{4096}, size_t{8192}, size_t{100000}}) {
        VEXOEAS *eas = VEXOEASOpen(other, F_WRLCK);
        ASSERT_NE(nullptr, eas);
        EXPECT_FAILS(write(eas, "a", std::string(size, 'v')), 0x0B00);
        EXPECT_EQ("", kit::readFile(file));
        EXPECT_EQ(5, write(eas, "a", "value"));
        EXPECT_EQ(0, VEXOEASRemove(eas, "a"));
        EXPECT_EQ(0, VEXOEASClose(eas));
        ASSERT_EQ(0, ::ftruncate(other, 0));
    }
    ::close(ballast);
    ::close(other);
}

TEST_F(StreamFailure, ShortWriteOfTheForkSaysNoSpace) {
    put(before);
    VEXOEAS *eas = open();
    errno = ENOENT;
    kit::Faults::add({.function = "write", .result = 100, .path = path, .answers = true});
    EXPECT_FAILS(EASMoveRFork(eas, 5000, static_cast<uint32_t>(before.size() - 40000), 40000), 0x0B00);
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(1, kit::Log::count(3, "failed to write, reason=No space left on device.\n")) << kit::Log::all();
    EXPECT_EQ(0, VEXOEASClose(eas));
}

TEST_F(StreamFailure, AMoveOfTheForkThatFailsIsUndone) {
    const uint32_t from = static_cast<uint32_t>(before.size()) - 40000;
    for (const int distance : {-3000, -1, 1, 100, 16384, 50000}) {
        for (const char *function : {"read", "write", "lseek"}) {
            for (int skip = 0; skip < 3; ++skip) {
                put(before);
                VEXOEAS *eas = open();
                kit::Faults::fail(function, EIO, path, skip);
                EXPECT_EQ(-1, EASMoveRFork(eas, from + static_cast<uint32_t>(distance), from, 40000));
                kit::Faults::reset();
                EXPECT_TRUE(content().substr(from) == fork) << distance << ", " << function << " " << skip;
                EXPECT_EQ(0, VEXOEASClose(eas));
            }
        }
    }
}

} // namespace
