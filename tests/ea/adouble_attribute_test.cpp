// The metadata attribute: reading, storing, the flush time, and bringing it in step with the resource file.
#include "ea/ea.h"

#include "tests/ea/adouble_bytes.h"
#include "tests/kit/behaviour.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string>
#include <sys/xattr.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr const char *kMetadata = "user.netatalk.Metadata";
constexpr const char *kFlushTime = "user.vexo.filea.flushtime";

class MetadataAttribute : public kit::Behaviour {
  protected:
    void SetUp() override {
        Behaviour::SetUp();
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root, as which directories of companions are made";
        }
        kit::writeFile(path, "data");
        kit::PlatformDouble::setType(scratch.path(), 2);
    }
    void store(const std::string &value) { kit::setAttribute(path, kMetadata, value); }
    void expectUnreadable(const std::string &line) {
        kit::Log::reset();
        EXPECT_FAILS(VEXOEAFileEAAdoubleRead(path.c_str(), &record), 0x0A00);
        EXPECT_EQ(1, kit::Log::count(LOG_ERR, line)) << kit::Log::all();
        EXPECT_EQ("ea/ea_fileafs_adouble_read.c", kit::Log::lines().back().source);
    }
    // A resource file of the file, with that Finder Info.
    void makeResource(const std::string &info) { ASSERT_EQ(0, VEXOEAEADirFSFInfoWrite(path.c_str(), info.data())); }
    static std::string info(char fill) { return std::string(32, fill); }
    int64_t flushTime() const {
        const std::string value = kit::attribute(path, kFlushTime);
        int64_t stamp = -1;
        EXPECT_EQ(sizeof stamp, value.size());
        std::memcpy(&stamp, value.data(), std::min(sizeof stamp, value.size()));
        return stamp;
    }
    void setFlushTime(int64_t stamp) {
        kit::setAttribute(path, kFlushTime, {reinterpret_cast<const char *>(&stamp), sizeof stamp});
    }
    static void setModified(const std::string &of, time_t when) {
        const timespec times[2] = {{when, 0}, {when, 0}};
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, of.c_str(), times, 0));
    }

    const std::string path = scratch / "file";
    const std::string resource = scratch / "@eaDir/file@VexoResource";
    VEXOEAAdouble record{};
};

TEST_F(MetadataAttribute, ReadRefusesNull) {
    EXPECT_FAILS(VEXOEAFileEAAdoubleRead(nullptr, &record), 0x0D00);
    EXPECT_FAILS(VEXOEAFileEAAdoubleRead(path.c_str(), nullptr), 0x0D00);
}

