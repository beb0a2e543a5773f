// What the library wrote, as Samba's server shows it to SMB clients, and the other way round.
#include "copy/copy.h"
#include "ea/ea.h"

#include "tests/ea/adouble_bytes.h"
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"
#include "tests/peers/smbd.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int64_t kNewYear2001 = 978307200;
const std::string kFinderInfo = "TEXTttxt" + std::string("\x40\x00", 2) + std::string(22, '\0');

class SmbClient : public kit::Behaviour {
  protected:
    void serve(const std::vector<std::string> &options) {
        shared = scratch / "shared";
        elsewhere = scratch / "elsewhere";
        for (const std::string &directory : {shared, elsewhere}) {
            ::mkdir(directory.c_str(), 0755);
        }
        server.emplace(scratch / "samba", std::vector<peers::Smbd::Share>{{"data", shared, options}});
    }
    peers::Smbd::Info seen(const std::string &file) const { return server->info("data", file); }
    std::string got(const std::string &file) const { return server->get("data", file); }

    // The server turns what a "._" file holds into streams when the first Apple stream is opened; this very opening has
    // looked for the stream before, and fails.
    void letServerConvert() const { (void)got("letter.txt:AFP_AfpInfo"); }

    // A file on a volume that keeps everything in "@eaDir", with attributes, Finder Info and resource fork.
    std::string makeSource(const stream::Attributes &attributes, const std::string &fork) {
        const std::string path = elsewhere + "/letter.txt";
        kit::PlatformDouble::setType(elsewhere, 1);
        kit::writeFile(path, "Dear reader");
        ::mkdir((elsewhere + "/@eaDir").c_str(), 0777);
        kit::writeFile(elsewhere + "/@eaDir/letter.txt@VexoEAStream", stream::bytes(attributes));
        kit::writeFile(elsewhere + "/@eaDir/letter.txt@VexoResource", resourceFile(fork));
        return path;
    }
    static std::string resourceFile(const std::string &fork) {
        std::string bytes = adouble_bytes::header({{9, 50, 32}, {2, 82, static_cast<uint32_t>(fork.size())}}, 50,
                                                  0x00051607, 0x00020000, "Mac OS X        ");
        return bytes + kFinderInfo + fork;
    }
    static int copy(const std::string &from, const std::string &to) {
        VEXOCopyOpt options{};
        options.ownerMode = 1;
        return VEXOFileCopy(from.c_str(), to.c_str(), &options);
    }

    std::string shared, elsewhere;
    std::optional<peers::Smbd> server;
};

#define SERVE(...)                                                                                                     \
    try {                                                                                                              \
        serve({__VA_ARGS__});                                                                                          \
    } catch (const kit::Unavailable &missing) {                                                                        \
        GTEST_SKIP() << missing.reason;                                                                                \
    }

TEST_F(SmbClient, SeesTheDosAttributesAndTheCreationTimeThatWereSet) {
    SERVE("fruit:metadata = stream");
    const std::string path = shared + "/file";
    kit::writeFile(path, "x");
    const timespec times[3] = {{1, 0}, {2, 0}, {kNewYear2001, 0}};
    EXPECT_EQ(0, VLIBCFileUTime(path.c_str(), 3, times));
    EXPECT_EQ(0, VLIBCKernelAttrCall(path.c_str(), 514));
    EXPECT_EQ(0, VLIBCKernelAttrCall(path.c_str(), 515));
    EXPECT_EQ(0x22U, seen("file").bits) << seen("file").attributes;
    EXPECT_EQ("Mon Jan  1 00:00:00 2001 UTC", seen("file").created);
    EXPECT_EQ(0, VLIBCKernelAttrCall(path.c_str(), 518));
    EXPECT_EQ(0, VLIBCKernelAttrCall(path.c_str(), 522));
    EXPECT_EQ(0x21U, seen("file").bits) << seen("file").attributes;
}

TEST_F(SmbClient, SeesThemOnTheCopyOfAFile) {
    SERVE("fruit:metadata = stream");
    kit::PlatformDouble::setType(scratch.path(), 2);
    const std::string path = elsewhere + "/file";
    kit::writeFile(path, "x");
    const timespec times[3] = {{1, 0}, {2, 0}, {kNewYear2001, 0}};
    ASSERT_EQ(0, VLIBCFileUTime(path.c_str(), 3, times));
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    for (const int request : {0x202, 0x203, 0x204}) {
        ASSERT_EQ(0, VLIBCKernelAttrFcntl(fd, request));
    }
    ::close(fd);
    EXPECT_EQ(0, copy(path, shared + "/file"));
    EXPECT_EQ(0x26U, seen("file").bits) << seen("file").attributes;
    EXPECT_EQ("Mon Jan  1 00:00:00 2001 UTC", seen("file").created);
}

