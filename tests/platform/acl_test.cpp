// ACLs: copying, the archived Windows ACL, inheritance, and that of "@eaDir".
#include "platform/acl.h"

#include "support/fd.h"
#include "tests/kit/behaviour.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <string>
#include <string_view>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace {

class Acls : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        kit::writeFile(src, "x");
        kit::writeFile(dst, "x");
        ASSERT_EQ(0, ::mkdir(directory.c_str(), 0755));
    }
    static void give(const std::string &path, const std::string &text, acl_type_t type = ACL_TYPE_ACCESS) {
        const acl_t acl = ::acl_from_text(text.c_str());
        ASSERT_NE(nullptr, acl);
        EXPECT_EQ(0, ::acl_set_file(path.c_str(), type, acl)) << path;
        ::acl_free(acl);
    }
    static std::string of(const std::string &path, acl_type_t type = ACL_TYPE_ACCESS) {
        const acl_t acl = ::acl_get_file(path.c_str(), type);
        if (acl == nullptr) {
            return "failed";
        }
        char *text = ::acl_to_text(acl, nullptr);
        std::string result;
        for (const char *at = text; *at != '\0'; ++at) {
            if (*at == '\t') { // the effective rights of an entry, as a remark
                at += std::string(at).find('\n');
            }
            result += *at == '\n' ? ',' : *at;
        }
        ::acl_free(text);
        ::acl_free(acl);
        return result;
    }
    static constexpr char kRich[] = "user::rw-,user:1234:r--,group::r--,mask::r--,other::---";
    std::string src = scratch / "src", dst = scratch / "dst", directory = scratch / "directory";
};

TEST_F(Acls, AreCopiedWhole) {
    give(src, kRich);
    EXPECT_EQ(0, VEXOACLCopy(src.c_str(), dst.c_str()));
    EXPECT_EQ(of(src), of(dst));
    EXPECT_NE(std::string::npos, of(dst).find("user:1234:r--"));
}

TEST_F(Acls, ASourceWithoutOneTakesTheDestinationsAway) {
    give(dst, kRich);
    ASSERT_EQ(0, ::chmod(src.c_str(), 0640));
    EXPECT_EQ(0, VEXOACLCopy(src.c_str(), dst.c_str()));
    EXPECT_EQ("user::rw-,group::r--,other::---,", of(dst));
}

TEST_F(Acls, SpecialModeBitsStay) {
    ASSERT_EQ(0, ::chmod(dst.c_str(), 04600));
    EXPECT_EQ(0, VEXOACLCopy(src.c_str(), dst.c_str()));
    EXPECT_EQ(04644u, kit::statOf(dst).st_mode & 07777);
}

TEST_F(Acls, DirectoriesCarryTheDefaultAcl) {
    const std::string other = scratch / "other";
    ASSERT_EQ(0, ::mkdir(other.c_str(), 0755));
    give(directory, "user::rwx,user:1234:rwx,group::r-x,mask::rwx,other::---", ACL_TYPE_DEFAULT);
    EXPECT_EQ(0, VEXOACLCopy(directory.c_str(), other.c_str()));
    EXPECT_EQ(of(directory, ACL_TYPE_DEFAULT), of(other, ACL_TYPE_DEFAULT));
    EXPECT_NE("", of(other, ACL_TYPE_DEFAULT));
    ASSERT_EQ(0, ::acl_delete_def_file(directory.c_str()));
    EXPECT_EQ(0, VEXOACLCopy(directory.c_str(), other.c_str()));
    EXPECT_EQ("", of(other, ACL_TYPE_DEFAULT));
}

TEST_F(Acls, AVolumeWithoutAclsTakesAModeAndRefusesMore) {
    kit::Faults::failAlways("setxattr", EOPNOTSUPP);
    ASSERT_EQ(0, ::chmod(src.c_str(), 0640));
    EXPECT_EQ(0, VEXOACLCopy(src.c_str(), dst.c_str()));
    EXPECT_EQ(0640u, kit::statOf(dst).st_mode & 07777);
    kit::Faults::reset();
    give(src, kRich);
    kit::Faults::failAlways("setxattr", EOPNOTSUPP);
    EXPECT_EQ(-1, VEXOACLCopy(src.c_str(), dst.c_str()));
    EXPECT_EQ(EOPNOTSUPP, errno);
}

TEST_F(Acls, ASourceVolumeWithoutAclsGivesItsMode) {
    give(dst, kRich);
    ASSERT_EQ(0, ::chmod(src.c_str(), 0604));
    kit::Faults::failAlways("getxattr", EOPNOTSUPP, src);
    EXPECT_EQ(0, VEXOACLCopy(src.c_str(), dst.c_str()));
    kit::Faults::reset();
    EXPECT_EQ("user::rw-,group::---,other::r--,", of(dst));
}