TEST_F(MetadataAttribute, ReadFindsIt) {
    store(adouble_bytes::metadata());
    EXPECT_EQ(0, VEXOEAFileEAAdoubleRead(path.c_str(), &record));
    EXPECT_EQ(122u, record.entries[9].offset);
    EXPECT_EQ(370u, record.entries[14].offset);
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(MetadataAttribute, AbsentOneIsNoFailure) {
    EXPECT_EQ(1, VEXOEAFileEAAdoubleRead(path.c_str(), &record));
    EXPECT_EQ(1, VEXOEAFileEAAdoubleRead((scratch / "none").c_str(), &record));
    EXPECT_EQ(0u, VLIBCErrGet());
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
}

TEST_F(MetadataAttribute, UnreadableOneHasItsLine) {
    kit::Faults::fail("getxattr", EACCES);
    expectUnreadable("Error: getxattr path [" + path + "] Permission denied");
}

TEST_F(MetadataAttribute, OtherSizesAreRefused) {
    for (const size_t size : {size_t{0}, size_t{401}, size_t{403}, size_t{1024}, size_t{2000}}) {
        store(std::string(size, 'x'));
        expectUnreadable("Read size(" + std::to_string(size) + ") != AD_DATASZZ_EA(402)");
    }
}

TEST_F(MetadataAttribute, OneThatShrinksWhileItIsReadIsUnreadable) {
    store(adouble_bytes::metadata(403));
    kit::Faults::add({.function = "getxattr", .skip = 1, .before = [&] { store(adouble_bytes::metadata()); }});
    expectUnreadable("Error: getxattr path [" + path + "] Numerical result out of range");
}

TEST_F(MetadataAttribute, MalformedOneIsRefused) {
    store(std::string(402, '\0'));
    expectUnreadable("VEXOEAAdoubleRead failed");
    auto entries = adouble_bytes::kMetadata;
    entries[0].id = 0;
    store(adouble_bytes::header(entries, 402));
    expectUnreadable("VEXOEAAdoubleRead failed");
}

TEST_F(MetadataAttribute, OtherEntriesAreRefused) {
    auto entries = adouble_bytes::kMetadata;
    entries.pop_back();
    store(adouble_bytes::header(entries, 402));
    expectUnreadable("Entry size[7] != ADEID_NUM_EA[8] or ad_entry error");
    store(adouble_bytes::header({}, 402));
    expectUnreadable("Entry size[0] != ADEID_NUM_EA[8] or ad_entry error");
    entries.push_back({3, 398, 4}); // eight, but not the eight
    store(adouble_bytes::header(entries, 402));
    expectUnreadable("Entry size[8] != ADEID_NUM_EA[8] or ad_entry error");
    entries = adouble_bytes::kMetadata;
    entries.push_back({3, 398, 4}); // all eight and one more
    store(adouble_bytes::header(entries, 402));
    expectUnreadable("Entry size[9] != ADEID_NUM_EA[8] or ad_entry error");
}

TEST_F(MetadataAttribute, EachEntryNeedsAPlace) {
    for (size_t at = 0; at < adouble_bytes::kMetadata.size(); ++at) {
        auto entries = adouble_bytes::kMetadata;
        entries[at].offset = 0;
        store(adouble_bytes::header(entries, 402));
        expectUnreadable("Entry size[8] != ADEID_NUM_EA[8] or ad_entry error");
    }
}

TEST_F(MetadataAttribute, FlushRefusesBadArguments) {
    const std::string value(1025, 'v');
    EXPECT_FAILS(VEXOEAFileEAAdoubleFlush(nullptr, 4, path.c_str()), 0x0D00);
    EXPECT_FAILS(VEXOEAFileEAAdoubleFlush(value.data(), 4, nullptr), 0x0D00);
    EXPECT_FAILS(VEXOEAFileEAAdoubleFlush(value.data(), -1, path.c_str()), 0x0D00);
    EXPECT_FAILS(VEXOEAFileEAAdoubleFlush(value.data(), 1025, path.c_str()), 0x0D00);
    EXPECT_EQ("", kit::attribute(path, kMetadata));
}

TEST_F(MetadataAttribute, FlushReplacesIt) {
    const std::string value = kit::pattern(1024);
    for (const int size : {1, 402, 1024}) {
        EXPECT_EQ(0, VEXOEAFileEAAdoubleFlush(value.data(), size, path.c_str()));
        EXPECT_EQ(value.substr(0, static_cast<size_t>(size)), kit::attribute(path, kMetadata));
    }
}

TEST_F(MetadataAttribute, RefusedFlushTellsPermission) {
    kit::Faults::fail("setxattr", EPERM);
    EXPECT_FAILS(VEXOEAFileEAAdoubleFlush("x", 1, path.c_str()), 0x0300);
    kit::Faults::fail("setxattr", ENOSPC);
    EXPECT_FAILS(VEXOEAFileEAAdoubleFlush("x", 1, path.c_str()), 0x0B00);
    EXPECT_EQ(ENOSPC, errno);
}

TEST_F(MetadataAttribute, FlushTimeIsStamped) {
    const int64_t before = ::time(nullptr);
    EXPECT_EQ(0, VEXOEAFileEAWriteFlushTime(path.c_str(), 0));
    EXPECT_GE(flushTime(), before);
    EXPECT_LE(flushTime(), ::time(nullptr));
}

TEST_F(MetadataAttribute, FlushTimeFailures) {
    EXPECT_FAILS(VEXOEAFileEAWriteFlushTime(nullptr, 0), 0x0D00);
    EXPECT_FAILS(VEXOEAFileEAWriteFlushTime(nullptr, 1), 0x0D00);
    kit::Faults::fail("setxattr", EROFS);
    EXPECT_FAILS(VEXOEAFileEAWriteFlushTime(path.c_str(), 0), 0x2A00);
}

TEST_F(MetadataAttribute, CheckedCallersLeaveOtherTypesAlone) {
    makeResource(info('A'));
    for (const int type : {0, 1, 5, 6, 7, 10, 12, 18, 19, 22, -1}) {
        kit::PlatformDouble::setType(scratch.path(), type);
        EXPECT_EQ(0, VEXOEAFileEAWriteFlushTime(path.c_str(), 1));
        EXPECT_EQ(0, VEXOEAFileEAFSFinfoEASync(path.c_str(), 1));
    }
    EXPECT_EQ("", kit::attribute(path, kFlushTime));
    EXPECT_EQ("", kit::attribute(path, kMetadata));
    for (const int type : {2, 3}) {
        kit::PlatformDouble::setType(scratch.path(), type);
        EXPECT_EQ(0, VEXOEAFileEAWriteFlushTime(path.c_str(), 1));
        EXPECT_EQ(8u, kit::attribute(path, kFlushTime).size());
        EXPECT_EQ(0, VEXOEAFileEAFSFinfoEASync(path.c_str(), 1));
        EXPECT_EQ(402u, kit::attribute(path, kMetadata).size());
        ::removexattr(path.c_str(), kFlushTime);
        ::removexattr(path.c_str(), kMetadata);
    }
}

TEST_F(MetadataAttribute, UncheckedCallersDoNotAskForTheType) {
    kit::Faults::failAlways("VEXOGetFSType", EIO);
    EXPECT_EQ(0, VEXOEAFileEAWriteFlushTime(path.c_str(), 0));
    EXPECT_EQ(0, VEXOEAFileEAFSFinfoEASync(path.c_str(), 2));
    EXPECT_EQ(0, kit::Faults::count("VEXOGetFSType"));
}

TEST_F(MetadataAttribute, NeedSyncWithoutAStampIsNo) {
    EXPECT_FAILS(EACheckNeedSync(nullptr), 0x0D00);
    EXPECT_EQ(0, EACheckNeedSync(path.c_str()));
    EXPECT_EQ(0, EACheckNeedSync((scratch / "none").c_str()));
    for (const int number : {EPERM, ENOENT, EACCES, ENODATA}) {
        kit::Faults::fail("getxattr", number);
        EXPECT_EQ(0, EACheckNeedSync(path.c_str()));
    }
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
    kit::Faults::fail("getxattr", EOPNOTSUPP);
    EXPECT_EQ(0, EACheckNeedSync(path.c_str()));
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Error: getxattr fail [" + path + "]: Operation not supported"))
        << kit::Log::all();
    EXPECT_EQ("ea/ea_fileeafs_finfo_file_sync.c", kit::Log::lines()[0].source);
}

TEST_F(MetadataAttribute, StampOfAnotherSizeIsNone) {
    for (const std::string &stamp : {std::string(4, '\x7f'), std::string(9, '\x7f')}) {
        kit::Log::reset();
        kit::setAttribute(path, kFlushTime, stamp);
        EXPECT_EQ(0, EACheckNeedSync(path.c_str()));
        EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Error: getxattr fail [" + path + "]: Numerical result out of range"))
            << kit::Log::all();
    }
}

TEST_F(MetadataAttribute, NeedSyncAsksTheResourceFile) {
    setFlushTime(::time(nullptr) + 1000);
    EXPECT_EQ(1, EACheckNeedSync(path.c_str())); // there is none
    for (const int number : {EPERM, EACCES}) {
        kit::Faults::fail("stat", number, resource);
        EXPECT_EQ(0, EACheckNeedSync(path.c_str()));
    }
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
    kit::Faults::fail("stat", EIO, resource);
    EXPECT_EQ(-1, EACheckNeedSync(path.c_str()));
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "stat error: [" + resource + "] Input/output error")) << kit::Log::all();
}

