// The header in the resource file: reading it, storing it, and writing Finder Info into it.
#include "ea/ea.h"

#include "tests/ea/adouble_bytes.h"
#include "tests/kit/behaviour.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

namespace {

class ResourceFile : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root, as which directories of companions are made";
        }
        kit::writeFile(path, "data");
        kit::PlatformDouble::setType(scratch.path(), 1);
    }
    void makeDirectory() const { ASSERT_EQ(0, ::mkdir((scratch / "@eaDir").c_str(), 0777)); }
    void make(const std::string &content) const {
        makeDirectory();
        kit::writeFile(resource, content);
    }
    static void expectLine(const std::string &body, const std::string &source) {
        EXPECT_EQ(1, kit::Log::count(LOG_ERR, body)) << kit::Log::all();
        EXPECT_EQ(source, kit::Log::lines().back().source);
    }
    static std::string newFile(const std::string &info) {
        return adouble_bytes::header({{9, 50, 32}, {2, 82, 0}}, 50, 0x00051607, 0x00020000, "Mac OS X        ") + info;
    }

    const std::string path = scratch / "file";
    const std::string resource = scratch / "@eaDir/file@VexoResource";
    const std::string longPath = "/" + std::string(4090, 'a');
    const std::string info = kit::pattern(32);
    VEXOEAAdouble record{};
};

constexpr const char *kReadPlace = "ea/ea_eadirfs_adouble_read.c";
constexpr const char *kFlush = "ea/ea_eadirfs_flush.c";
constexpr const char *kWritePlace = "ea/ea_eadirfs_finfo_write.c";

TEST_F(ResourceFile, ReadRefusesNull) {
    EXPECT_FAILS(VEXOEAEADirAdoubleRead(nullptr, &record), 0x0D00);
    EXPECT_FAILS(VEXOEAEADirAdoubleRead(path.c_str(), nullptr), 0x0D00);
}

