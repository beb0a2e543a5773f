// Making an "@eaDir": its mode, its marks, and the period as root.
#include "ea/ea.h"

#include "tests/kit/behaviour.h"

#include <cerrno>
#include <string>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr uid_t kStranger = 65534;

class MakeDirectory : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root, as which directories of companions are made";
        }
        kit::PlatformDouble::setType(scratch.path(), 1);
        answerAcl(0);
    }
    // Leaves what the platform does for an ACL out of the record.
    static void answerAcl(int error) {
        kit::Faults::reset();
        kit::Faults::add({.function = "VEXOACLSetEADirACL",
                          .error = error,
                          .result = error == 0 ? 0 : -1,
                          .times = 0,
                          .answers = true});
        kit::Faults::record(true); // counts from here on
    }
    void TearDown() override {
        Behaviour::TearDown();
        kit::Faults::reset();
        if (::getuid() == 0) {
            (void)::seteuid(0);
        }
    }
    void becomeUser() {
        ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755)); // where that user may not write
        ASSERT_EQ(0, ::seteuid(kStranger));
        processAsNow();
    }
    mode_t mode(const std::string &of) const { return kit::statOf(of).st_mode & 07777; }

    const std::string directory = scratch / "@eaDir";
    const std::string perFile = directory + "/file";
};

TEST_F(MakeDirectory, NullIsRefused) {
    EXPECT_FAILS(VEXOEAMKDir(0, nullptr), 0x0D00);
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Invaild Argument (((void *)0) != szEADirPath)=[0]\n")) << kit::Log::all();
    EXPECT_EQ("ea/ea_mkdir.c", kit::Log::lines()[0].source);
}

TEST_F(MakeDirectory, IsOpenToAllDespiteTheUmask) {
    const mode_t before = ::umask(0777);
    EXPECT_EQ(0, VEXOEAMKDir(0, directory.c_str()));
    ::umask(before);
    EXPECT_TRUE(S_ISDIR(kit::statOf(directory).st_mode));
    EXPECT_EQ(0777u, mode(directory));
}

TEST_F(MakeDirectory, ParentIsMadeWhenAsked) {
    EXPECT_FAILS(VEXOEAMKDir(0, perFile.c_str()), 0x3C00);
    EXPECT_FALSE(kit::exists(directory));
    EXPECT_EQ(0, VEXOEAMKDir(1, perFile.c_str()));
    EXPECT_EQ(0777u, mode(directory));
    EXPECT_EQ(0777u, mode(perFile));
    EXPECT_EQ(0, VEXOEAMKDir(1, perFile.c_str()));
}

TEST_F(MakeDirectory, ParentOfABareNameIsRefused) {
    EXPECT_FAILS(VEXOEAMKDir(1, "@eaDir"), 0x0D00);
}

TEST_F(MakeDirectory, ParentThatCannotBeMadeEndsIt) {
    kit::Faults::fail("mkdir", EROFS);
    EXPECT_FAILS(VEXOEAMKDir(1, perFile.c_str()), 0x3C00);
    EXPECT_EQ(EROFS, errno);
    EXPECT_EQ(1, kit::Faults::count("mkdir"));
}

TEST_F(MakeDirectory, ExistingOneIsUntouched) {
    ASSERT_EQ(0, ::mkdir(directory.c_str(), 0));
    ASSERT_EQ(0, ::chmod(directory.c_str(), 0700));
    kit::PlatformDouble::setType(scratch.path(), 7);
    answerAcl(0);
    EXPECT_EQ(0, VEXOEAMKDir(0, directory.c_str()));
    EXPECT_EQ(std::vector<std::string>{"mkdir(" + directory + ")"}, kit::Faults::recorded());
    EXPECT_EQ(0700u, mode(directory));
}

TEST_F(MakeDirectory, RefusedChmodFails) {
    kit::Faults::fail("fchmod", EPERM);
    EXPECT_FAILS(VEXOEAMKDir(0, directory.c_str()), 0x2A00);
    EXPECT_EQ(EPERM, errno);
}