TEST_F(MetadataAttribute, NeedSyncComparesTimes) {
    makeResource(info('A'));
    const time_t flushed = ::time(nullptr) + 1000;
    setFlushTime(flushed);
    setModified(resource, flushed - 1);
    EXPECT_EQ(1, EACheckNeedSync(path.c_str())); // the resource file is older than the flush
    setModified(resource, flushed);
    EXPECT_EQ(0, EACheckNeedSync(path.c_str())); // and the file did not change after it
    setFlushTime(1000);
    setModified(resource, 1000);
    EXPECT_EQ(1, EACheckNeedSync(path.c_str())); // the file did
}

TEST_F(MetadataAttribute, NeedSyncOfAFileThatVanishedIsNo) {
    makeResource(info('A'));
    setFlushTime(1000);
    setModified(resource, 2000);
    for (const int number : {EPERM, ENOENT, EACCES}) {
        kit::Faults::fail("stat", number, path);
        EXPECT_EQ(0, EACheckNeedSync(path.c_str())) << number;
        kit::Faults::reset();
    }
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
    kit::Faults::add({.function = "stat", .before = [&] { kit::Faults::failAlways("stat", EIO); }});
    EXPECT_EQ(0, EACheckNeedSync(path.c_str()));
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Error: getxattr fail [" + path + "]: Input/output error"))
        << kit::Log::all();
}

TEST_F(MetadataAttribute, NeedSyncOfAnOverlongPathFails) {
    const std::string longPath = "/" + std::string(4090, 'a');
    kit::Faults::add({.function = "getxattr", .result = 8, .answers = true});
    EXPECT_EQ(-1, EACheckNeedSync(longPath.c_str()));
    EXPECT_EQ(1, kit::Log::count(LOG_ERR, "Fail to generate path of " + longPath + ".")) << kit::Log::all();
}