TEST_F(SmbClient, WhatItSetIsReadAsItIsWritten) {
    SERVE("fruit:metadata = stream");
    const std::string path = shared + "/file";
    kit::writeFile(path, "x");
    (void)server->run("data", "setmode file +hsr; utimes file 2010:01:02-03:04:05 -1 -1 -1");
    const std::string bytes = kit::attribute(path, "user.DOSATTRIB");
    ASSERT_EQ(24U, bytes.size());
    EXPECT_EQ(std::string("\0\0\5\0\5\0\0\0\x11\0\0\0", 12), bytes.substr(0, 12));
    VLIBCStat found{};
    ASSERT_EQ(0, VLIBCFileStat(path.c_str(), VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME, &found));
    EXPECT_EQ(static_cast<uint32_t>(VLIBC_ATTR_HIDDEN | VLIBC_ATTR_SYSTEM | VLIBC_ATTR_LOCKED),
              found.attributes & (VLIBC_ATTR_HIDDEN | VLIBC_ATTR_SYSTEM | VLIBC_ATTR_LOCKED));
    EXPECT_EQ(1262401445, found.createTime.tv_sec); // 2010-01-02 03:04:05 UTC

    // A change that the library makes keeps the rest of the record, for the client too.
    EXPECT_EQ(0, VLIBCKernelAttrCall(path.c_str(), 518));
    EXPECT_EQ(0U, seen("file").bits & 0x2);
    EXPECT_EQ(0x5U, seen("file").bits & 0x5);
    EXPECT_EQ("Sat Jan  2 03:04:05 2010 UTC", seen("file").created);
}

std::string little(uint64_t value, int width) {
    std::string bytes;
    for (int at = 0; at < width; ++at) {
        bytes += static_cast<char>(value >> (8 * at));
    }
    return bytes;
}

// Samba writes version 5 only; that it reads the older ones where the library has their fields is the proof of these.
TEST_F(SmbClient, OlderRecordsMeanTheSameToBoth) {
    SERVE("fruit:metadata = stream");
    constexpr uint64_t kCreated = 126227808000000000; // 2001-01-01
    constexpr uint64_t kOther = 125911584000000000;   // 2000-01-01
    const struct {
        const char *name;
        std::string between; // attributes and creation time
    } rows[] = {{"3", little(0, 4) + little(4096, 8) + little(8192, 8)}, {"4", little(kOther, 8)}, {"5", ""}};
    for (const auto &row : rows) {
        const std::string path = shared + "/" + row.name;
        const auto version = static_cast<uint64_t>(row.name[0] - '0');
        kit::writeFile(path, "x");
        std::string record = little(0, 2) + little(version, 2) + little(version, 4) + little(0x11, 4) +
                             little(0x26, 4) + row.between + little(kCreated, 8);
        if (version == 3) {
            record += little(kOther, 8) + std::string(2, '\0'); // change time, and an empty name
        }
        kit::setAttribute(path, "user.DOSATTRIB", record);
        VLIBCStat found{};
        ASSERT_EQ(0, VLIBCFileStat(path.c_str(), VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME, &found));
        EXPECT_EQ(static_cast<uint32_t>(VLIBC_ATTR_HIDDEN | VLIBC_ATTR_SYSTEM | VLIBC_ATTR_ARCHIVE), found.attributes)
            << row.name;
        EXPECT_EQ(kNewYear2001, found.createTime.tv_sec) << row.name;
        EXPECT_EQ(0x26U, seen(row.name).bits) << row.name;
        EXPECT_EQ("Mon Jan  1 00:00:00 2001 UTC", seen(row.name).created) << row.name;
    }
}

TEST_F(SmbClient, SeesFinderInfoAttributesAndForkOfADoubleFile) {
    SERVE("fruit:metadata = stream");
    const std::string fork = kit::pattern(3000);
    const std::string source = makeSource({{"note", "seen by peers"}, {"comment", "sunset"}}, fork);
    kit::PlatformDouble::setType(shared, 0);
    EXPECT_EQ(0, copy(source, shared + "/letter.txt"));
    ASSERT_TRUE(kit::exists(shared + "/._letter.txt"));

    letServerConvert();
    const std::string info = got("letter.txt:AFP_AfpInfo");
    ASSERT_EQ(60U, info.size()) << info << server->run("data", "allinfo letter.txt");
    EXPECT_EQ("AFP", info.substr(0, 3));
    EXPECT_EQ(kFinderInfo, info.substr(16, 32));
    EXPECT_EQ("Dear reader", got("letter.txt"));
    EXPECT_TRUE(fork == got("letter.txt:AFP_Resource"));
    EXPECT_EQ("sunset", got("letter.txt:comment"));
    const auto streams = seen("letter.txt").streams;
    EXPECT_EQ(60U, streams.at("AFP_AfpInfo"));
    EXPECT_EQ(fork.size(), streams.at("AFP_Resource"));
    EXPECT_EQ(6U, streams.at("comment"));
    EXPECT_EQ(13U, streams.at("note"));
}