TEST_F(ResourceFile, ReadTakesTheFirst741Bytes) {
    make(adouble_bytes::header({{9, 50, 32}, {2, 741, 100000}}, 741) + "fork");
    EXPECT_EQ(0, VEXOEAEADirAdoubleRead(path.c_str(), &record));
    EXPECT_EQ(50u, record.entries[9].offset);
    EXPECT_EQ(100000u, record.entries[2].length);
    EXPECT_EQ(0, record.raw[741]);
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(ResourceFile, ShortOrAbsentOneHasNoMetadata) {
    EXPECT_EQ(1, VEXOEAEADirAdoubleRead(path.c_str(), &record));
    make(adouble_bytes::header({{9, 50, 32}, {2, 82, 0}}, 740));
    EXPECT_EQ(1, VEXOEAEADirAdoubleRead(path.c_str(), &record));
    kit::writeFile(resource, "");
    EXPECT_EQ(1, VEXOEAEADirAdoubleRead(path.c_str(), &record));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(ResourceFile, ReadFailures) {
    EXPECT_FAILS(VEXOEAEADirAdoubleRead(longPath.c_str(), &record), 0xC300);
    expectLine("Fail to generate path of " + longPath + ".", kReadPlace);
    make(std::string(741, 'x'));
    kit::Faults::fail("open", EACCES, resource);
    EXPECT_FAILS(VEXOEAEADirAdoubleRead(path.c_str(), &record), 0x0900);
    expectLine("Error: open path [" + resource + "] Permission denied", kReadPlace);
    kit::Faults::fail("read", EIO, resource);
    EXPECT_FAILS(VEXOEAEADirAdoubleRead(path.c_str(), &record), 0x0A00);
    expectLine("Error: read path [" + resource + "] Input/output error", kReadPlace);
    EXPECT_FAILS(VEXOEAEADirAdoubleRead(path.c_str(), &record), 0x0A00);
    expectLine("EAAdoubleRead failed", kReadPlace);
}

TEST_F(ResourceFile, FlushRefusesBadArguments) {
    const std::string value(1025, 'v');
    EXPECT_FAILS(VEXOEAEADirAdoubleFlush(nullptr, 4, path.c_str()), 0x0D00);
    EXPECT_FAILS(VEXOEAEADirAdoubleFlush(value.data(), 4, nullptr), 0x0D00);
    EXPECT_FAILS(VEXOEAEADirAdoubleFlush(value.data(), -1, path.c_str()), 0x0D00);
    EXPECT_FAILS(VEXOEAEADirAdoubleFlush(value.data(), 1025, path.c_str()), 0x0D00);
}

TEST_F(ResourceFile, FlushOverwritesTheStartOnly) {
    const std::string before = kit::pattern(2000, 1);
    make(before);
    const std::string value = kit::pattern(1024, 2);
    EXPECT_EQ(0, VEXOEAEADirAdoubleFlush(value.data(), 1024, path.c_str()));
    EXPECT_EQ(value + before.substr(1024), kit::readFile(resource));
    EXPECT_EQ(0, VEXOEAEADirAdoubleFlush("", 0, path.c_str()));
    EXPECT_EQ(2000, kit::statOf(resource).st_size);
}

TEST_F(ResourceFile, FlushCreatesTheFileButNoDirectory) {
    EXPECT_FAILS(VEXOEAEADirAdoubleFlush("head", 4, path.c_str()), 0x0900);
    expectLine("Error open path [" + resource + "] No such file or directory", kFlush);
    EXPECT_FALSE(kit::exists(scratch / "@eaDir"));
    makeDirectory();
    const mode_t before = ::umask(0);
    EXPECT_EQ(0, VEXOEAEADirAdoubleFlush("head", 4, path.c_str()));
    ::umask(before);
    EXPECT_EQ("head", kit::readFile(resource));
    EXPECT_EQ(0777u, kit::statOf(resource).st_mode & 07777);
}

TEST_F(ResourceFile, FlushFailures) {
    EXPECT_FAILS(VEXOEAEADirAdoubleFlush("head", 4, longPath.c_str()), 0xC300);
    expectLine("Fail to generate path of " + longPath + ".", kFlush);
    make("content");
    kit::Faults::fail("open", EROFS, resource);
    EXPECT_FAILS(VEXOEAEADirAdoubleFlush("head", 4, path.c_str()), 0x0900);
    expectLine("Error open path [" + resource + "] Read-only file system", kFlush);
    kit::Faults::fail("write", EDQUOT, resource);
    EXPECT_FAILS(VEXOEAEADirAdoubleFlush("head", 4, path.c_str()), 0x0B00);
    expectLine("Error: write path [" + resource + "] Disk quota exceeded", kFlush);
    EXPECT_EQ("content", kit::readFile(resource)); // it was there before: it stays
}

TEST_F(ResourceFile, FailedFlushRemovesOnlyTheFileItMade) {
    makeDirectory();
    kit::Faults::add({.function = "write", .result = 2, .path = resource, .answers = true});
    EXPECT_FAILS(VEXOEAEADirAdoubleFlush("head", 4, path.c_str()), 0x0B00);
    EXPECT_EQ(ENOSPC, errno);
    expectLine("Error: write path [" + resource + "] No space left on device", kFlush);
    EXPECT_FALSE(kit::exists(resource));
}

TEST_F(ResourceFile, HandleWithoutWriteLockIsRefused) {
    EXPECT_FAILS(EASWriteFinderInfo(nullptr), 0x0D00);
    VEXOEAS stream{};
    stream.fd = -1;
    EXPECT_FAILS(EASWriteFinderInfo(&stream), 0x0D00);
    make(newFile(info));
    const int fd = ::open(resource.c_str(), O_RDWR);
    VEXOEAS *reader = VEXOEASOpen(fd, F_RDLCK);
    ASSERT_NE(nullptr, reader);
    EXPECT_FAILS(EASWriteFinderInfo(reader), 0x0300);
    EXPECT_EQ(0, VEXOEASClose(reader));
    ::close(fd);
}

TEST_F(ResourceFile, HandleWritesFinderInfoInPlace) {
    make(newFile(info) + "more");
    const int fd = ::open(resource.c_str(), O_RDWR);
    VEXOEAS *stream = VEXOEASOpen(fd, F_WRLCK);
    ASSERT_NE(nullptr, stream);
    const std::string other = kit::pattern(32, 7);
    other.copy(reinterpret_cast<char *>(stream->header.finderInfo), 32);
    EXPECT_EQ(0, EASWriteFinderInfo(stream));
    EXPECT_EQ(newFile(other) + "more", kit::readFile(resource));

    kit::Faults::fail("lseek", ESPIPE);
    EXPECT_FAILS(EASWriteFinderInfo(stream), 0x0D00);
    expectLine("Error: lseek error (Illegal seek)", kWritePlace);
    kit::Faults::add({.function = "write", .result = 31, .path = resource, .answers = true});
    EXPECT_FAILS(EASWriteFinderInfo(stream), 0x0B00);
    stream->header.entries[0].id = 3;
    EXPECT_FAILS(EASWriteFinderInfo(stream), 0x0A00);
    EXPECT_EQ(0, VEXOEASClose(stream));
    ::close(fd);
}

TEST_F(ResourceFile, FinderInfoOfANewFile) {
    EXPECT_EQ(0, VEXOEAEADirFSFInfoWrite(path.c_str(), info.data()));
    EXPECT_EQ(newFile(info), kit::readFile(resource));
    EXPECT_EQ(82, kit::statOf(resource).st_size);
    EXPECT_EQ(0777u, kit::statOf(scratch / "@eaDir").st_mode & 07777);
}

TEST_F(ResourceFile, FinderInfoOfAnEmptyFile) {
    make("");
    EXPECT_EQ(0, VEXOEAEADirFSFInfoWrite(path.c_str(), info.data()));
    EXPECT_EQ(newFile(info), kit::readFile(resource));
}

TEST_F(ResourceFile, FinderInfoIsReplacedInPlace) {
    // Behind another entry, with a fork.
    std::string content = adouble_bytes::header({{9, 60, 32}, {2, 92, 4}}, 92) + "fork";
    make(content);
    EXPECT_EQ(0, VEXOEAEADirFSFInfoWrite(path.c_str(), info.data()));
    content.replace(60, 32, info);
    EXPECT_EQ(content, kit::readFile(resource));
}

TEST_F(ResourceFile, FinderInfoRefusesNull) {
    EXPECT_FAILS(VEXOEAEADirFSFInfoWrite(nullptr, info.data()), 0x0D00);
    EXPECT_FAILS(VEXOEAEADirFSFInfoWrite(path.c_str(), nullptr), 0x0D00);
}

TEST_F(ResourceFile, FinderInfoThatCannotBeOpenedLeavesNothing) {
    kit::Faults::fail("open", ENOSPC, resource);
    EXPECT_EQ(-1, VEXOEAEADirFSFInfoWrite(path.c_str(), info.data()));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_FALSE(kit::exists(resource));
}

TEST_F(ResourceFile, FailedFinderInfoRemovesAnEmptyFile) {
    kit::Faults::fail("write", EDQUOT, resource);
    EXPECT_FAILS(VEXOEAEADirFSFInfoWrite(path.c_str(), info.data()), 0x0B00);
    EXPECT_FALSE(kit::exists(resource));
    // The last two seeks are those of the write: to the file's size, and to where the header goes.
    kit::Faults::reset();
    kit::Faults::record(true);
    ASSERT_EQ(0, VEXOEAEADirFSFInfoWrite(path.c_str(), info.data()));
    const int seeks = kit::Faults::count("lseek");
    for (const int at : {seeks - 2, seeks - 1}) {
        ASSERT_EQ(0, ::unlink(resource.c_str()));
        kit::Faults::reset();
        kit::Faults::fail("lseek", EIO, resource, at);
        EXPECT_FAILS(VEXOEAEADirFSFInfoWrite(path.c_str(), info.data()), 0x2600);
        EXPECT_FALSE(kit::exists(resource));
        kit::writeFile(resource, "");
    }
    EXPECT_EQ("data", kit::readFile(path));
}

// A file-size limit cuts the header in its middle.
TEST_F(ResourceFile, FinderInfoCutShortLeavesNoHalfHeader) {
    makeDirectory();
    const rlimit small = {40, RLIM_INFINITY};
    rlimit before{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &before));
    auto *const handler = std::signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &small));
    const int result = VEXOEAEADirFSFInfoWrite(path.c_str(), info.data());
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &before));
    std::signal(SIGXFSZ, handler);
    EXPECT_FAILS(result, 0x0B00);
    EXPECT_FALSE(kit::exists(resource));
}