TEST_F(MetadataAttribute, SyncBuildsItFromTheResourceFile) {
    makeResource(info('A'));
    const int64_t before = ::time(nullptr);
    EXPECT_EQ(0, VEXOEAFileEAFSFinfoEASync(path.c_str(), 0));
    std::string wanted = adouble_bytes::metadata();
    wanted.replace(122, 32, info('A'));
    EXPECT_EQ(wanted, kit::attribute(path, kMetadata));
    EXPECT_LE(before, flushTime());
    EXPECT_LE(flushTime(), ::time(nullptr));
}

TEST_F(MetadataAttribute, SyncWithoutAResourceFileBuildsAnEmptyOne) {
    EXPECT_EQ(0, VEXOEAFileEAFSFinfoEASync(path.c_str(), 0));
    EXPECT_EQ(adouble_bytes::metadata(), kit::attribute(path, kMetadata));
    EXPECT_FALSE(kit::exists(scratch / "@eaDir"));
}

TEST_F(MetadataAttribute, SyncReplacesFinderInfoAndKeepsTheRest) {
    // Other places than usual, entries in another order, a filler and data of the owner's.
    std::vector<adouble_bytes::Entry> entries(adouble_bytes::kMetadata.rbegin(), adouble_bytes::kMetadata.rend());
    for (adouble_bytes::Entry &entry : entries) {
        entry.offset = entry.id == 9 ? 130 : entry.id == 4 ? 170 : entry.offset;
    }
    std::string stored = adouble_bytes::header(entries, 402, 0x00051607, 0x00020000, "Netatalk        ");
    stored.replace(130, 32, info('o'));
    stored.replace(170, 7, "comment");
    store(stored);
    makeResource(info('N'));
    EXPECT_EQ(0, VEXOEAFileEAFSFinfoEASync(path.c_str(), 0));
    auto sorted = adouble_bytes::kMetadata;
    sorted[0].offset = 170;
    sorted[2].offset = 130;
    std::string wanted = adouble_bytes::header(sorted, 402, 0x00051607, 0x00020000, "Netatalk        ");
    wanted.replace(130, 32, info('N'));
    wanted.replace(170, 7, "comment");
    EXPECT_EQ(wanted, kit::attribute(path, kMetadata));
}

TEST_F(MetadataAttribute, SyncOfZeroFinderInfoKeepsWhatIsStored) {
    std::string stored = adouble_bytes::metadata();
    stored.replace(122, 32, info('o'));
    store(stored);
    makeResource(info('\0'));
    EXPECT_EQ(0, VEXOEAFileEAFSFinfoEASync(path.c_str(), 0));
    EXPECT_EQ(stored, kit::attribute(path, kMetadata));
    ASSERT_EQ(0, ::unlink(resource.c_str()));
    EXPECT_EQ(0, VEXOEAFileEAFSFinfoEASync(path.c_str(), 0));
    EXPECT_EQ(stored, kit::attribute(path, kMetadata));
}

TEST_F(MetadataAttribute, SyncIntoADamagedEntryIsRefused) {
    makeResource(info('N'));
    for (const adouble_bytes::Entry &bad :
         std::vector<adouble_bytes::Entry>{{9, 371, 32}, {9, 500, 32}, {9, 1023, 0}, {9, 121, 32}, {9, 122, 31}}) {
        auto entries = adouble_bytes::kMetadata;
        entries[2] = bad;
        const std::string stored = adouble_bytes::header(entries, 402);
        store(stored);
        EXPECT_FAILS(VEXOEAFileEAFSFinfoEASync(path.c_str(), 0), 0x0A00);
        EXPECT_EQ(stored, kit::attribute(path, kMetadata));
        EXPECT_EQ("", kit::attribute(path, kFlushTime));
    }
}

TEST_F(MetadataAttribute, SyncFailures) {
    EXPECT_FAILS(VEXOEAFileEAFSFinfoEASync(nullptr, 0), 0x0D00);
    EXPECT_EQ(0, VEXOEAFileEAFSFinfoEASync(nullptr, 1)) << "no path lies on such a volume";
    makeResource(info('N'));
    kit::Faults::fail("open", EACCES, resource);
    EXPECT_EQ(-1, VEXOEAFileEAFSFinfoEASync(path.c_str(), 0));
    kit::Faults::fail("setxattr", EPERM, path);
    EXPECT_FAILS(VEXOEAFileEAFSFinfoEASync(path.c_str(), 0), 0x0300);
    kit::Faults::fail("setxattr", ENOSPC, path, 1);
    EXPECT_FAILS(VEXOEAFileEAFSFinfoEASync(path.c_str(), 0), 0x2A00);
    store("not a header");
    EXPECT_FAILS(VEXOEAFileEAFSFinfoEASync(path.c_str(), 0), 0x0A00);
    ASSERT_EQ(0, ::truncate(resource.c_str(), 30));
    EXPECT_FAILS(VEXOEAFileEAFSFinfoEASync(path.c_str(), 0), 0x0A00);
}

} // namespace