TEST_F(SmbClient, SeesTheForkWhereTheServerKeepsItInDoubleFiles) {
    SERVE("fruit:metadata = stream", "fruit:resource = file");
    const std::string fork = kit::pattern(70000);
    const std::string source = makeSource({{"comment", "sunset"}}, fork);
    kit::PlatformDouble::setType(shared, 0);
    EXPECT_EQ(0, copy(source, shared + "/letter.txt"));
    letServerConvert();
    const std::string info = got("letter.txt:AFP_AfpInfo");
    ASSERT_EQ(60U, info.size()) << info << server->run("data", "allinfo letter.txt");
    EXPECT_EQ(kFinderInfo, info.substr(16, 32));
    EXPECT_TRUE(fork == got("letter.txt:AFP_Resource"));
    EXPECT_EQ("sunset", got("letter.txt:comment"));
}

TEST_F(SmbClient, ForkThatItWroteIsCopiedAndReadBack) {
    SERVE("fruit:metadata = stream", "fruit:resource = file");
    const std::string fork = kit::pattern(5000);
    server->put("data", "letter.txt", "Dear reader");
    server->put("data", "letter.txt:AFP_Resource", fork);
    ASSERT_TRUE(kit::exists(shared + "/._letter.txt")) << server->run("data", "allinfo letter.txt");
    kit::PlatformDouble::setType(shared, 0);
    kit::PlatformDouble::setType(elsewhere, 1);
    EXPECT_EQ(0, copy(shared + "/letter.txt", elsewhere + "/letter.txt"));
    EXPECT_EQ("Dear reader", kit::readFile(elsewhere + "/letter.txt"));
    const std::string resource = kit::readFile(elsewhere + "/@eaDir/letter.txt@VexoResource");
    ASSERT_EQ(82U + fork.size(), resource.size());
    EXPECT_TRUE(fork == resource.substr(82));

    // And back to the share under another name, for the client to read.
    EXPECT_EQ(0, copy(elsewhere + "/letter.txt", shared + "/again.txt"));
    EXPECT_TRUE(fork == got("again.txt:AFP_Resource"));
}

// The 60 bytes that Apple's clients write for a file without any of it yet.
std::string appleInfo(const std::string &finderInfo) {
    return std::string("AFP\0\0\0\1\0", 8) + std::string("\0\0\0\0\x80\0\0\0", 8) + finderInfo + std::string(12, '\0');
}

TEST_F(SmbClient, FinderInfoThatItWroteIsOnTheCopyToo) {
    for (const char *where : {"fruit:metadata = stream", "fruit:metadata = netatalk"}) {
        SERVE(where);
        kit::PlatformDouble::setType(scratch.path(), 2);
        server->put("data", "letter.txt", "Dear reader");
        server->put("data", "letter.txt:AFP_AfpInfo", appleInfo(kFinderInfo));
        ASSERT_EQ(kFinderInfo, got("letter.txt:AFP_AfpInfo").substr(16, 32)) << where;

        // Beside the file, and away from the share and back under another name.
        EXPECT_EQ(0, copy(shared + "/letter.txt", shared + "/copy.txt"));
        EXPECT_EQ(0, copy(shared + "/letter.txt", elsewhere + "/letter.txt"));
        EXPECT_EQ(0, copy(elsewhere + "/letter.txt", shared + "/again.txt"));
        for (const std::string name : {"copy.txt", "again.txt"}) {
            const std::string info = got(name + ":AFP_AfpInfo");
            ASSERT_EQ(60U, info.size()) << where << " " << name << ": " << info;
            EXPECT_EQ(kFinderInfo, info.substr(16, 32)) << where << " " << name;
            EXPECT_EQ("Dear reader", got(name)) << where;
        }
        server.reset();
        for (const std::string &directory : {shared, elsewhere, scratch / "samba"}) {
            std::filesystem::remove_all(directory);
        }
    }
}

TEST_F(SmbClient, StreamsThatItWroteAreOnTheCopyToo) {
    SERVE("fruit:metadata = stream");
    kit::PlatformDouble::setType(scratch.path(), 2);
    server->put("data", "letter.txt", "Dear reader");
    server->put("data", "letter.txt:comment", "sunset");
    server->put("data", "letter.txt:long one", kit::pattern(3000));
    (void)server->run("data", "setmode letter.txt +h");
    EXPECT_EQ(0, copy(shared + "/letter.txt", shared + "/copy.txt"));
    EXPECT_EQ("sunset", got("copy.txt:comment"));
    EXPECT_TRUE(kit::pattern(3000) == got("copy.txt:long one"));
    EXPECT_EQ(2U, seen("letter.txt").streams.size());
    EXPECT_EQ(seen("letter.txt").streams, seen("copy.txt").streams);
    EXPECT_EQ(0x2U, seen("copy.txt").bits & 0x2);
    EXPECT_EQ(seen("letter.txt").created, seen("copy.txt").created);
}

} // namespace
