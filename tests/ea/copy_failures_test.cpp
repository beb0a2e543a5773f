// That every failing copy of a store has a last error, whatever the caller's was before, and that its lines and its
// silence are about this failure and not about one that was tolerated before.
#include "copy/copy.h"
#include "ea/ea.h"
#include "tests/ea/store_copy.h"

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace item_store;

constexpr uint32_t kStale = 0x1234;

int failSilently(const char * /*from*/, const char * /*to*/) {
    return -1;
}

class CopyFailures : public store_copy::StoreCopy {
  protected:
    // The copy fails, and has an error of its own.
    void expectCode(uint32_t code, bool move = false, int fromKind = -1, int toKind = -1) {
        VLIBCErrSetEx(kStale, "of before", 1);
        EXPECT_EQ(-1, copy(move, fromKind, toKind));
        EXPECT_EQ(code, VLIBCErrGet()) << kit::Log::all();
        kit::Faults::reset();
    }
};

TEST_F(CopyFailures, EachHasALastError) {
    prepare(kEaDirectory, kEaDirectory);
    expectCode(0x8000, false, 99);
    kit::PlatformDouble::setType(from.directory, -1, EIO);
    expectCode(0x8000);
    kit::PlatformDouble::setType(from.directory, kEaDirectory);
    kit::PlatformDouble::setType(to.directory, -1, EIO);
    expectCode(0x8000);
    VLIBCErrSetEx(kStale, "of before", 1);
    EXPECT_FAILS(VEXOEACopy(from.path().c_str(), "f", 0, 0, kEaDirectory, -1, 0, 0), 0x8000);
}

TEST_F(CopyFailures, LockThatCannotBeReadOrSetHasOne) {
    prepare(kAppleDouble, kAppleDouble, {}, newRoot());
    kit::Faults::failAlways("stat", EIO, from.path());
    expectCode(0x8000);
    prepare(kEaDirectory, kEaDirectory, {}, newRoot());
    kit::Faults::failAlways("VLIBCKernelAttrCall", EIO, to.path());
    expectCode(0x2A00);
}

TEST_F(CopyFailures, NativeSourceThatCannotBeReadHasOne) {
    for (const int toKind : {kAppleDouble, kNative, kEaDirectory, kFileEa}) {
        prepare(kNative, toKind, some(), newRoot());
        kit::Faults::failAlways("getxattr", EIO, from.path());
        expectCode(0x0A00);
    }
}

TEST_F(CopyFailures, StreamThatCannotBeLookedAtHasOne) {
    prepare(kEaDirectory, kNative, some());
    kit::Faults::fail("fstat", EIO, from.stream(), 1); // the first belongs to its opening
    expectCode(0x0A00);
}

TEST_F(CopyFailures, LastErrorOfBeforeSurvivesASuccess) {
    prepare(kEaDirectory, kEaDirectory);
    VLIBCErrSetEx(kStale, "of before", 1);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(kStale, VLIBCErrGet());
}

TEST_F(CopyFailures, LastComponentsThatNameNothingAreRefused) {
    prepare(kEaDirectory, kEaDirectory);
    const std::string src = from.path();
    for (const std::string &dst :
         {from.directory + "/..", from.directory + "/.", from.directory + "//", std::string()}) {
        SCOPED_TRACE(dst);
        EXPECT_FAILS(VEXOEACopy(src.c_str(), dst.c_str(), 1, 1, kEaDirectory, kEaDirectory, 0, 0), 0x0D00);
        EXPECT_FAILS(VEXOEACopy(dst.c_str(), src.c_str(), 1, 1, kEaDirectory, kEaDirectory, 0, 0), 0x0D00);
    }
    EXPECT_EQ(some(), read(from, kEaDirectory));
}

// Only a volume that says so itself fails without a line.
TEST_F(CopyFailures, ToleratedAclDoesNotSilenceACallback) {
    prepare(kEaDirectory, kEaDirectory);
    kit::Faults::failAlways("VEXOACLSetEADirACL", EOPNOTSUPP);
    EXPECT_EQ(-1, VEXOEACopyEx(from.path().c_str(), to.path().c_str(), 0, 0, -1, -1, 0, 0, failSilently));
    EXPECT_EQ(0x8000u, VLIBCErrGet());
    EXPECT_TRUE(logged("]EACopy fail: from [" + from.path() + "] to [" + to.path() + "]")) << kit::Log::all();
    EXPECT_TRUE(logged("]Failed to cp -f " + from.resource() + " " + to.resource())) << kit::Log::all();
}

// Somebody else's file was open to the copy already.
TEST_F(CopyFailures, ModeOfSomebodyElsesStoreIsOnlyALine) {
    for (const bool move : {false, true}) {
        prepare(kEaDirectory, kEaDirectory, some(), newRoot());
        kit::Faults::failAlways("fchmod", EPERM, to.resource());
        EXPECT_EQ(0, copy(move)) << kit::Log::all();
        EXPECT_TRUE(logged("Failed to chmod " + to.resource() + ". Operation not permitted")) << kit::Log::all();
        kit::Faults::reset();
        EXPECT_EQ(some(), read(to, kEaDirectory)) << move;
    }
}

// What lies where the attributes would be is not taken for them.
TEST_F(CopyFailures, DoubleWithoutFinderInfoHasNoAttributes) {
    for (const int toKind : {kEaDirectory, kFileEa}) {
        prepare(kAppleDouble, toKind, {}, newRoot());
        const std::string fork = kit::pattern(500, 11);
        kit::writeFile(from.dotFile(), adouble_bytes::header({{2, 38, 500}}, 38) + fork);
        EXPECT_EQ(0, copy(true)) << name(toKind) << kit::Log::all();
        EXPECT_EQ((Items{"", fork, {}, {}, false}), read(to, toKind)) << name(toKind);
        EXPECT_FALSE(kit::exists(to.stream()));
    }
}

} // namespace