TEST_F(Acls, RealVolumesWithoutAcls) {
    KIT_REQUIRE(volume, kit::Volume::plain());
    processAsNow();
    const std::string there = volume / "file";
    kit::writeFile(there, "x", 0600);
    EXPECT_EQ(0, VEXOACLCopy(src.c_str(), there.c_str()));
    EXPECT_EQ(0644u, kit::statOf(there).st_mode & 07777);
    EXPECT_EQ(0, VEXOACLCopy(directory.c_str(), volume.path().c_str()));
    EXPECT_EQ(0, VEXOACLArchiveCopy(src.c_str(), there.c_str()));
    EXPECT_EQ(0, VEXOACLArchiveCopy(there.c_str(), src.c_str()));
    EXPECT_EQ(0, VEXOACLEnforceInherit(there.c_str()));
    EXPECT_EQ(0, VEXOACLSetEADirACL(volume.path().c_str()));
    EXPECT_EQ(0777u, kit::statOf(volume.path()).st_mode & 07777);
    give(src, kRich);
    EXPECT_EQ(-1, VEXOACLCopy(src.c_str(), there.c_str()));
    EXPECT_EQ(EOPNOTSUPP, errno);
    ASSERT_EQ(0, ::chmod(there.c_str(), 0604));
    EXPECT_EQ(0, VEXOACLCopy(there.c_str(), src.c_str()));
    EXPECT_EQ("user::rw-,group::---,other::r--,", of(src));
}

