// Key/value files.
#include "platform/core.h"

#include "tests/kit/behaviour.h"

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class KeyValue : public kit::Behaviour {
  protected:
    std::string get(const std::string &key) {
        char value[64] = "untouched";
        const int length = VLIBCFileGetKeyValue(file.c_str(), key.c_str(), value, sizeof(value), 0);
        return length < 0 ? "failed" : std::to_string(length) + ":" + value;
    }
    int set(const char *key, const char *value, const char *format = "%s=\"%s\"\n") {
        return VLIBCFileSetKeyValue(file.c_str(), key, value, format);
    }
    std::string file = scratch / "settings.conf";
};

TEST_F(KeyValue, ValuesAreReadInEveryForm) {
    kit::writeFile(file, "# comment=no\n\nplain=yes\nquoted=\"a b \"\nsingle='c'\n  spaced = d\n"
                         "behind=\"e\" # said \"so\"\ninner=\"f\"g\"\nempty=\nblank=\"\"\nopen=\"h\n"
                         "dos=i\r\nequals=a=b\nhash=j#k\nlast=z");
    EXPECT_EQ("3:yes", get("plain"));
    EXPECT_EQ("4:a b ", get("quoted"));
    EXPECT_EQ("1:c", get("single"));
    EXPECT_EQ("1:d", get("spaced"));
    EXPECT_EQ("1:e", get("behind"));
    EXPECT_EQ("3:f\"g", get("inner"));
    EXPECT_EQ("0:", get("empty"));
    EXPECT_EQ("0:", get("blank"));
    EXPECT_EQ("1:h", get("open"));
    EXPECT_EQ("1:i", get("dos"));
    EXPECT_EQ("3:a=b", get("equals"));
    EXPECT_EQ("3:j#k", get("hash"));
    EXPECT_EQ("1:z", get("last"));
    EXPECT_EQ("0:", get("comment"));
    EXPECT_EQ("0:", get("# comment"));
    EXPECT_EQ("0:", get("plai"));
    EXPECT_EQ("0:", get("absent"));
}

TEST_F(KeyValue, ABlankBehindAValueIsPartOfIt) {
    kit::writeFile(file, "one=yes \ntwo=\"yes \"\n");
    EXPECT_EQ("4:yes ", get("one"));
    EXPECT_EQ("4:yes ", get("two"));
}

TEST_F(KeyValue, TheFirstLineOfAKeyCounts) {
    kit::writeFile(file, "key=1\nkey=2\n");
    EXPECT_EQ("1:1", get("key"));
    EXPECT_EQ(1, set("key", "3"));
    EXPECT_EQ("key=\"3\"\nkey=2\n", kit::readFile(file));
}

TEST_F(KeyValue, AValueIsCutToTheBuffer) {
    kit::writeFile(file, "key=\"abcdef\"\n");
    char value[4] = "xxx";
    EXPECT_EQ(3, VLIBCFileGetKeyValue(file.c_str(), "key", value, 4, 0));
    EXPECT_STREQ("abc", value);
    EXPECT_EQ(0, VLIBCFileGetKeyValue(file.c_str(), "key", value, 1, 0));
    EXPECT_STREQ("", value);
}

