// DOS attributes and time stamps of a copy.
#include "tests/copy/file_copy_support.h"

namespace file_copy {
namespace {

constexpr uint32_t kAll = VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME;
constexpr int kSetArchive = 0x202, kSetHidden = 0x203, kSetSystem = 0x204;

// A type that keeps nothing beside a file: carrying the store sets the archive bit of every copy and brings the
// source's user attributes along, which would hide what is looked at here.
constexpr int kKeepsNothing = 4;

class FileCopyAttributes : public EveryDoor {
  protected:
    void SetUp() override {
        EveryDoor::SetUp();
        kit::PlatformDouble::setType(scratch.path(), kKeepsNothing);
    }
    // Gives the source DOS attributes; false where the volume of the scratch directory keeps none.
    bool sourceHas(uint32_t attributes) const {
        const int fd = ::open(request.src.c_str(), O_RDWR | O_CLOEXEC);
        bool kept = true;
        for (const auto &[bit, command] : {std::pair<uint32_t, int>{VLIBC_ATTR_ARCHIVE, kSetArchive},
                                           {VLIBC_ATTR_HIDDEN, kSetHidden},
                                           {VLIBC_ATTR_SYSTEM, kSetSystem}}) {
            if ((attributes & bit) != 0) {
                kept = kept && VLIBCKernelAttrFcntl(fd, command) == 0;
            }
        }
        ::close(fd);
        return kept && attributesOf(request.src) == attributes;
    }
    static uint32_t attributesOf(const std::string &path) {
        VLIBCStat out{};
        return VLIBCFileStat(path.c_str(), kAll, &out) == 0 ? out.attributes : 0xFFFF;
    }
    std::string attributeLine(const std::string &name, int number) const {
        return name + "(" + request.dst + "): (errno:" + std::to_string(number) + " " + std::strerror(number) + ")";
    }
};
INSTANTIATE_TEST_SUITE_P(, FileCopyAttributes, kDoors, doorName);

TEST_P(FileCopyAttributes, EachCombinationIsCopied) {
    for (uint32_t bits = 0; bits < 8; ++bits) {
        const uint32_t attributes = bits << 1;       // archive, hidden, system
        ASSERT_EQ(0, ::unlink(request.src.c_str())); // a new file has none
        kit::writeFile(request.src, content);
        if (!sourceHas(attributes)) {
            GTEST_SKIP() << "no DOS attributes in " << scratch.path();
        }
        EXPECT_EQ(0, copy());
        EXPECT_EQ(attributes, attributesOf(request.dst)) << bits;
        EXPECT_EQ(attributes, attributesOf(request.src)) << bits;
        ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    }
}

TEST_P(FileCopyAttributes, NoneMeansNoRequest) {
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, callsOf("VLIBCKernelAttrFcntl", request.dst));
}

TEST_P(FileCopyAttributes, RefusedRequestsAreNoFailure) {
    if (!sourceHas(VLIBC_ATTR_ARCHIVE | VLIBC_ATTR_HIDDEN | VLIBC_ATTR_SYSTEM)) {
        GTEST_SKIP() << "no DOS attributes in " << scratch.path();
    }
    kit::Faults::failAlways("VLIBCKernelAttrFcntl", EINVAL, request.dst);
    EXPECT_EQ(0, copy());
    expectLogged(source(), LOG_DEBUG, attributeLine("F_SETSMB_ARCHIVE", EINVAL));
    expectLogged(source(), LOG_DEBUG, attributeLine("F_SETSMB_HIDDEN", EINVAL));
    expectLogged(source(), LOG_DEBUG, attributeLine("F_SETSMB_SYSTEM", EINVAL));
    EXPECT_EQ(3, kit::Faults::count("VLIBCKernelAttrFcntl"));
    expectCopied();
    expectNotReported();
    expectNoErrorLogged(source());
}

// They are asked in that order, and one that is refused does not stop the others.
TEST_P(FileCopyAttributes, EachRequestStandsAlone) {
    const char *names[] = {"F_SETSMB_ARCHIVE", "F_SETSMB_HIDDEN", "F_SETSMB_SYSTEM"};
    const uint32_t bits[] = {VLIBC_ATTR_ARCHIVE, VLIBC_ATTR_HIDDEN, VLIBC_ATTR_SYSTEM};
    const uint32_t all = bits[0] | bits[1] | bits[2];
    if (!sourceHas(all)) {
        GTEST_SKIP() << "no DOS attributes in " << scratch.path();
    }
    for (int refused = 0; refused < 3; ++refused) {
        kit::Faults::reset();
        kit::Log::reset();
        kit::Faults::fail("VLIBCKernelAttrFcntl", EPERM, request.dst, refused);
        EXPECT_EQ(0, copy());
        kit::Faults::reset();
        expectLogged(source(), LOG_DEBUG, attributeLine(names[refused], EPERM));
        EXPECT_EQ(all & ~bits[refused], attributesOf(request.dst));
        ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    }
}

TEST_P(FileCopyAttributes, VolumesWithoutOwnersStillGetThem) {
    if (!sourceHas(VLIBC_ATTR_HIDDEN)) {
        GTEST_SKIP() << "no DOS attributes in " << scratch.path();
    }
    for (const int type : {0, 12}) {
        kit::PlatformDouble::setType(to, type);
        kit::Faults::reset();
        kit::Faults::record(true);
        EXPECT_EQ(0, copy());
        EXPECT_EQ(1, callsOf("VLIBCKernelAttrFcntl", request.dst));
        EXPECT_EQ(1, callsOf("VLIBCFileUTime", request.dst));
        ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    }
}

// Where write permission is what says that a file is not locked, all three bits of it are set.
TEST_P(FileCopyAttributes, CopyToAVolumeWithoutALockFlagIsWritableForAll) {
    kit::PlatformDouble::setType(from, 1);
    for (const int type : {0, 5, 7}) {
        kit::PlatformDouble::setType(to, type);
        const auto modeOfCopy = [&] {
            EXPECT_EQ(0, copy());
            const mode_t mode = kit::statOf(request.dst).st_mode & 07777U;
            EXPECT_EQ(0, ::unlink(request.dst.c_str()));
            return mode;
        };
        for (const auto &[mode, arrives] : {std::pair{0640U, 0662U}, {0600U, 0622U}, {0444U, 0666U}}) {
            ASSERT_EQ(0, ::chmod(request.src.c_str(), mode));
            EXPECT_EQ(arrives, modeOfCopy()) << type;
        }
        ASSERT_EQ(0, ::chmod(request.src.c_str(), 0640));
        ASSERT_EQ(0, VLIBCKernelAttrCall(request.src.c_str(), 522));
        EXPECT_EQ(0440U, modeOfCopy()) << type;
        ASSERT_EQ(0, VLIBCKernelAttrCall(request.src.c_str(), 521));
    }
}

class FileCopyTimes : public EveryDoor {
  protected:
    std::string timeLine(int number) const {
        return "VLIBCFileUTime(" + request.dst + ") (errno:" + std::to_string(number) + " " + std::strerror(number) +
               ")";
    }
};
INSTANTIATE_TEST_SUITE_P(, FileCopyTimes, kDoors, doorName);

TEST_P(FileCopyTimes, AccessAndModificationAreCopiedToTheNanosecond) {
    timespec times[2] = {{1000000000, 123456789}, {1100000000, 987654321}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, request.src.c_str(), times, 0));
    EXPECT_EQ(0, copy());
    const auto made = kit::statOf(request.dst);
    EXPECT_EQ(times[0].tv_sec, made.st_atim.tv_sec);
    EXPECT_EQ(times[0].tv_nsec, made.st_atim.tv_nsec);
    EXPECT_EQ(times[1].tv_sec, made.st_mtim.tv_sec);
    EXPECT_EQ(times[1].tv_nsec, made.st_mtim.tv_nsec);
}

