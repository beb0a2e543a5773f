// The guards of what a call changes in the process, the way failures are reported, and the kernel's DOS attributes.
#include "support/dos_attributes.h"
#include "support/guards.h"
#include "support/report.h"

#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"

#include <cerrno>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace vexo;

class Guards : public kit::Behaviour {};

TEST_F(Guards, UmaskForAScope) {
    const mode_t before = ::umask(027);
    {
        const UmaskGuard guard(0);
        EXPECT_EQ(0u, ::umask(0));
    }
    EXPECT_EQ(027u, ::umask(before));
}

TEST_F(Guards, ErrorsAreKeptOverACleanUp) {
    VLIBCErrSetEx(0x2900, "copy/cause.c", 7);
    errno = ENOSPC;
    {
        const KeepErrors keep;
        VLIBCErrSetEx(0x0900, "copy/clean_up.c", 8);
        errno = ENOENT;
    }
    EXPECT_EQ(0x2900u, VLIBCErrGet());
    EXPECT_STREQ("copy/cause.c", VLIBCErrorGetFile());
    EXPECT_EQ(7u, VLIBCErrorGetLine());
    EXPECT_EQ(ENOSPC, errno);
}

TEST_F(Guards, ErrnoAloneLeavesTheLastError) {
    VLIBCErrSetEx(0x2900, "copy/cause.c", 7);
    errno = ENOSPC;
    {
        const KeepErrno keep;
        VLIBCErrSetEx(0x0900, "copy/later.c", 8);
        errno = ENOENT;
    }
    EXPECT_EQ(0x0900u, VLIBCErrGet());
    EXPECT_EQ(ENOSPC, errno);
}

// ---- A period as root

class RootPeriods : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root to become another user";
        }
    }
    // As a service run by root that works for user 1024, which may be root again.
    static void workForAUser() { ASSERT_EQ(0, ::setresuid(0, 1024, 0)); }
};

TEST_F(RootPeriods, RootStaysRootWithoutACall) {
    kit::Faults::failAlways("seteuid", EPERM);
    RootPeriod period;
    EXPECT_TRUE(period.become_root());
    EXPECT_TRUE(period.restore());
    EXPECT_EQ(0u, period.before());
    EXPECT_EQ(0, kit::Faults::count("seteuid"));
}

TEST_F(RootPeriods, OtherUserBecomesRootAndBack) {
    EXPECT_TRUE(kit::holdsInChild([] {
        workForAUser();
        RootPeriod period;
        EXPECT_TRUE(period.become_root());
        EXPECT_EQ(0u, ::geteuid());
        EXPECT_EQ(1024u, period.before());
        EXPECT_TRUE(period.restore());
        EXPECT_EQ(1024u, ::geteuid());
    }));
}

TEST_F(RootPeriods, EndRestoresAndKeepsErrno) {
    EXPECT_TRUE(kit::holdsInChild([] {
        workForAUser();
        {
            RootPeriod period;
            EXPECT_TRUE(period.become_root());
            errno = 77;
        }
        EXPECT_EQ(77, errno);
        EXPECT_EQ(1024u, ::geteuid());
    }));
}

TEST_F(RootPeriods, UserThatMayNotLeavesErrno) {
    EXPECT_TRUE(kit::holdsInChild([] {
        ASSERT_EQ(0, ::setresuid(1024, 1024, 1024));
        RootPeriod period;
        EXPECT_FALSE(period.become_root());
        EXPECT_EQ(EPERM, errno);
        EXPECT_TRUE(period.restore()) << "nothing was changed";
        EXPECT_EQ(1024u, ::geteuid());
    }));
}

TEST_F(RootPeriods, FailedRestoreIsToldAndTriedAgainAtTheEnd) {
    EXPECT_TRUE(kit::holdsInChild([] {
        workForAUser();
        {
            RootPeriod period;
            EXPECT_TRUE(period.become_root());
            kit::Faults::fail("seteuid", EAGAIN);
            EXPECT_FALSE(period.restore());
            EXPECT_EQ(EAGAIN, errno);
            EXPECT_EQ(0u, ::geteuid());
        }
        EXPECT_EQ(1024u, ::geteuid());
    }));
}