TEST_F(MakeDirectory, RefusedAclIsIgnored) {
    answerAcl(EOPNOTSUPP);
    EXPECT_EQ(0, VEXOEAMKDir(0, directory.c_str()));
    EXPECT_EQ(1, kit::Faults::count("VEXOACLSetEADirACL"));
}

TEST_F(MakeDirectory, IsHiddenFromMacClientsOnType7) {
    kit::PlatformDouble::setType(scratch.path(), 7);
    kit::NativeDouble::setVolume(scratch.path());
    EXPECT_EQ(0, VEXOEAMKDir(0, directory.c_str()));
    std::vector<std::string> calls = kit::Faults::recorded();
    for (std::string &call : calls) {
        call = call.substr(0, call.find('('));
    }
    EXPECT_EQ((std::vector<std::string>{"mkdir", "open", "opendir", "fchmod", "VEXOGetFSType", "fsetxattr", "setxattr",
                                        "VEXOACLSetEADirACL", "close"}),
              calls);
    std::string invisible(32, '\0');
    invisible[8] = '\x40';
    EXPECT_EQ(invisible, kit::attribute(directory, "com.apple.FinderInfo"));
}

TEST_F(MakeDirectory, FailingFinderInfoOnType7Fails) {
    kit::PlatformDouble::setType(scratch.path(), 7);
    kit::Faults::fail("setxattr", ENOSPC);
    EXPECT_FAILS(VEXOEAMKDir(0, directory.c_str()), 0x2A00);
    EXPECT_EQ(0, kit::Faults::count("VEXOACLSetEADirACL"));
}

TEST_F(MakeDirectory, OtherTypesGetNoFinderInfo) {
    for (const int type : {0, 1, 2, 3, 5, 6, 12, 18}) {
        kit::PlatformDouble::setType(scratch.path(), type);
        EXPECT_EQ(0, VEXOEAMKDir(0, (scratch / std::to_string(type)).c_str()));
    }
    EXPECT_EQ(0, kit::Faults::count("setxattr"));
}

TEST_F(MakeDirectory, UserBecomesRootForIt) {
    becomeUser();
    EXPECT_EQ(0, VEXOEAMKDir(1, perFile.c_str()));
    EXPECT_EQ(kStranger, ::geteuid());
    EXPECT_EQ(0777u, mode(perFile));
    EXPECT_EQ(0u, kit::statOf(directory).st_uid);
    EXPECT_FAILS(VEXOEAMKDir(0, (scratch / "none/@eaDir").c_str()), 0x3C00);
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(kStranger, ::geteuid());
    EXPECT_FAILS(VEXOEAMKDir(1, "@eaDir"), 0x0D00);
    EXPECT_EQ(kStranger, ::geteuid());
    if (kit::Faults::failAllocation(1)) {
        EXPECT_FAILS(VEXOEAMKDir(0, directory.c_str()), 0x0100);
        EXPECT_EQ(kStranger, ::geteuid());
    }
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(MakeDirectory, RefusedRootFails) {
    becomeUser();
    kit::Faults::failAlways("seteuid", EPERM);
    EXPECT_FAILS(VEXOEAMKDir(0, directory.c_str()), 0x3C00);
    EXPECT_EQ(0, kit::Faults::count("mkdir"));
    EXPECT_EQ(1, kit::Log::count(LOG_DEBUG, "Failed to seteuid to 0(errno:1 Operation not permitted)"))
        << kit::Log::all();
}

TEST_F(MakeDirectory, UserThatCannotBeGivenBackIsLogged) {
    becomeUser();
    processMayChange();
    kit::Faults::add({.function = "seteuid", .error = EAGAIN, .skip = 1, .times = 0});
    EXPECT_EQ(0, VEXOEAMKDir(0, directory.c_str()));
    EXPECT_EQ(1, kit::Log::count(LOG_DEBUG, "Failed to seteuid 65534(errno:11 Resource temporarily unavailable)"))
        << kit::Log::all();
}

} // namespace
