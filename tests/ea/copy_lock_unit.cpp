// The copy of the locked state by itself, with the arguments that no other step of a copy gives it.
#include "ea/carry/routines.h"
#include "tests/ea/store_copy.h"

#include <cerrno>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using namespace item_store;

int copy_lock(const char *src, const char *dst, int srcCode, int dstCode) {
    return vexo::copy_lock({src, dst, false, false, srcCode, dstCode, {}, false});
}

class LockAlone : public store_copy::StoreCopy {
  protected:
    int carry(int fromKind = -1, int toKind = -1) const {
        return copy_lock(from.path().c_str(), to.path().c_str(), fromKind, toKind);
    }
    // A failing copy's lines: the one about a kind, if it has one, and the one about the lock.
    void expectLines(const std::string &kind, const std::string &reason) const {
        EXPECT_EQ(kind.empty() ? 0 : 1, kit::Log::count(LOG_ERR, kind)) << kit::Log::all();
        const std::string last = "]EACopy lock fail: from [" + from.path() + "] to [" + to.path() + "] " + reason;
        ASSERT_FALSE(kit::Log::lines().empty());
        EXPECT_TRUE(kit::Log::lines().back().text.starts_with("ea/ea_copy_lock.c:")) << kit::Log::all();
        EXPECT_TRUE(kit::Log::lines().back().text.ends_with(last)) << kit::Log::all();
    }
};

TEST_F(LockAlone, NullAndEmptyPathsAreRefused) {
    EXPECT_FAILS(copy_lock(nullptr, "/a", 1, 1), 0x0D00);
    EXPECT_FAILS(copy_lock("/a", nullptr, 1, 1), 0x0D00);
    EXPECT_FAILS(copy_lock("", "/a", 1, 1), 0x0D00);
    EXPECT_FAILS(copy_lock("/a", "", 1, 1), 0x0D00);
    EXPECT_STREQ("ea/ea_copy_lock.c", VLIBCErrorGetFile());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(LockAlone, KindsAreAsked) {
    prepare(kAppleDouble, kNative, {});
    lock(from, kAppleDouble);
    EXPECT_EQ(0, carry());
    EXPECT_EQ(0u, kit::statOf(to.path()).st_mode & 0222u);
}

TEST_F(LockAlone, KindsThatCannotBeToldFail) {
    prepare(kAppleDouble, kNative, {});
    kit::PlatformDouble::setType(from.directory, -1, EIO);
    EXPECT_EQ(-1, carry());
    expectLines("Failed to get fs type of " + from.path() + ".\n", "Input/output error");
    EXPECT_NE(std::string::npos, kit::Log::all().find("(VEXOEACopyLock) Failed to get fs type of " + from.path()));
    kit::PlatformDouble::setType(from.directory, kAppleDouble);
    kit::PlatformDouble::setType(to.directory, -1, ENXIO);
    kit::Log::reset();
    EXPECT_EQ(-1, carry());
    expectLines("Failed to get fs type of " + to.path() + ".\n", "No such device or address");
    to = {"relative", ""};
    kit::Log::reset();
    EXPECT_EQ(-1, copy_lock(from.path().c_str(), "relative", kAppleDouble, -1));
    EXPECT_NE(std::string::npos, kit::Log::all().find("(VEXOEACopyLock) Failed to strrchr '/' of relative, reason="));
}

TEST_F(LockAlone, MissingSourceIsNoFailure) {
    prepare(kAppleDouble, kNative, {});
    ::unlink(from.path().c_str());
    const mode_t before = kit::statOf(to.path()).st_mode;
    for (const int kind : {5, 7, 1, 2, -1, 99}) {
        EXPECT_EQ(0, carry(kind, kNative)) << kind;
        EXPECT_EQ(0, carry(kind, 99)) << kind;
    }
    EXPECT_EQ(before, kit::statOf(to.path()).st_mode);
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(LockAlone, SourceOfAnotherKindHasANumberOfItsOwn) {
    prepare(kAppleDouble, kNative, {});
    for (const int toKind : {static_cast<int>(kNative), 99}) {
        kit::Log::reset();
        errno = 0;
        EXPECT_EQ(-2, carry(99, toKind));
        expectLines("", "Success");
    }
}

TEST_F(LockAlone, SourceThatCannotBeLookedAtFails) {
    for (const int kind : {kAppleDouble, kNative}) {
        prepare(kind, kNative, {}, newRoot());
        kit::Faults::fail("stat", EIO, from.path());
        EXPECT_EQ(-1, carry(kind, kNative)) << kind;
        expectLines("", "Input/output error");
    }
    prepare(kEaDirectory, kNative, {}, newRoot());
    kit::Faults::fail("VLIBCFileStat", EIO, from.path());
    EXPECT_EQ(0, carry(kEaDirectory, kNative)) << "a flag that cannot be read is not set";
}

TEST_F(LockAlone, DestinationThatCannotBeLookedAtFails) {
    prepare(kEaDirectory, kNative, {});
    kit::Faults::fail("stat", EIO, to.path());
    EXPECT_EQ(-1, carry(kEaDirectory, kNative));
    expectLines("", "Input/output error");
}

TEST_F(LockAlone, MetadataWithoutRoomForTheWordHaveNone) {
    prepare(kFileEa, kFileEa, {});
    std::vector<adouble_bytes::Entry> entries = adouble_bytes::kMetadata;
    entries[3] = {14, 1021, 3};
    const std::string bytes = adouble_bytes::header(entries, 402);
    kit::setAttribute(from.path(), "user.netatalk.Metadata", bytes);
    kit::setAttribute(to.path(), "user.netatalk.Metadata", bytes);
    lock(from, kFileEa);
    EXPECT_EQ(0, carry(kFileEa, kFileEa));
    EXPECT_TRUE(isPlatformLocked(to));
    EXPECT_EQ(bytes, kit::attribute(to.path(), "user.netatalk.Metadata"));
}

} // namespace