// ---- Reporting

class Reports : public kit::Behaviour {};

TEST_F(Reports, SourceNamesArePathsFromTheRootEndingInC) {
    EXPECT_STREQ("tests/support/process_unit.c", VEXO_SOURCE);
    EXPECT_STREQ("copy/a.c", sourceName<"copy/a.cpp">.text);
    EXPECT_STREQ("copy/a.c", sourceName<"copy/a.c">.text);
    EXPECT_STREQ("copy/a.b.c", sourceName<"copy/a.b.cc">.text);
}

TEST_F(Reports, FailSetsTheErrorWhereItStands) {
    EXPECT_EQ(-1, fail(Error::quota, VEXO_HERE));
    const uint32_t line = __LINE__ - 1;
    EXPECT_EQ(0x2400u, VLIBCErrGet());
    EXPECT_EQ(Error::quota, last_error());
    EXPECT_STREQ("tests/support/process_unit.c", VLIBCErrorGetFile());
    EXPECT_EQ(line, VLIBCErrorGetLine());
    set_error(Error::none, VEXO_AT("copy/front.c"));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_STREQ("copy/front.c", VLIBCErrorGetFile());
    EXPECT_EQ(0x2400u, code_of(Error::quota));
}

TEST_F(Reports, LinesBeginWithThePlace) {
    errno = ENOENT;
    VEXO_LOG_ERROR(VEXO_HERE, "plain, %m");
    const int line = __LINE__ - 1;
    VEXO_LOG_DEBUG(VEXO_AT("copy/front.c"), "%s=%d", "value", 5);
    const std::vector<kit::LogLine> lines = kit::Log::lines();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(LOG_ERR, lines[0].priority);
    EXPECT_EQ("tests/support/process_unit.c:" + std::to_string(line) + " plain, No such file or directory",
              lines[0].text);
    EXPECT_EQ(LOG_DEBUG, lines[1].priority);
    EXPECT_EQ("copy/front.c", lines[1].source);
    EXPECT_EQ("value=5", lines[1].body);
}

// ---- The kernel's DOS attributes

class DosAttributes : public kit::Behaviour {};

TEST_F(DosAttributes, RequestsGoToThePlatformsHooks) {
    kit::Faults::add({.function = "VLIBCKernelAttrFcntl", .error = EINVAL, .result = -1});
    EXPECT_EQ(-1, request_attribute(0, AttributeRequest::set_hidden));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(1, kit::Faults::count("VLIBCKernelAttrFcntl"));
    kit::Faults::add({.function = "VLIBCKernelAttrCall", .error = EPERM, .result = -1, .path = "/some/path"});
    EXPECT_EQ(-1, command_attribute("/some/path", AttributeCommand::lock));
    EXPECT_EQ(EPERM, errno);
    EXPECT_EQ(1, kit::Faults::count("VLIBCKernelAttrCall"));
}

TEST_F(DosAttributes, CommandsHaveTheirNumbers) {
    EXPECT_EQ(0x201, static_cast<int>(AttributeRequest::clear_archive));
    EXPECT_EQ(0x202, static_cast<int>(AttributeRequest::set_archive));
    EXPECT_EQ(0x203, static_cast<int>(AttributeRequest::set_hidden));
    EXPECT_EQ(0x204, static_cast<int>(AttributeRequest::set_system));
    EXPECT_EQ(515, static_cast<int>(AttributeRequest::hide_on_exfat));
    EXPECT_EQ(514, static_cast<int>(AttributeCommand::set_archive));
    EXPECT_EQ(515, static_cast<int>(AttributeCommand::set_hidden));
    EXPECT_EQ(518, static_cast<int>(AttributeCommand::clear_hidden));
    EXPECT_EQ(521, static_cast<int>(AttributeCommand::unlock));
    EXPECT_EQ(522, static_cast<int>(AttributeCommand::lock));
}

} // namespace
