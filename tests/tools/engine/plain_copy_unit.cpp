// Entries with nothing but what every entry has, copied by descriptors.
#include "tools/engine/transfer/plain_copy.h"

#include "platform/core.h"
#include "tests/kit/scratch.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <fstream>
#include <string>

namespace {

using engine::Descriptor;
using engine::PlainCopy;

class PlainCopies : public ::testing::Test {
  protected:
    PlainCopies() {
        if (::geteuid() != 0 || !PlainCopy::can()) {
            return;
        }
        ::mkdir((m_top + "/from").c_str(), 0755);
        ::mkdir((m_top + "/to").c_str(), 0700);
        m_from = engine::open_directory(AT_FDCWD, m_top + "/from");
        m_to = engine::open_directory(AT_FDCWD, m_top + "/to");
    }
    void SetUp() override {
        if (m_from.get() < 0) {
            GTEST_SKIP() << "for root, on a platform that writes a record at once";
        }
    }
    std::string make(const std::string &name, const std::string &bytes) const {
        const std::string path = m_top + "/from/" + name;
        std::ofstream(path) << bytes;
        return path;
    }
    std::optional<struct stat> copy(const std::string &name) {
        const auto found = PlainCopy::look(m_from.get(), name);
        return found ? m_plain.file(m_from.get(), name, *found, m_to.get()) : std::nullopt;
    }
    size_t made() const { return engine::names_in(m_to.get())->size(); }

    kit::ScratchDirectory m_directory;
    std::string m_top = m_directory.path();
    Descriptor m_from{-1}, m_to{-1};
    PlainCopy m_plain;
};

TEST_F(PlainCopies, AFileArrivesWithOwnerModeAndTimes) {
    for (const mode_t mode : {0640U, 0000U, 0777U}) {
        const std::string name = "file" + std::to_string(mode), path = make(name, "seventeen bytes..");
        ASSERT_EQ(::chown(path.c_str(), 1234, 4321), 0);
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        const timespec times[] = {{1'000'000'000, 7}, {1'100'000'000, 123'456'789}};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
        ASSERT_TRUE(copy(name));
        VLIBCStat there{}, source{};
        const uint32_t fields = VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME;
        ASSERT_EQ(VLIBCFileLStat((m_top + "/to/" + name).c_str(), fields, &there), 0);
        ASSERT_EQ(VLIBCFileLStat(path.c_str(), fields, &source), 0);
        EXPECT_EQ(there.st.st_mode, S_IFREG | mode);
        EXPECT_EQ(there.st.st_uid, 1234U);
        EXPECT_EQ(there.st.st_gid, 4321U);
        EXPECT_EQ(there.st.st_size, 17);
        EXPECT_EQ(there.st.st_nlink, 1U);
        EXPECT_EQ(there.st.st_mtim.tv_nsec, 123'456'789);
        EXPECT_EQ(there.st.st_mtim.tv_sec, 1'100'000'000);
        EXPECT_EQ(there.createTime.tv_sec, source.createTime.tv_sec);
        EXPECT_NE(there.attributes & VLIBC_ATTR_ARCHIVE, 0U);
        std::ifstream bytes(m_top + "/to/" + name);
        std::string text;
        std::getline(bytes, text);
        EXPECT_EQ(text, "seventeen bytes..");
    }
    EXPECT_EQ(made(), 3U);
}

// Each of these is the walk's, and nothing of it may be left.
TEST_F(PlainCopies, WhatHasMoreIsLeftAlone) {
    const std::string attributed = make("attributed", "a"), linked = make("linked", "l"),
                      special = make("special", "s");
    ASSERT_EQ(::setxattr(attributed.c_str(), "user.comment", "x", 1, 0), 0);
    ASSERT_EQ(::link(linked.c_str(), (linked + "2").c_str()), 0);
    ASSERT_EQ(::chmod(special.c_str(), 04755), 0);
    const std::string holes = make("holes", "h"), large = make("large", "g");
    ASSERT_EQ(::truncate(holes.c_str(), 500'000), 0);
    ASSERT_EQ(::truncate(large.c_str(), PlainCopy::kLargest + 1), 0);
    for (const char *name : {"attributed", "linked", "special", "holes", "large", "none"}) {
        EXPECT_FALSE(copy(name)) << name;
    }
    EXPECT_EQ(made(), 0U);
}

TEST_F(PlainCopies, WhatStandsThereStays) {
    make("file", "new");
    std::ofstream(m_top + "/to/file") << "old one";
    EXPECT_FALSE(copy("file"));
    EXPECT_EQ(made(), 1U);
    struct stat there {};
    ASSERT_EQ(::stat((m_top + "/to/file").c_str(), &there), 0);
    EXPECT_EQ(there.st_size, 7);
}

// Between the look and the copy.
TEST_F(PlainCopies, WhatChangesMeanwhileIsLeftAlone) {
    const std::string path = make("file", "first");
    const auto before = PlainCopy::look(m_from.get(), "file");
    ASSERT_TRUE(before);
    std::ofstream(path) << "other";
    EXPECT_FALSE(m_plain.file(m_from.get(), "file", *before, m_to.get()));
    ASSERT_EQ(::unlink(path.c_str()), 0);
    ASSERT_EQ(::symlink("/etc/passwd", path.c_str()), 0);
    EXPECT_FALSE(m_plain.file(m_from.get(), "file", *before, m_to.get()));
    EXPECT_EQ(made(), 0U);
}

TEST_F(PlainCopies, ALinkArrivesAsItIs) {
    const std::string path = m_top + "/from/link";
    ASSERT_EQ(::symlink("to nowhere", path.c_str()), 0);
    const timespec times[] = {{1, 2}, {3, 4}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
    ASSERT_EQ(::lchown(path.c_str(), 5, 6), 0);
    const auto found = PlainCopy::look(m_from.get(), "link");
    ASSERT_TRUE(found && m_plain.link(m_from.get(), "link", *found, m_to.get()));
    struct stat there {};
    ASSERT_EQ(::lstat((m_top + "/to/link").c_str(), &there), 0);
    EXPECT_TRUE(S_ISLNK(there.st_mode));
    EXPECT_EQ(there.st_uid, 5U);
    EXPECT_EQ(there.st_gid, 6U);
    EXPECT_EQ(there.st_mtim.tv_nsec, 4);
    EXPECT_FALSE(m_plain.link(m_from.get(), "link", *found, m_to.get()));
    EXPECT_EQ(made(), 1U);
}

} // namespace