// The destination is open for writing only, as the library has it.
TEST_F(Acls, OpenFilesTakeTheSame) {
    give(src, kRich);
    const vexo::Fd from(::open(src.c_str(), O_RDONLY | O_CLOEXEC));
    const vexo::Fd to(::open(dst.c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_EQ(0, VEXOACLFCopy(from.get(), to.get()));
    EXPECT_NE(std::string::npos, of(dst).find("user:1234:r--"));
    EXPECT_EQ(of(src), of(dst));
    ASSERT_EQ(0, ::removexattr(src.c_str(), "system.posix_acl_access"));
    ASSERT_EQ(0, ::chmod(src.c_str(), 0640));
    EXPECT_EQ(0, VEXOACLFCopy(from.get(), to.get()));
    EXPECT_EQ("user::rw-,group::r--,other::---,", of(dst));
}

TEST_F(Acls, OpenFilesThatCannotHoldOneGetItsMode) {
    const vexo::Fd from(::open(src.c_str(), O_RDONLY | O_CLOEXEC));
    const vexo::Fd to(::open(dst.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(0, ::chmod(src.c_str(), 0604));
    kit::Faults::failAlways("fsetxattr", EOPNOTSUPP, dst);
    EXPECT_EQ(0, VEXOACLFCopy(from.get(), to.get()));
    EXPECT_EQ(0604u, kit::statOf(dst).st_mode & 07777);
}

TEST_F(Acls, OpenDirectoriesAndWhatIsNotOpenAreRefused) {
    const vexo::Fd one(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const vexo::Fd other(::open(scratch.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(-1, VEXOACLFCopy(one.get(), other.get()));
    EXPECT_EQ(EISDIR, errno);
    EXPECT_EQ(-1, VEXOACLFCopy(-1, other.get()));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, VEXOACLArchiveFCopy(one.get(), -1));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(Acls, TheArchivedOneOfOpenFilesIsCopiedOrTakenAway) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root for security attributes";
    }
    const vexo::Fd from(::open(src.c_str(), O_RDONLY | O_CLOEXEC));
    const vexo::Fd to(::open(dst.c_str(), O_WRONLY | O_CLOEXEC));
    kit::setAttribute(src, "security.NTACL", "acl");
    EXPECT_EQ(0, VEXOACLArchiveFCopy(from.get(), to.get()));
    EXPECT_EQ("acl", kit::attribute(dst, "security.NTACL"));
    ASSERT_EQ(0, ::removexattr(src.c_str(), "security.NTACL"));
    EXPECT_EQ(0, VEXOACLArchiveFCopy(from.get(), to.get()));
    EXPECT_EQ("", kit::attribute(dst, "security.NTACL"));
}

TEST_F(Acls, ANewFileTakesBothWhereTheListNamesThem) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root for security attributes";
    }
    struct Row {
        bool access, archive, handedOn;
        mode_t mode;
    };
    for (const Row &row :
         {Row{false, false, false, 0644}, Row{true, false, false, 0640}, Row{false, true, false, 0644},
          Row{true, true, true, 0640}, Row{false, false, true, 0644}, Row{false, false, false, 0600}}) {
        ASSERT_EQ(0, ::unlink(src.c_str()));
        ASSERT_EQ(0, ::unlink(dst.c_str()));
        kit::writeFile(src, "x");
        kit::writeFile(dst, "x");
        ASSERT_EQ(0, ::chmod(src.c_str(), row.mode));
        if (row.access) {
            give(src, kRich);
        }
        if (row.archive) {
            kit::setAttribute(src, "security.NTACL", "acl");
        }
        if (row.handedOn) { // by the directory's default ACL
            give(dst, kRich);
        }
        const vexo::Fd from(::open(src.c_str(), O_RDONLY | O_CLOEXEC));
        const vexo::Fd to(::open(dst.c_str(), O_WRONLY | O_CLOEXEC));
        char names[256];
        const ssize_t size = ::flistxattr(from.get(), names, sizeof names);
        EXPECT_EQ(0,
                  VEXOACLFCopyToNew(from.get(), to.get(), kit::statOf(src).st_mode, names, static_cast<size_t>(size)));
        EXPECT_EQ(of(src), of(dst)) << row.access << row.archive << row.handedOn << std::oct << row.mode;
        EXPECT_EQ(row.archive ? "acl" : "", kit::attribute(dst, "security.NTACL"));
    }
    EXPECT_EQ(-1, VEXOACLFCopyToNew(-1, 0, 0644, "", 0));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(-1, VEXOACLFCopyToNew(0, 0, 0644, nullptr, 0));
    EXPECT_EQ(EFAULT, errno);
}

// What the list says decides; a source that got an ACL since it was listed was copied a moment before.
TEST_F(Acls, ANewFileOfAPlainOneCostsTwoLooks) {
    const vexo::Fd from(::open(src.c_str(), O_RDONLY | O_CLOEXEC));
    const vexo::Fd to(::open(dst.c_str(), O_WRONLY | O_CLOEXEC));
    kit::Faults::record(true);
    EXPECT_EQ(0, VEXOACLFCopyToNew(from.get(), to.get(), kit::statOf(src).st_mode, "", 0));
    EXPECT_EQ(1, kit::Faults::count("flistxattr"));
    EXPECT_EQ(0, kit::Faults::count("fgetxattr"));
    EXPECT_EQ(0, kit::Faults::count("fsetxattr"));
    kit::Faults::reset();
    kit::Faults::fail("flistxattr", EIO, dst); // then it is looked at the long way
    EXPECT_EQ(0, VEXOACLFCopyToNew(from.get(), to.get(), kit::statOf(src).st_mode, "", 0));
}

// Nothing else can be in its way: the file is new, and the list says that there is no archived one.
TEST_F(Acls, ANewFileGetsAListedAclByTwoCalls) {
    give(src, kRich);
    const vexo::Fd from(::open(src.c_str(), O_RDONLY | O_CLOEXEC));
    const vexo::Fd to(::open(dst.c_str(), O_WRONLY | O_CLOEXEC));
    constexpr std::string_view names("system.posix_acl_access\0", 24);
    kit::Faults::record(true);
    EXPECT_EQ(0, VEXOACLFCopyToNew(from.get(), to.get(), kit::statOf(src).st_mode, names.data(), names.size()));
    EXPECT_EQ(1, kit::Faults::count("fgetxattr"));
    EXPECT_EQ(1, kit::Faults::count("fsetxattr"));
    EXPECT_EQ(0, kit::Faults::count("flistxattr"));
    kit::Faults::reset();
    EXPECT_EQ(of(src), of(dst));
    // Where it cannot go over as it is it goes the long way.
    give(dst, "user::rw-,group::r--,other::---");
    kit::Faults::fail("fsetxattr", EIO, dst);
    EXPECT_EQ(0, VEXOACLFCopyToNew(from.get(), to.get(), kit::statOf(src).st_mode, names.data(), names.size()));
    EXPECT_EQ(of(src), of(dst));
}

TEST_F(Acls, ADirectoryWithoutADefaultIsNotTakenOneAway) {
    const std::string other = scratch / "other";
    ASSERT_EQ(0, ::mkdir(other.c_str(), 0755));
    const timespec changed = kit::statOf(other).st_ctim;
    ASSERT_EQ(0, VEXOACLCopy(directory.c_str(), other.c_str()));
    const timespec after = kit::statOf(other).st_ctim;
    EXPECT_EQ(0, std::memcmp(&changed, &after, sizeof changed));
    EXPECT_EQ("", of(other, ACL_TYPE_DEFAULT));
}

TEST_F(Acls, MissingFilesFail) {
    EXPECT_EQ(-1, VEXOACLCopy((scratch / "none").c_str(), dst.c_str()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, VEXOACLCopy(src.c_str(), (scratch / "none").c_str()));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, VEXOACLArchiveCopy((scratch / "none").c_str(), dst.c_str()));
    EXPECT_EQ(-1, VEXOACLEnforceInherit((scratch / "none").c_str()));
    EXPECT_EQ(-1, VEXOACLSetEADirACL((scratch / "none").c_str()));
    EXPECT_EQ(-1, VEXOACLSetEADirACL(dst.c_str()));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_EQ(-1, VEXOACLCopy(nullptr, dst.c_str()));
    EXPECT_EQ(-1, VEXOACLArchiveCopy(src.c_str(), nullptr));
    EXPECT_EQ(-1, VEXOACLEnforceInherit(nullptr));
    EXPECT_EQ(-1, VEXOACLSetEADirACL(nullptr));
}

TEST_F(Acls, TheArchivedOneIsCopiedOrTakenAway) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root for security attributes";
    }
    const std::string value = kit::pattern(3000);
    kit::setAttribute(src, "security.NTACL", value);
    EXPECT_EQ(0, VEXOACLArchiveCopy(src.c_str(), dst.c_str()));
    EXPECT_EQ(value, kit::attribute(dst, "security.NTACL"));
    EXPECT_EQ(0, VEXOACLArchiveCopy(src.c_str(), src.c_str()));
    ASSERT_EQ(0, ::removexattr(src.c_str(), "security.NTACL"));
    EXPECT_EQ(0, VEXOACLArchiveCopy(src.c_str(), dst.c_str()));
    EXPECT_EQ("", kit::attribute(dst, "security.NTACL"));
    EXPECT_EQ(0, VEXOACLArchiveCopy(src.c_str(), dst.c_str()));
}

TEST_F(Acls, AnArchivedOneThatCannotBeStoredIsAFailure) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root for security attributes";
    }
    kit::setAttribute(src, "security.NTACL", "acl");
    kit::Faults::failAlways("setxattr", EOPNOTSUPP);
    EXPECT_EQ(-1, VEXOACLArchiveCopy(src.c_str(), dst.c_str()));
    EXPECT_EQ(EOPNOTSUPP, errno);
}

