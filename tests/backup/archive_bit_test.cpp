// Clearing the archive bit of a file and of a directory.
#include "backup/backup.h"

#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"

#include <cerrno>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

class ArchiveBit : public kit::Behaviour {};

TEST_F(ArchiveBit, NullPathIsRefused) {
    EXPECT_FAILS(VEXOBackupCleanFileArchiveBit(nullptr), 0x0D00);
    EXPECT_FAILS(VEXOBackupCleanDirArchiveBit(nullptr), 0x0D00);
}

TEST_F(ArchiveBit, MissingPathCannotBeOpened) {
    const std::string path = scratch / "none";
    EXPECT_FAILS(VEXOBackupCleanFileArchiveBit(path.c_str()), 0x0900);
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "open() failed!! szFile=[" + path + "], errno=[2/No such file or directory]"))
        << kit::Log::all();
    EXPECT_STREQ("backup/backup_clean_file_archive_bit.c", VLIBCErrorGetFile());
    EXPECT_FAILS(VEXOBackupCleanDirArchiveBit(path.c_str()), 0x0900);
    EXPECT_EQ(1,
              kit::Log::count(LOG_ERR, "opendir() failed!! szDir=[" + path + "], errno=[2/No such file or directory]"))
        << kit::Log::all();
    EXPECT_STREQ("backup/backup_clean_dir_archive_bit.c", VLIBCErrorGetFile());
}

TEST_F(ArchiveBit, DirectoryWithoutADescriptorFails) {
    kit::Faults::fail("dirfd", ENOTSUP, scratch.path());
    EXPECT_FAILS(VEXOBackupCleanDirArchiveBit(scratch.path().c_str()), 0x0900);
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Fail to get the file descriptor associated with the directory stream (" +
                                              scratch.path() + "), errno=[95/Operation not supported]"))
        << kit::Log::all();
    EXPECT_EQ(0, kit::Faults::count("VLIBCKernelAttrFcntl"));
}

TEST_F(ArchiveBit, FileForDirectoryVariantIsRefused) {
    const std::string path = scratch / "file";
    kit::writeFile(path, "x");
    EXPECT_FAILS(VEXOBackupCleanDirArchiveBit(path.c_str()), 0x0900);
}

TEST_F(ArchiveBit, RefusedRequestIsNoFailure) {
    const std::string path = scratch / "file";
    kit::writeFile(path, "x");
    kit::Faults::failAlways("VLIBCKernelAttrFcntl", EINVAL);
    EXPECT_EQ(0, VEXOBackupCleanFileArchiveBit(path.c_str()));
    EXPECT_EQ(0, VEXOBackupCleanDirArchiveBit(scratch.path().c_str()));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_EQ(2, kit::Log::count(LOG_DEBUG, "fcntl() failed")) << kit::Log::all();
}

TEST_F(ArchiveBit, FileVariantTakesADirectory) {
    kit::Faults::failAlways("VLIBCKernelAttrFcntl", EINVAL);
    EXPECT_EQ(0, VEXOBackupCleanFileArchiveBit(scratch.path().c_str()));
    EXPECT_EQ(1, kit::Faults::count("VLIBCKernelAttrFcntl"));
}

TEST_F(ArchiveBit, PipeIsNotWaitedFor) {
    const std::string path = scratch / "pipe";
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0644));
    kit::Faults::failAlways("VLIBCKernelAttrFcntl", EINVAL);
    EXPECT_TRUE(kit::holdsInChild([&path] {
        ::alarm(300); // ends one that waits
        EXPECT_EQ(0, VEXOBackupCleanFileArchiveBit(path.c_str()));
        EXPECT_EQ(1, kit::Faults::count("VLIBCKernelAttrFcntl"));
    }));
}

TEST_F(ArchiveBit, DirectoryVariantDoesNotRecurse) {
    kit::writeFile(scratch / "inside", "x");
    kit::Faults::failAlways("VLIBCKernelAttrFcntl", EINVAL);
    EXPECT_EQ(0, VEXOBackupCleanDirArchiveBit(scratch.path().c_str()));
    EXPECT_EQ(1, kit::Faults::count("VLIBCKernelAttrFcntl"));
}

} // namespace
