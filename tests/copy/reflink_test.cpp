// The switch for clone copies, and the test whether something can be cloned.
#include "copy/copy.h"

#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

const std::string kConfig = "/etc/vexoinfo.conf";

// ---- The switch, in the appliance's file

class Switch : public kit::Behaviour {
  protected:
    // Gives this process an /etc of its own.
    void usePrivateEtc() {
        m_etc.emplace(kit::Volume::overlay("/etc"));
        processAsNow();
        ::unlink(kConfig.c_str());
    }

  private:
    std::optional<kit::Volume> m_etc;
};

#define USE_PRIVATE_ETC()                                                                                              \
    try {                                                                                                              \
        usePrivateEtc();                                                                                               \
    } catch (const kit::Unavailable &missing) {                                                                        \
        GTEST_SKIP() << missing.reason;                                                                                \
    }

TEST_F(Switch, IsOnExactlyForYes) {
    USE_PRIVATE_ETC();
    EXPECT_EQ(0, VEXOFileCopyReflinkIsEnabled()) << "no file";
    kit::writeFile(kConfig, "support_btrfs=\"yes\"\n");
    EXPECT_EQ(0, VEXOFileCopyReflinkIsEnabled()) << "no key";
    kit::writeFile(kConfig, "support_btrfs=\"yes\"\nreflink_enable=\"yes\"\n");
    EXPECT_EQ(1, VEXOFileCopyReflinkIsEnabled());
    for (const char *other : {"no", "Yes", "YES", "yes ", " yes", "ye", "yess", "1", ""}) {
        kit::writeFile(kConfig, std::string("reflink_enable=\"") + other + "\"\n");
        EXPECT_EQ(0, VEXOFileCopyReflinkIsEnabled()) << "[" << other << "]";
    }
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(Switch, LongValueIsNotYes) {
    USE_PRIVATE_ETC();
    kit::writeFile(kConfig, "reflink_enable=\"yes" + std::string(3000, 'x') + "\"\n");
    EXPECT_EQ(0, VEXOFileCopyReflinkIsEnabled());
}

TEST_F(Switch, IsTurnedOnAndOff) {
    USE_PRIVATE_ETC();
    kit::writeFile(kConfig, "first=\"1\"\nsupport_btrfs=\"yes\"\nlast=\"2\"\n");
    EXPECT_EQ(0, VEXOFileCopyReflinkEnable(1));
    EXPECT_EQ(1, VEXOFileCopyReflinkIsEnabled());
    EXPECT_EQ("first=\"1\"\nsupport_btrfs=\"yes\"\nlast=\"2\"\nreflink_enable=\"yes\"\n", kit::readFile(kConfig));
    EXPECT_EQ(0, VEXOFileCopyReflinkEnable(0));
    EXPECT_EQ(0, VEXOFileCopyReflinkIsEnabled());
    EXPECT_EQ("first=\"1\"\nsupport_btrfs=\"yes\"\nlast=\"2\"\nreflink_enable=\"no\"\n", kit::readFile(kConfig));
    EXPECT_EQ(0, VEXOFileCopyReflinkEnable(-3));
    EXPECT_EQ(1, VEXOFileCopyReflinkIsEnabled());
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_F(Switch, StaysAsItIsWithoutBtrfs) {
    USE_PRIVATE_ETC();
    struct Case {
        const char *content;
        int result;
    };
    for (const Case example : {Case{"support_btrfs=\"no\"\nreflink_enable=\"no\"\n", 2}, Case{"other=\"yes\"\n", 0},
                               Case{"support_btrfs=\"\"\n", 0}, Case{"support_btrfs=\"YES\"\n", 3},
                               Case{"support_btrfs=\"yes, maybe\"\n", 10}}) {
        SCOPED_TRACE(example.content);
        kit::writeFile(kConfig, example.content);
        VLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(example.result, VEXOFileCopyReflinkEnable(1));
        EXPECT_EQ(0xD900u, VLIBCErrGet());
        EXPECT_STREQ("copy/file_copy_reflink_enable.c", VLIBCErrorGetFile());
        EXPECT_EQ(example.content, kit::readFile(kConfig));
    }
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(Switch, FileThatCannotBeReadKeepsThePlatformsResult) {
    USE_PRIVATE_ETC();
    EXPECT_GT(0, VEXOFileCopyReflinkEnable(1));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_FALSE(kit::exists(kConfig));
    kit::Faults::add({.function = "VLIBCFileGetKeyValue", .error = EIO, .result = -5, .times = 2});
    EXPECT_EQ(-5, VEXOFileCopyReflinkEnable(1));
    EXPECT_EQ(0, VEXOFileCopyReflinkIsEnabled());
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_F(Switch, FileThatCannotBeWrittenKeepsThePlatformsResult) {
    USE_PRIVATE_ETC();
    kit::writeFile(kConfig, "support_btrfs=\"yes\"\n");
    for (const long result : {0, -1, -7}) {
        kit::Faults::add({.function = "VLIBCFileSetKeyValue", .error = EROFS, .result = result});
        EXPECT_EQ(result, VEXOFileCopyReflinkEnable(1));
        kit::Faults::reset();
    }
    kit::Faults::add({.function = "VLIBCFileSetKeyValue", .result = 42, .answers = true});
    EXPECT_EQ(0, VEXOFileCopyReflinkEnable(1));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_EQ("support_btrfs=\"yes\"\n", kit::readFile(kConfig));
}

// ---- Can it be cloned?

class Cloneable : public kit::Behaviour {
  protected:
    // A source directory with a file in it and a destination directory, both on one btrfs volume with equal settings.
    void SetUp() override {
        Behaviour::SetUp();
        ASSERT_EQ(0, ::mkdir(source().c_str(), 0755));
        ASSERT_EQ(0, ::mkdir(destination().c_str(), 0755));
        kit::writeFile(file(), "content");
        kit::PlatformDouble::setType(scratch.path(), 3);
        kit::PlatformDouble::setShare(source(), "from", 0, false);
        kit::PlatformDouble::setShare(destination(), "to", 0, false);
        kit::PlatformDouble::setMountPath(scratch.path(), "/volume1");
        kit::PlatformDouble::setNodatacow(scratch.path(), 0);
        kit::PlatformDouble::setCompression(scratch.path(), 2);
    }
    std::string source() const { return scratch / "from"; }
    std::string destination() const { return scratch / "to"; }
    std::string file() const { return source() + "/file"; }

    int ask(uint32_t flags = 0) const { return VEXOFileCopyIsCloneable(file().c_str(), destination().c_str(), flags); }
    // An answer that carries its reason itself.
    void expectAnswer(int answer, uint32_t flags = 0) const {
        VLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(answer, ask(flags));
        EXPECT_EQ(0u, VLIBCErrGet());
        EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
    }
};

TEST_F(Cloneable, FileIntoADirectoryWithEqualSettings) {
    expectAnswer(0);
    expectAnswer(0, 1);
    expectAnswer(0, 2);
    expectAnswer(0, 3);
}

TEST_F(Cloneable, DirectoryIntoADirectory) {
    EXPECT_EQ(0, VEXOFileCopyIsCloneable(source().c_str(), destination().c_str(), 0));
}

TEST_F(Cloneable, LinksAreFollowed) {
    ASSERT_EQ(0, ::symlink(file().c_str(), (scratch / "link").c_str()));
    ASSERT_EQ(0, ::symlink(destination().c_str(), (scratch / "into").c_str()));
    kit::Faults::record(true);
    EXPECT_EQ(0, VEXOFileCopyIsCloneable((scratch / "link").c_str(), (scratch / "into").c_str(), 0));
    int sourceAsked = 0;
    int destinationAsked = 0;
    for (const std::string &call : kit::Faults::recorded()) {
        sourceAsked += call == "VEXOGetFSType(" + source() + ")" ? 1 : 0;
        destinationAsked += call == "VEXOGetFSType(" + destination() + ")" ? 1 : 0;
    }
    EXPECT_EQ(1, sourceAsked) << "the directory that really holds the file";
    EXPECT_EQ(1, destinationAsked);
}

TEST_F(Cloneable, PathsThatCannotBeResolved) {
    EXPECT_EQ(-2, VEXOFileCopyIsCloneable((scratch / "none").c_str(), destination().c_str(), 0));
    EXPECT_EQ(-2, VEXOFileCopyIsCloneable(file().c_str(), (scratch / "none").c_str(), 0));
    EXPECT_EQ(-2, VEXOFileCopyIsCloneable("", destination().c_str(), 0));
    EXPECT_EQ(-2, VEXOFileCopyIsCloneable(nullptr, destination().c_str(), 0));
    EXPECT_EQ(-2, VEXOFileCopyIsCloneable(file().c_str(), nullptr, 0));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(Cloneable, KindsThatCannotBeCloned) {
    EXPECT_EQ(-2, VEXOFileCopyIsCloneable(file().c_str(), file().c_str(), 0)) << "into a file";
    ASSERT_EQ(0, ::mkfifo((scratch / "fifo").c_str(), 0644));
    EXPECT_EQ(-2, VEXOFileCopyIsCloneable((scratch / "fifo").c_str(), destination().c_str(), 0));
    EXPECT_EQ(-2, VEXOFileCopyIsCloneable("/dev/null", destination().c_str(), 0));
    EXPECT_EQ(0u, VLIBCErrGet());
}

TEST_F(Cloneable, FailedStat) {
    struct Row {
        int number;
        uint32_t code;
        const char *text;
    };
    for (const Row row : {Row{EIO, 0x6C00, "Input/output error"}, Row{ENXIO, 0x6C00, "No such device or address"},
                          Row{EHOSTDOWN, 0x1100, "Host is down"}, Row{EACCES, 0, "Permission denied"}}) {
        for (const std::string &path : {file(), destination()}) {
            SCOPED_TRACE(path + ": " + row.text);
            kit::Log::reset();
            VLIBCErrSetEx(0, "", 0);
            kit::Faults::fail("stat", row.number, path);
            EXPECT_EQ(-1, ask());
            EXPECT_EQ(row.code, VLIBCErrGet());
            ASSERT_EQ(1, kit::Log::count(LOG_ERR, "failed to stat path [" + path + "], reason=[(" +
                                                      std::to_string(row.number) + ")" + row.text + "]"))
                << kit::Log::all();
            EXPECT_EQ("copy/file_copy_is_cloneable.c", kit::Log::lines()[0].source);
            kit::Faults::reset();
        }
    }
}

TEST_F(Cloneable, BothMustBeBtrfs) {
    for (const std::string &side : {source(), destination()}) {
        for (const int type : {2, 0, 1, -1}) {
            kit::PlatformDouble::setType(side, type, EIO);
            expectAnswer(-3);
        }
        kit::PlatformDouble::setType(side, 3);
    }
    expectAnswer(0);
}

TEST_F(Cloneable, EncryptedShareOnEitherSide) {
    kit::PlatformDouble::setShare(source(), "from", 0, true);
    expectAnswer(-7);
    kit::PlatformDouble::setShare(source(), "from", 0, false);
    kit::PlatformDouble::setShare(destination(), "to", 0, true);
    expectAnswer(-7);
    EXPECT_EQ(-7, ask(3)) << "no flag skips it";
}

TEST_F(Cloneable, ShareThatCannotBeToldIsRefused) {
    for (const uint32_t code : {0x0D00u, 0xBE00u}) {
        for (const std::string &side : {source(), destination()}) {
            kit::Faults::add({.function = "VEXOShareNamePathGet", .error = EINVAL, .path = side, .lastError = code});
            EXPECT_EQ(-2, ask());
            kit::Faults::reset();
        }
    }
}

TEST_F(Cloneable, PathInNoShareCountsAsNotEncrypted) {
    kit::Faults::add({.function = "VEXOShareNamePathGet", .error = ENOENT, .times = 0, .lastError = 0x0700});
    EXPECT_EQ(0, ask());
    EXPECT_EQ(0, kit::Faults::count("VEXOShareGet"));
}

TEST_F(Cloneable, ShareRecordIsReleasedWhateverItSays) {
    kit::Faults::fail("VEXOShareGet", ENOENT, "from");
    EXPECT_EQ(-2, ask());
    EXPECT_EQ(0, kit::Faults::count("VEXOShareFree"));
    kit::Faults::reset();
    kit::Faults::fail("VLIBShareIsEncryptionGet", EIO, destination());
    EXPECT_EQ(-2, ask());
    EXPECT_EQ(2, kit::Faults::count("VEXOShareGet"));
    EXPECT_EQ(2, kit::Faults::count("VEXOShareFree"));
}

TEST_F(Cloneable, OtherVolume) {
    kit::PlatformDouble::setMountPath(destination(), "/volume2");
    expectAnswer(-4);
    expectAnswer(-4, 3);
    for (const std::string &side : {source(), destination()}) {
        kit::Faults::fail("VEXOFSMntPathGet", EIO, side);
        expectAnswer(-1);
        kit::Faults::reset();
    }
}

TEST_F(Cloneable, NodatacowDiffers) {
    kit::PlatformDouble::setNodatacow(destination(), 1);
    expectAnswer(-5);
    expectAnswer(-5, 2);
    expectAnswer(0, 1);
    for (const std::string &side : {source(), destination()}) {
        kit::Faults::fail("VLIBFSGetBTRFSNodatacow", EIO, side);
        expectAnswer(-1);
        expectAnswer(0, 1);
        kit::Faults::reset();
    }
}

TEST_F(Cloneable, CompressionDiffers) {
    kit::PlatformDouble::setCompression(destination(), 1);
    expectAnswer(-6);
    expectAnswer(-6, 1);
    expectAnswer(0, 2);
    expectAnswer(0, 3);
    for (const std::string &side : {source(), destination()}) {
        kit::Faults::fail("VLIBFSGetBTRFSCompression", EIO, side);
        expectAnswer(-1);
        expectAnswer(0, 2);
        kit::Faults::reset();
    }
}

TEST_F(Cloneable, FirstDifferenceIsTheAnswer) {
    kit::PlatformDouble::setCompression(destination(), 1);
    expectAnswer(-6);
    kit::PlatformDouble::setNodatacow(destination(), 1);
    expectAnswer(-5);
    kit::PlatformDouble::setMountPath(destination(), "/volume2");
    expectAnswer(-4);
    kit::PlatformDouble::setShare(destination(), "to", 0, true);
    expectAnswer(-7);
    kit::PlatformDouble::setType(destination(), 2);
    expectAnswer(-3);
}

TEST_F(Cloneable, FileOfTheRootDirectoryLiesInIt) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root for a root directory of its own";
    }
    EXPECT_TRUE(kit::holdsInChild([this] {
        ASSERT_EQ(0, ::chroot(source().c_str()));
        kit::PlatformDouble::setType("/", 3);
        kit::PlatformDouble::setShare("/", "root", 0, false);
        kit::PlatformDouble::setMountPath("/", "/");
        kit::PlatformDouble::setNodatacow("/", 0);
        kit::PlatformDouble::setCompression("/", 0);
        EXPECT_EQ(0, VEXOFileCopyIsCloneable("/file", "/", 0));
    }));
}

// On real volumes, with the platform's own answers.
class CloneableVolume : public kit::Behaviour {
  protected:
    static constexpr uint64_t kSize = 256 * 1024 * 1024;
};

TEST_F(CloneableVolume, SettingsOfRealDirectories) {
    KIT_REQUIRE(volume, kit::Volume::loop("btrfs", kSize));
    KIT_REQUIRE(other, kit::Volume::loop("btrfs", kSize));
    processAsNow();
    kit::writeFile(volume / "file", "content");
    for (const char *name : {"plain", "uncowed", "compressed"}) {
        ASSERT_EQ(0, ::mkdir((volume / name).c_str(), 0755));
    }
    ASSERT_EQ(0, std::system(("chattr +C " + (volume / "uncowed")).c_str()));
    ASSERT_EQ(0, std::system(("chattr +c " + (volume / "compressed")).c_str()));
    const auto ask = [&volume](const std::string &destination, uint32_t flags) {
        return VEXOFileCopyIsCloneable((volume / "file").c_str(), destination.c_str(), flags);
    };
    EXPECT_EQ(0, ask(volume / "plain", 0));
    EXPECT_EQ(-5, ask(volume / "uncowed", 0));
    EXPECT_EQ(0, ask(volume / "uncowed", 1));
    EXPECT_EQ(-6, ask(volume / "compressed", 0));
    EXPECT_EQ(0, ask(volume / "compressed", 2));
    EXPECT_EQ(-4, ask(other.path(), 0));
    EXPECT_EQ(-3, ask(scratch.path(), 0));
}

} // namespace