TEST_P(FileCopyTimes, CreationIsCopied) {
    const timespec times[3] = {{1000000000, 100}, {1100000000, 200}, {900000000, 300}};
    VLIBCStat source{};
    if (VLIBCFileUTime(request.src.c_str(), 3, times) != 0 || VLIBCFileStat(request.src.c_str(), kAll, &source) != 0 ||
        source.createTime.tv_sec != 900000000) {
        GTEST_SKIP() << "no creation time to be set in " << scratch.path();
    }
    EXPECT_EQ(0, copy());
    VLIBCStat made{};
    ASSERT_EQ(0, VLIBCFileStat(request.dst.c_str(), kAll, &made));
    EXPECT_EQ(900000000, made.createTime.tv_sec);
    EXPECT_EQ(300, made.createTime.tv_nsec);
    EXPECT_EQ(1100000000, made.st.st_mtim.tv_sec);
}

TEST_P(FileCopyTimes, VolumeThatKeepsNoCreationTimeIsSilent) {
    kit::Faults::failAlways("VLIBCFileUTime", EOPNOTSUPP, request.dst);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(1, kit::Faults::count("VLIBCFileUTime"));
    expectNoErrorLogged(source());
    expectNotReported();
}

TEST_P(FileCopyTimes, OtherFailuresAreLoggedOnly) {
    for (const int number : {EPERM, EIO, EROFS}) {
        kit::Log::reset();
        kit::Faults::reset();
        kit::Faults::failAlways("VLIBCFileUTime", number, request.dst);
        request.overwrite = 1;
        EXPECT_EQ(0, copy());
        expectLogged(source(), LOG_ERR, timeLine(number));
        expectCopied();
    }
    expectNotReported();
}