TEST_F(KeyValue, UnreadableFilesFail) {
    char value[8] = "";
    EXPECT_EQ(-1, VLIBCFileGetKeyValue(file.c_str(), "key", value, 8, 0));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ(-1, VLIBCFileGetKeyValue(scratch.path().c_str(), "key", value, 8, 0));
    EXPECT_EQ(EISDIR, errno);
    ASSERT_EQ(0, ::mkfifo(file.c_str(), 0600)); // must not wait for a writer
    EXPECT_EQ(-1, VLIBCFileGetKeyValue(file.c_str(), "key", value, 8, 0));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(-1, VLIBCFileGetKeyValue(nullptr, "key", value, 8, 0));
    EXPECT_EQ(-1, VLIBCFileGetKeyValue(file.c_str(), nullptr, value, 8, 0));
    EXPECT_EQ(-1, VLIBCFileGetKeyValue(file.c_str(), "key", value, 0, 0));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(KeyValue, WritingReplacesOneLineAndKeepsTheRest) {
    kit::writeFile(file, "# head\nfirst=1\n\n key = old # note\nlast", 0640);
    EXPECT_LT(0, set("key", "new"));
    EXPECT_EQ("# head\nfirst=1\n\nkey=\"new\"\nlast\n", kit::readFile(file));
    EXPECT_EQ(0640u, kit::statOf(file).st_mode & 07777);
    EXPECT_LT(0, set("added", "50%", "%s=%s"));
    EXPECT_EQ("# head\nfirst=1\n\nkey=\"new\"\nlast\nadded=50%\n", kit::readFile(file));
    EXPECT_EQ("3:50%", get("added"));
    EXPECT_LT(0, set("third", "x", nullptr));
    EXPECT_EQ("1:x", get("third"));
    EXPECT_EQ(std::vector<std::string>{"settings.conf"}, kit::namesIn(scratch.path()));
}

TEST_F(KeyValue, AMissingFileIsMadeButNoDirectory) {
    EXPECT_LT(0, set("key", "value"));
    EXPECT_EQ("key=\"value\"\n", kit::readFile(file));
    EXPECT_EQ(0644u, kit::statOf(file).st_mode & 07777);
    EXPECT_EQ(-1, VLIBCFileSetKeyValue((scratch / "none/file").c_str(), "key", "value", nullptr));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(KeyValue, ALinkStaysALink) {
    kit::writeFile(scratch / "real", "key=1\n");
    ASSERT_EQ(0, ::symlink("real", file.c_str()));
    EXPECT_LT(0, set("key", "2"));
    EXPECT_TRUE(S_ISLNK(kit::statOf(file).st_mode));
    EXPECT_EQ("key=\"2\"\n", kit::readFile(scratch / "real"));
}

TEST_F(KeyValue, TheOwnerIsKept) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give a file away";
    }
    kit::writeFile(file, "key=1\n", 0600);
    ASSERT_EQ(0, ::chown(file.c_str(), 1234, 4321));
    EXPECT_LT(0, set("key", "2"));
    EXPECT_EQ(1234u, kit::statOf(file).st_uid);
    EXPECT_EQ(4321u, kit::statOf(file).st_gid);
    EXPECT_EQ(0600u, kit::statOf(file).st_mode & 07777);
}

TEST_F(KeyValue, WhatWouldWriteOtherLinesIsRefused) {
    kit::writeFile(file, "key=1\n");
    for (const char *key : {"", "a\nb", "a=b", "#a", " a", "a "}) {
        EXPECT_EQ(-1, set(key, "x")) << key;
        EXPECT_EQ(EINVAL, errno) << key;
    }
    EXPECT_EQ(-1, set("key", "x\nevil=1"));
    for (const char *format : {"%s=%d\n", "%s\n", "%s=%s%s\n", "%s=%n%s\n", "%s=\n%s\n", "%", "%s=%s%"}) {
        EXPECT_EQ(-1, set("key", "x", format)) << format;
        EXPECT_EQ(EINVAL, errno) << format;
    }
    EXPECT_EQ("key=1\n", kit::readFile(file));
}

TEST_F(KeyValue, AFailedWriteLeavesTheOldFile) {
    kit::writeFile(file, "key=1\n");
    for (const char *function : {"write", "fsync", "rename", "fchmod"}) {
        kit::Faults::fail(function, ENOSPC, function == std::string("rename") ? scratch.path() : file);
        EXPECT_EQ(-1, set("key", "2")) << function;
        EXPECT_EQ(ENOSPC, errno) << function;
        EXPECT_EQ("key=1\n", kit::readFile(file)) << function;
        EXPECT_EQ(1u, kit::namesIn(scratch.path()).size()) << function;
        kit::Faults::reset();
    }
}

TEST_F(KeyValue, OutOfMemoryLeavesTheOldFile) {
    kit::writeFile(file, "key=1\n");
    for (int nth = 1; nth <= 3; ++nth) {
        if (!kit::Faults::failAllocation(nth)) {
            GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
        }
        const int result = set("key", "2");
        kit::Faults::reset();
        EXPECT_EQ(-1, result) << nth;
        EXPECT_EQ("key=1\n", kit::readFile(file)) << nth;
    }
}

} // namespace