TEST_F(ResourceFile, FailedFinderInfoKeepsAFileWithContent) {
    make(newFile(info));
    kit::Faults::fail("write", EIO, resource);
    EXPECT_FAILS(VEXOEAEADirFSFInfoWrite(path.c_str(), kit::pattern(32, 9).data()), 0x0B00);
    EXPECT_EQ(newFile(info), kit::readFile(resource));
}

// A child process that holds the write lock on a file.
class LockHolder {
  public:
    explicit LockHolder(const std::string &path) {
        int ready[2];
        EXPECT_EQ(0, ::pipe(ready));
        m_child = ::fork();
        if (m_child == 0) {
            const int fd = ::open(path.c_str(), O_RDWR);
            struct flock lock {};
            lock.l_type = F_WRLCK;
            lock.l_whence = SEEK_SET;
            const char told = ::fcntl(fd, F_SETLK, &lock) == 0 ? 'y' : 'n';
            (void)!::write(ready[1], &told, 1);
            ::pause();
            ::_exit(0);
        }
        char told = 0;
        EXPECT_EQ(1, ::read(ready[0], &told, 1));
        EXPECT_EQ('y', told);
        ::close(ready[0]);
        ::close(ready[1]);
    }
    LockHolder(const LockHolder &) = delete;
    LockHolder &operator=(const LockHolder &) = delete;
    ~LockHolder() {
        ::kill(m_child, SIGKILL);
        ::waitpid(m_child, nullptr, 0);
    }

  private:
    pid_t m_child;
};

TEST_F(ResourceFile, FinderInfoOfALockedFileFails) {
    make(newFile(info));
    const LockHolder holder(resource);
    EXPECT_FAILS(VEXOEAEADirFSFInfoWrite(path.c_str(), kit::pattern(32, 9).data()), 0x0400);
    EXPECT_EQ(newFile(info), kit::readFile(resource));
}

TEST_F(ResourceFile, EmptyFileThatSomebodyIsAboutToWriteStays) {
    make("");
    const LockHolder holder(resource);
    EXPECT_FAILS(VEXOEAEADirFSFInfoWrite(path.c_str(), info.data()), 0x0400);
    EXPECT_TRUE(kit::exists(resource));
}

TEST_F(ResourceFile, EmptyFileThatCannotBeLockedIsRemoved) {
    kit::Faults::fail("fcntl", ENOLCK, {}, 2); // the first two give the descriptor its flags
    EXPECT_FAILS(VEXOEAEADirFSFInfoWrite(path.c_str(), info.data()), 0x0400);
    EXPECT_FALSE(kit::exists(resource));
}

} // namespace