TEST_F(Acls, AreInheritedFromTheDirectorysDefault) {
    give(scratch.path(), "user::rwx,user:1234:rwx,group::r-x,mask::rwx,other::---", ACL_TYPE_DEFAULT);
    EXPECT_EQ(0, VEXOACLEnforceInherit(dst.c_str()));
    EXPECT_EQ("user::rw-,user:1234:rw-,group::r--,mask::rw-,other::---,", of(dst));
    ASSERT_EQ(0, ::chmod(src.c_str(), 0755));
    EXPECT_EQ(0, VEXOACLEnforceInherit(src.c_str()));
    EXPECT_EQ("user::rwx,user:1234:rwx,group::r-x,mask::rwx,other::---,", of(src));
    EXPECT_EQ(0, VEXOACLEnforceInherit((directory + "/").c_str()));
    EXPECT_EQ("user::rwx,user:1234:rwx,group::r-x,mask::rwx,other::---,", of(directory));
    EXPECT_EQ(of(scratch.path(), ACL_TYPE_DEFAULT), of(directory, ACL_TYPE_DEFAULT));
}

TEST_F(Acls, WithoutADefaultNothingIsInherited) {
    give(dst, kRich);
    const std::string before = of(dst);
    EXPECT_EQ(0, VEXOACLEnforceInherit(dst.c_str()));
    EXPECT_EQ(before, of(dst));
}

TEST_F(Acls, TheEaDirectoryIsOpenToEverybodyAndHandsNothingOn) {
    give(scratch.path(), "user::rwx,user:1234:---,group::r-x,mask::r-x,other::---", ACL_TYPE_DEFAULT);
    const std::string eaDir = scratch / "@eaDir";
    ASSERT_EQ(0, ::mkdir(eaDir.c_str(), 0777));
    EXPECT_EQ(0, VEXOACLSetEADirACL(eaDir.c_str()));
    EXPECT_EQ("user::rwx,group::rwx,other::rwx,", of(eaDir));
    EXPECT_EQ("", of(eaDir, ACL_TYPE_DEFAULT));
    EXPECT_EQ(0777u, kit::statOf(eaDir).st_mode & 07777);
}

} // namespace