TEST_P(FileCopyTimes, RootStaysRoot) {
    FILE_COPY_NEEDS_ROOT();
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(0, kit::Faults::count("seteuid"));
}

TEST_P(FileCopyTimes, AnotherUserBecomesRootForThem) {
    FILE_COPY_NEEDS_ROOT();
    uid_t during = 4711;
    const AsUser user(kNobody); // before calls are counted: it is one of them
    kit::Faults::add(
        {.function = "VLIBCFileUTime", .path = request.dst, .times = 0, .before = [&] { during = ::geteuid(); }});
    (void)copy();
    EXPECT_EQ(kNobody, ::geteuid());
    EXPECT_EQ(GetParam() == Door::reentrant ? kNobody : 0U, during);
    EXPECT_EQ(GetParam() == Door::reentrant ? 0 : 2, kit::Faults::count("seteuid"));
    expectCopied();
}

TEST_P(FileCopyTimes, FailingAsRootStillComesBack) {
    FILE_COPY_NEEDS_ROOT();
    kit::Faults::failAlways("VLIBCFileUTime", EIO, request.dst);
    const AsUser user(kNobody);
    (void)copy();
    EXPECT_EQ(kNobody, ::geteuid());
    expectLogged(source(), LOG_ERR, timeLine(EIO));
}

TEST_P(FileCopyTimes, RootThatIsRefusedIsTriedWithout) {
    FILE_COPY_NEEDS_ROOT();
    if (GetParam() == Door::reentrant) {
        GTEST_SKIP() << "does not become root";
    }
    timespec times[2] = {{1000000000, 0}, {1100000000, 5}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, request.src.c_str(), times, 0));
    int result = -2;
    {
        const AsUser user(kNobody);
        kit::Faults::failAlways("seteuid", EPERM);
        result = copy();
        EXPECT_EQ(1, kit::Faults::count("seteuid")); // nothing to come back from
        kit::Faults::reset();
    }
    EXPECT_EQ(0, result);
    expectLogged(source(), LOG_DEBUG, "Failed to seteuid to 0(errno:1 Operation not permitted)");
    EXPECT_EQ(1100000000, kit::statOf(request.dst).st_mtim.tv_sec);
    expectNotReported();
}

TEST_P(FileCopyTimes, WayBackThatIsRefusedIsLogged) {
    FILE_COPY_NEEDS_ROOT();
    if (GetParam() == Door::reentrant) {
        GTEST_SKIP() << "does not become root";
    }
    {
        const AsUser user(kNobody);
        kit::Faults::fail("seteuid", EAGAIN, {}, 1);
        EXPECT_EQ(0, copy());
        kit::Faults::reset();
    }
    expectLogged(source(), LOG_DEBUG, "Failed to seteuid 65534(errno:11 Resource temporarily unavailable)");
    expectCopied();
}

} // namespace
} // namespace file_copy
