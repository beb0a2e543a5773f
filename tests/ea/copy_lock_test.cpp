// The locked state, as each kind of volume keeps it.
#include "ea/ea.h"
#include "tests/ea/item_store.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"

#include <cerrno>
#include <sys/stat.h>
#include <syslog.h>
#include <tuple>
#include <unistd.h>

namespace {

using namespace item_store;

// A header of that size whose file-server-info entry holds the AFP attribute word.
std::string withWord(uint16_t word, size_t size) {
    if (size == 402) {
        std::string bytes = metadataBytes("");
        bytes.replace(372, 2, adouble_bytes::number(word, 2));
        return bytes;
    }
    std::string bytes = adouble_bytes::header({{9, 50, 32}, {14, 82, 4}}, size);
    bytes.replace(84, 2, adouble_bytes::number(word, 2));
    return bytes;
}

class CopyLock : public kit::Behaviour {
  protected:
    void prepare(int fromKind, int toKind, const std::string &root) {
        from = {root + "/from", "f"};
        to = {root + "/to", "f"};
        makeVolume(from.directory, fromKind);
        makeVolume(to.directory, toKind);
        makeFile(from, fromKind);
        makeFile(to, toKind);
    }
    void prepare(int fromKind, int toKind) { prepare(fromKind, toKind, scratch.path()); }
    int copy(int fromKind = -1, int toKind = -1) const {
        return VEXOEACopy(from.path().c_str(), to.path().c_str(), 0, 0, fromKind, toKind, 0, 0);
    }
    // The header with the AFP word where the kind keeps it.
    static void putWord(const Place &place, int kind, uint16_t word) {
        if (kind == kFileEa) {
            kit::setAttribute(place.path(), "user.netatalk.Metadata", withWord(word, 402));
        } else {
            makeDirectories(place);
            kit::writeFile(place.resource(), withWord(word, 741));
        }
    }
    static uint32_t wordOf(const Place &place, int kind) {
        return kind == kFileEa ? word(kit::attribute(place.path(), "user.netatalk.Metadata"), 372, 2)
                               : word(content(place.resource()), 84, 2);
    }
    static mode_t mode(const Place &place) { return kit::statOf(place.path()).st_mode & 07777; }
    static bool logged(const std::string &source, const std::string &part) {
        for (const kit::LogLine &line : kit::Log::lines()) {
            if (line.priority == LOG_ERR && line.source == source && line.body.find(part) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    Place from, to;
};

TEST_F(CopyLock, UnlockedSourceUnlocksTheDestination) {
    for (const int fromKind : {kAppleDouble, kNative, kEaDirectory, kFileEa}) {
        for (const int toKind : {kAppleDouble, kNative, kEaDirectory, kFileEa}) {
            const std::string root = scratch / (std::to_string(fromKind) + "-" + std::to_string(toKind));
            ::mkdir(root.c_str(), 0755);
            prepare(fromKind, toKind, root);
            lock(to, toKind);
            ASSERT_TRUE(read(to, toKind).locked);
            EXPECT_EQ(0, copy()) << kit::Log::all();
            EXPECT_FALSE(read(to, toKind).locked) << name(fromKind) << " " << name(toKind);
        }
    }
}

TEST_F(CopyLock, AnyOfTheThreeBitsOfTheWordLocks) {
    for (const int kind : {kEaDirectory, kFileEa}) {
        for (const auto &[bits, locked] :
             {std::pair<uint16_t, bool>{0x0100, true}, {0x0080, true}, {0x0020, true}, {0xfe5f, false}, {0, false}}) {
            const std::string root = scratch / (std::to_string(kind) + "-" + std::to_string(bits));
            ::mkdir(root.c_str(), 0755);
            prepare(kind, kAppleDouble, root);
            putWord(from, kind, bits);
            EXPECT_EQ(0, copy()) << kit::Log::all();
            EXPECT_EQ(locked ? 0444u : 0666u, mode(to)) << name(kind) << std::hex << bits;
        }
    }
}

TEST_F(CopyLock, BitOfTheWordFollowsTheDestination) {
    for (const int kind : {kEaDirectory, kFileEa}) {
        for (const bool locked : {true, false}) {
            const std::string root = scratch / (std::to_string(kind) + (locked ? "on" : "off"));
            ::mkdir(root.c_str(), 0755);
            prepare(kAppleDouble, kind, root);
            putWord(to, kind, locked ? 0x0040 : 0x0140);
            if (locked) {
                lock(from, kAppleDouble);
            }
            EXPECT_EQ(0, copy()) << kit::Log::all();
            EXPECT_EQ(locked ? 0x0140u : 0x0040u, wordOf(to, kind)) << name(kind);
            EXPECT_EQ(locked, isPlatformLocked(to));
        }
    }
}

TEST_F(CopyLock, AbsentHeaderIsNotMade) {
    prepare(kAppleDouble, kEaDirectory);
    lock(from, kAppleDouble);
    EXPECT_EQ(0, copy());
    EXPECT_TRUE(isPlatformLocked(to));
    EXPECT_FALSE(kit::exists(to.eaDirectory()));
}

TEST_F(CopyLock, HeaderWithoutTheEntryIsLeftAlone) {
    prepare(kAppleDouble, kEaDirectory);
    lock(from, kAppleDouble);
    makeDirectories(to);
    const std::string bytes = adouble_bytes::header({{9, 50, 32}}, 741);
    kit::writeFile(to.resource(), bytes);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(bytes, kit::readFile(to.resource()));
}

TEST_F(CopyLock, FailingSystemCallFails) {
    for (const int kind : {kEaDirectory, kFileEa}) {
        const std::string root = scratch / std::to_string(kind);
        ::mkdir(root.c_str(), 0755);
        prepare(kAppleDouble, kind, root);
        kit::Log::reset();
        kit::Faults::fail("VLIBCKernelAttrCall", EPERM, to.path());
        EXPECT_EQ(-1, copy());
        EXPECT_TRUE(logged("ea/ea_copy_lock.c", "]EACopy lock fail: from [" + from.path() + "] to [" + to.path() +
                                                    "] Operation not permitted"))
            << kit::Log::all();
    }
}

TEST_F(CopyLock, FailingModeChangeFails) {
    prepare(kEaDirectory, kAppleDouble);
    kit::Faults::fail("chmod", EPERM, to.path());
    EXPECT_FAILS(copy(), 0x2A00);
    EXPECT_STREQ("ea/ea_copy_lock.c", VLIBCErrorGetFile());
    EXPECT_TRUE(logged("ea/ea_copy_lock.c", "[0x2A00 ea/ea_copy_lock.c:"));
}

TEST_F(CopyLock, MalformedHeaderFails) {
    prepare(kEaDirectory, kAppleDouble);
    makeDirectories(from);
    std::string bytes = withWord(0, 741);
    kit::writeFile(from.resource(), bytes.replace(30, 4, adouble_bytes::number(5000, 4)));
    EXPECT_EQ(-1, copy());
}

TEST_F(CopyLock, UserWhoDoesNotOwnTheFileLeavesItsMode) {
    prepare(kEaDirectory, kAppleDouble);
    lock(from, kEaDirectory);
    ::chmod(scratch.path().c_str(), 0777);
    ::chmod(to.directory.c_str(), 0777);
    ::chmod(from.directory.c_str(), 0777);
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root";
    }
    EXPECT_TRUE(kit::holdsInChild([&] {
        ASSERT_EQ(0, ::setresuid(1234, 1234, 1234));
        EXPECT_EQ(0, copy()) << kit::Log::all();
    }));
    EXPECT_EQ(0644u, mode(to));
    ASSERT_EQ(0, ::chown(to.path().c_str(), 1234, 1234));
    EXPECT_TRUE(kit::holdsInChild([&] {
        ASSERT_EQ(0, ::setresuid(1234, 1234, 1234));
        EXPECT_EQ(0, copy()) << kit::Log::all();
    }));
    EXPECT_EQ(0444u, mode(to));
}

TEST_F(CopyLock, OtherDestinationGetsNothing) {
    prepare(kEaDirectory, kAppleDouble);
    lock(from, kEaDirectory);
    kit::Faults::record(true);
    EXPECT_EQ(0, copy(kEaDirectory, 99));
    EXPECT_EQ(0644u, mode(to));
    EXPECT_EQ(0, kit::Faults::count("VLIBCKernelAttrCall")) << "nor the archive bit";
}

TEST_F(CopyLock, Type12TakesItFromTheDirectoryKindsOnly) {
    for (const int kind : {kEaDirectory, kFileEa, kAppleDouble, kNative}) {
        const std::string root = scratch / std::to_string(kind);
        ::mkdir(root.c_str(), 0755);
        prepare(kind, kEaDirectory, root);
        lock(from, kind);
        EXPECT_EQ(0, copy(kind, 12));
        EXPECT_EQ(kind == kEaDirectory || kind == kFileEa, isPlatformLocked(to)) << name(kind);
    }
}

} // namespace
