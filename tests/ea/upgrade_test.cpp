// Converting the old layout into the current one.
#include "ea/ea.h"
#include "tests/ea/item_store.h"
#include "tests/kit/behaviour.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

using namespace item_store;

class Upgrade : public kit::Behaviour {
  protected:
    void SetUp() override {
        file = {scratch.path(), "file"};
        kit::writeFile(file.path(), "data", 0644);
        kit::Behaviour::SetUp();
        KIT_NEEDS_TO_MAKE_STORES();
    }
    void makeOld(const std::map<std::string, std::string> &files) const {
        makeDirectories(file);
        ::mkdir(file.own().c_str(), 0777);
        for (const auto &[key, value] : files) {
            kit::writeFile(file.own() + "/" + key, value);
        }
    }
    static void setAccessTime(const std::string &path, time_t seconds) {
        const struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
        ::utimensat(AT_FDCWD, path.c_str(), times, 0);
    }
    int upgrade(const char *stream = "VexoEAStream") const { return VEXOEAUpgrade(file.path().c_str(), stream); }
    std::map<std::string, std::string> converted() const {
        Items items;
        readStream(content(file.stream()), items);
        return items.attributes;
    }
    mode_t mode() const { return kit::statOf(file.path()).st_mode & 07777; }
    bool hidden() const {
        VLIBCStat status{};
        return VLIBCFileStat(file.path().c_str(), 3, &status) == 0 && (status.attributes & VLIBC_ATTR_HIDDEN) != 0;
    }
    // A resource of the old layout with these two words.
    std::string resource(uint16_t attributes, uint16_t finderFlags) const {
        std::string bytes = adouble_bytes::header({{9, 50, 32}, {14, 82, 4}}, 86);
        bytes.replace(58, 2, adouble_bytes::number(finderFlags, 2));
        bytes.replace(84, 2, adouble_bytes::number(attributes, 2));
        return bytes;
    }

    Place file;
};

TEST_F(Upgrade, OtherStreamNamesAreRefused) {
    for (const char *name : {"", "Vexo", "vexo:Other", "X"}) {
        EXPECT_FAILS(upgrade(name), 0x0D00);
    }
    EXPECT_FAILS(VEXOEAUpgrade(nullptr, "VexoEAStream"), 0x0D00);
    EXPECT_FAILS(upgrade(nullptr), 0x0D00);
    EXPECT_STREQ("ea/ea_upgrade.c", VLIBCErrorGetFile());
}

TEST_F(Upgrade, AttributeFilesBecomeOneStream) {
    const std::map<std::string, std::string> files = {
        {"colour", "green"}, {"empty", ""}, {"line\nfeed", "x"}, {"large", kit::pattern(200000)}};
    makeOld(files);
    EXPECT_EQ(0, upgrade());
    EXPECT_EQ(files, converted());
    EXPECT_FALSE(kit::exists(file.own()));
    EXPECT_TRUE(kit::Log::lines().empty()) << kit::Log::all();
    EXPECT_EQ(1, upgrade());
    EXPECT_EQ(files, converted());
}

TEST_F(Upgrade, CurrentStoreIsLeftAlone) {
    makeOld({{"colour", "green"}});
    kit::writeFile(file.stream(), "whatever");
    EXPECT_EQ(1, upgrade());
    EXPECT_EQ("whatever", kit::readFile(file.stream()));
    EXPECT_EQ(std::vector<std::string>{"colour"}, kit::namesIn(file.own()));
}

TEST_F(Upgrade, NothingOldIsTwo) {
    EXPECT_EQ(2, upgrade());
    EXPECT_EQ(2, upgrade("VexoResource"));
    EXPECT_EQ(2, upgrade("VEXO:Other"));
    EXPECT_FALSE(kit::exists(file.eaDirectory()));
    makeOld({});
    EXPECT_EQ(2, upgrade());
    EXPECT_FALSE(kit::exists(file.own())) << "an empty old directory goes";
}

TEST_F(Upgrade, FilesOfOtherServicesStay) {
    const std::vector<std::string> ignored = {"ART_MXAUDIO.jpg", "VEXOthing",  "a:b",
                                              "offset",          "xAPIC1.jpg", "yAPIC.png"};
    makeOld({});
    for (const std::string &name : ignored) {
        kit::writeFile(file.own() + "/" + name, name);
    }
    EXPECT_EQ(2, upgrade());
    EXPECT_FALSE(kit::exists(file.stream()));
    for (const char *name : {"offset2", "APIC.gif", "x.jpg", "Offset", "vexo"}) {
        kit::writeFile(file.own() + "/" + name, name);
    }
    EXPECT_EQ(0, upgrade());
    EXPECT_EQ(ignored, kit::namesIn(file.own()));
    EXPECT_EQ(5u, converted().size());
}

TEST_F(Upgrade, NewerAppleDoubleFileBecomesTheStream) {
    makeOld({{"colour", "green"}});
    const std::string bytes = stream::bytes({{"from", "double"}});
    kit::writeFile(file.dotFile(), bytes);
    setAccessTime(file.own() + "/colour", 1000);
    setAccessTime(file.dotFile(), 1000); // as old will do
    EXPECT_EQ(0, upgrade());
    EXPECT_EQ(bytes, kit::readFile(file.stream()));
    EXPECT_FALSE(kit::exists(file.dotFile()));
    EXPECT_TRUE(kit::exists(file.own() + "/colour"));
}

TEST_F(Upgrade, AppleDoubleFileAloneBecomesTheStream) {
    kit::writeFile(file.dotFile(), stream::bytes({{"from", "double"}}));
    EXPECT_EQ(0, upgrade());
    EXPECT_EQ(1u, converted().size());
    EXPECT_EQ(0777u, kit::statOf(file.eaDirectory()).st_mode & 07777u);
}

TEST_F(Upgrade, OlderAppleDoubleFileStays) {
    makeOld({{"colour", "green"}});
    kit::writeFile(file.dotFile(), stream::bytes({{"from", "double"}}));
    setAccessTime(file.own() + "/colour", 1001);
    setAccessTime(file.dotFile(), 1000);
    EXPECT_EQ(0, upgrade());
    EXPECT_EQ(1u, converted().count("colour"));
    EXPECT_TRUE(kit::exists(file.dotFile()));
}

TEST_F(Upgrade, FileThatOnlyLooksLikeAppleDoubleStays) {
    kit::writeFile(file.dotFile(), "mine");
    EXPECT_EQ(2, upgrade());
    EXPECT_EQ("mine", kit::readFile(file.dotFile()));
}

TEST_F(Upgrade, AppleDoubleFileThatCannotMoveStays) {
    kit::writeFile(file.dotFile(), stream::bytes({{"from", "double"}}));
    kit::Faults::fail("rename", EIO);
    EXPECT_FAILS(upgrade(), 0x2800);
    EXPECT_TRUE(kit::exists(file.dotFile()));
    EXPECT_FALSE(kit::exists(file.stream()));
}

TEST_F(Upgrade, AppleDoubleFileWithoutADirectoryToGoToStays) {
    kit::writeFile(file.dotFile(), stream::bytes({{"from", "double"}}));
    kit::Faults::fail("mkdir", ENOSPC);
    EXPECT_FAILS(upgrade(), 0x3C00);
    EXPECT_TRUE(kit::exists(file.dotFile()));
}

TEST_F(Upgrade, AppleDoubleNameTooLongIsASuccess) {
    file.base = std::string(254, 'n');
    makeDirectories(file);
    ::mkdir(file.own().c_str(), 0777);
    kit::writeFile(file.own() + "/colour", "green");
    EXPECT_EQ(0, upgrade());
    EXPECT_EQ(0xC300u, VLIBCErrGet());
    EXPECT_EQ(std::vector<std::string>{"colour"}, kit::namesIn(file.own()));
}

TEST_F(Upgrade, StreamThatCannotBeMadeFails) {
    makeOld({{"colour", "green"}});
    kit::Faults::fail("open", EACCES, "@VexoEAStream");
    EXPECT_FAILS(upgrade(), 0x0900);
    EXPECT_EQ("green", kit::readFile(file.own() + "/colour"));
}

TEST_F(Upgrade, UnreadableFilesStayAndTheOthersGoOn) {
    struct Row {
        const char *function;
        int skip;
        uint32_t code;
    };
    for (const Row &row : {Row{"lstat", 1, 0x2A00}, Row{"open", 0, 0x0900}, Row{"pread", 0, 0x0A00}}) {
        makeOld({{"a", "1"}, {"b", "2"}});
        VLIBCErrSetEx(0, "", 0);
        kit::Faults::fail(row.function, EIO, file.own() + "/a", row.skip);
        EXPECT_EQ(0, upgrade()) << row.function;
        EXPECT_EQ(row.code, VLIBCErrGet()) << row.function;
        kit::Faults::reset();
        EXPECT_EQ((std::map<std::string, std::string>{{"b", "2"}}), converted()) << row.function;
        EXPECT_EQ(std::vector<std::string>{"a"}, kit::namesIn(file.own())) << row.function;
        ::unlink(file.stream().c_str());
    }
}

TEST_F(Upgrade, EmptyStreamIsNeverLeftBehind) {
    makeOld({{"a", "1"}});
    kit::Faults::fail("open", EACCES, file.own() + "/a");
    EXPECT_EQ(0, upgrade());
    EXPECT_FALSE(kit::exists(file.stream()));
    EXPECT_EQ(0, upgrade()) << "and the next attempt converts it";
    EXPECT_EQ(1u, converted().count("a"));
}

TEST_F(Upgrade, DirectoryAmongTheAttributesStays) {
    makeOld({{"a", "1"}});
    ::mkdir((file.own() + "/inner").c_str(), 0777);
    EXPECT_EQ(0, upgrade());
    EXPECT_EQ(std::vector<std::string>{"inner"}, kit::namesIn(file.own()));
}

TEST_F(Upgrade, NameTooLongForARecordStays) {
    const std::string longName(255, 'n');
    makeOld({{longName, "1"}, {std::string(254, 'm'), "2"}});
    EXPECT_EQ(0, upgrade());
    EXPECT_EQ(std::vector<std::string>{longName}, kit::namesIn(file.own()));
    ASSERT_EQ(1u, kit::Log::lines().size()) << kit::Log::all();
    EXPECT_TRUE(kit::Log::lines()[0].body.starts_with("VEXOEASWrite error, VexoErr=[0x0D00 ea/eas_write.c:"));
    EXPECT_EQ(LOG_ERR, kit::Log::lines()[0].priority);
    EXPECT_EQ("ea/ea_upgrade.c", kit::Log::lines()[0].source);
}

TEST_F(Upgrade, PathTooLongIsLoggedAndPassedOver) {
    // The path of the old directory fits, that of an attribute with a long name does not.
    file.directory = kit::makeDeepDirectory(scratch.path(), 4009);
    file.base = "f";
    makeOld({{"a", "1"}});
    const std::string longName(100, 'n');
    const int directory = ::open(file.own().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ::close(::openat(directory, longName.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    EXPECT_EQ(0, upgrade());
    EXPECT_EQ(1u, converted().count("a"));
    EXPECT_EQ(std::vector<std::string>{longName}, kit::namesIn(file.own()));
    ASSERT_EQ(1u, kit::Log::lines().size()) << kit::Log::all();
    const std::string start = "cannot EAPath[" + file.path() + "][";
    EXPECT_EQ(LOG_ERR, kit::Log::lines()[0].priority);
    EXPECT_EQ(start.substr(0, 800), kit::Log::lines()[0].body.substr(0, std::min<size_t>(start.size(), 800)));
    ::unlinkat(directory, longName.c_str(), 0);
    ::close(directory);
}

// Each attribute is in the stream or still a file of its own, whatever call fails.
TEST_F(Upgrade, LosesNothingWhenAStepFails) {
    const std::map<std::string, std::string> files = {{"a", "1"}, {"b", kit::pattern(5000)}, {"c", "3"}, {"d", "4"}};
    for (const char *function : {"write", "pwrite", "lseek", "read", "pread", "open", "lstat", "stat", "fstat",
                                 "ftruncate", "fcntl", "unlink", "remove", "rmdir", "readdir"}) {
        for (int skip = 0; skip < 200; ++skip) {
            makeOld(files);
            kit::Faults::fail(function, ENOSPC, {}, skip);
            (void)upgrade();
            const int calls = kit::Faults::count(function);
            kit::Faults::reset();
            const auto there = converted();
            for (const auto &[key, value] : files) {
                const bool inStream = there.contains(key) && there.at(key) == value;
                const bool asFile = content(file.own() + "/" + key) == value;
                EXPECT_TRUE(inStream || asFile) << key << " is lost when call " << skip + 1 << " of " << function;
            }
            ::unlink(file.stream().c_str());
            if (calls <= skip) {
                break;
            }
        }
    }
}

TEST_F(Upgrade, OldDirectoryThatCannotGoFails) {
    makeOld({{"a", "1"}});
    kit::Faults::fail("rmdir", EACCES);
    EXPECT_FAILS(upgrade(), 0x3900);
    EXPECT_EQ(1u, converted().count("a"));
    ::unlink(file.stream().c_str());
    makeOld({{"VEXO:Resource", resource(0, 0)}});
    kit::Faults::fail("rmdir", EACCES);
    EXPECT_FAILS(upgrade("VexoResource"), 0x3900);
}

TEST_F(Upgrade, ResourceMovesAndItsFlagsGoToTheFile) {
    struct Row {
        uint16_t attributes, finderFlags;
        mode_t before, after;
        bool hidden;
    };
    for (const Row &row :
         {Row{0x0020, 0, 0644, 0444, false}, Row{0, 0, 0644, 0666, false}, Row{0, 0, 0444, 0444, false},
          Row{0x0001, 0, 0600, 0622, true}, Row{0, 0x4000, 0644, 0666, true}, Row{0x0021, 0x4000, 0755, 0555, true},
          Row{0xffde, 0xbfff, 0640, 0662, false}}) {
        const std::string bytes = resource(row.attributes, row.finderFlags);
        makeOld({{"VEXO:Resource", bytes}});
        ::chmod(file.path().c_str(), row.before);
        ASSERT_EQ(0, VLIBCKernelAttrCall(file.path().c_str(), 518));
        EXPECT_EQ(0, upgrade("VexoResource"));
        EXPECT_EQ(bytes, kit::readFile(file.resource()));
        EXPECT_FALSE(kit::exists(file.own()));
        EXPECT_EQ(row.after, mode()) << std::hex << row.attributes;
        EXPECT_EQ(row.hidden, hidden()) << std::hex << row.attributes;
        EXPECT_EQ(1, upgrade("VexoResource"));
        ::unlink(file.resource().c_str());
    }
}

TEST_F(Upgrade, HiddenFileStaysHidden) {
    makeOld({{"VEXO:Resource", resource(0, 0)}});
    ASSERT_EQ(0, VLIBCKernelAttrCall(file.path().c_str(), 515));
    EXPECT_EQ(0, upgrade("VexoResource"));
    EXPECT_TRUE(hidden());
    EXPECT_EQ(0666u, mode());
}

TEST_F(Upgrade, MalformedResourceStillMoves) {
    const std::string ok = resource(0x0021, 0x4000);
    struct Row {
        std::string bytes;
        uint32_t code;
    };
    std::string otherIds = adouble_bytes::header({{2, 50, 0}, {4, 50, 0}}, 90);
    std::string versionOne = ok;
    versionOne.replace(4, 4, adouble_bytes::number(0x00010000, 4));
    std::string noEntries = ok;
    noEntries.replace(24, 2, std::string(2, '\0'));
    std::string tooMany = ok;
    tooMany.replace(24, 2, "\xff\xff");
    std::string beyond = adouble_bytes::header({{9, 0xfffffff0, 32}, {14, 82, 4}}, 86);
    for (const Row &row : {Row{"", 0x0A00}, Row{ok.substr(0, 25), 0x0A00}, Row{ok.substr(0, 40), 0x0A00},
                           Row{ok.substr(0, 85), 0x0A00}, Row{versionOne, 0x4000}, Row{noEntries, 0x4000},
                           Row{otherIds, 0x4000}, Row{tooMany, 0x0A00}, Row{beyond, 0x0A00}}) {
        makeOld({{"VEXO:Resource", row.bytes}});
        VLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(0, upgrade("VexoResource"));
        EXPECT_EQ(row.code, VLIBCErrGet()) << row.bytes.size();
        EXPECT_EQ(row.bytes, kit::readFile(file.resource()));
        EXPECT_EQ(0644u, mode());
        EXPECT_FALSE(hidden());
        ::unlink(file.resource().c_str());
    }
}

TEST_F(Upgrade, OneOfTheTwoWordsIsEnough) {
    std::string finder = adouble_bytes::header({{9, 50, 32}, {2, 82, 0}}, 82);
    finder.replace(58, 2, "\x40\x00", 2);
    makeOld({{"VEXO:Resource", finder}});
    EXPECT_EQ(0, upgrade("VexoResource"));
    EXPECT_TRUE(hidden());
    EXPECT_EQ(0666u, mode());
    ::unlink(file.resource().c_str());
    std::string attributes = adouble_bytes::header({{14, 50, 4}}, 54);
    attributes.replace(52, 2, "\x00\x20", 2);
    makeOld({{"VEXO:Resource", attributes}});
    EXPECT_EQ(0, upgrade("VexoResource"));
    EXPECT_EQ(0444u, mode());
}

TEST_F(Upgrade, ModeStaysWhenTheStatusCannotBeRead) {
    makeOld({{"VEXO:Resource", resource(0x0021, 0)}});
    kit::Faults::fail("VLIBCFileStat", EIO);
    EXPECT_EQ(0, upgrade("VexoResource"));
    EXPECT_EQ(0644u, mode());
}

TEST_F(Upgrade, ResourceThatCannotMoveStays) {
    makeOld({{"VEXO:Resource", "bytes"}});
    kit::Faults::fail("rename", EIO);
    EXPECT_FAILS(upgrade("VexoResource"), 0x2800);
    EXPECT_EQ("bytes", kit::readFile(file.own() + "/VEXO:Resource"));
}

TEST_F(Upgrade, ResourceBesideAttributesKeepsTheOldDirectory) {
    makeOld({{"VEXO:Resource", resource(0, 0)}, {"colour", "green"}});
    EXPECT_EQ(0, upgrade("VexoResource"));
    EXPECT_EQ(std::vector<std::string>{"colour"}, kit::namesIn(file.own()));
    EXPECT_EQ(0, upgrade());
    EXPECT_FALSE(kit::exists(file.own()));
}

TEST_F(Upgrade, PathsWithoutRoomForTheStoresFail) {
    file.directory = kit::makeDeepDirectory(scratch.path(), 4070);
    file.base = std::string(20, 'f'); // room for "@eaDir", and for no stream in it
    for (const char *stream : {"VexoEAStream", "VexoResource", "VEXO:Other"}) {
        VLIBCErrSetEx(0, "", 0);
        EXPECT_FAILS(upgrade(stream), 0xC300);
    }
    file.base = "ffff"; // here the name of the current stream is too long by itself
    EXPECT_FAILS(upgrade("VexoResource"), 0xC300);
}

TEST_F(Upgrade, MemoryForTheCompanionsPathMayRunOut) {
    makeOld({{"colour", "green"}});
    const std::string path = scratch.path() + std::string(4095, '/') + "file";
    kit::Faults::onlyAllocationsFrom(4095);
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "the sanitizer has the allocator";
    }
    EXPECT_FAILS(VEXOEAUpgrade(path.c_str(), "VexoEAStream"), 0x0200);
    kit::Faults::reset();
    EXPECT_EQ("green", kit::readFile(file.own() + "/colour"));
}

TEST_F(Upgrade, MemoryForAValueMayRunOut) {
    makeOld({{"large", kit::pattern(200000)}, {"small", "1"}});
    kit::Faults::onlyAllocationsFrom(200000);
    if (!kit::Faults::failAllocation(1)) {
        GTEST_SKIP() << "the sanitizer has the allocator";
    }
    EXPECT_EQ(0, upgrade());
    EXPECT_EQ(0x0100u, VLIBCErrGet());
    EXPECT_EQ((std::map<std::string, std::string>{{"small", "1"}}), converted());
    EXPECT_EQ(std::vector<std::string>{"large"}, kit::namesIn(file.own()));
}

TEST_F(Upgrade, StreamThatCannotBeFlushedKeepsTheFiles) {
    makeOld({{"colour", "green"}});
    kit::Faults::fail("fsync", EIO);
    EXPECT_FAILS(upgrade(), 0x2A00);
    EXPECT_EQ("green", kit::readFile(file.own() + "/colour"));
    EXPECT_FALSE(kit::exists(file.stream()));
}

TEST_F(Upgrade, SpoiltStreamThatCannotBeCutKeepsTheFiles) {
    makeOld({{"a", "1"}, {"b", "2"}});
    kit::Faults::fail("write", ENOSPC, "@VexoEAStream", 2);
    kit::Faults::failAlways("ftruncate", EIO, "@VexoEAStream");
    kit::Faults::failAlways("fallocate", EOPNOTSUPP);
    EXPECT_FAILS(upgrade(), 0x2A00);
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), kit::namesIn(file.own()));
    EXPECT_FALSE(kit::exists(file.stream()));
}

TEST_F(Upgrade, FlagsThatCannotBeCarriedLeaveTheirCodes) {
    struct Row {
        const char *function;
        std::string path;
        uint32_t code;
        mode_t after;
    };
    for (const Row &row : {Row{"open", file.resource(), 0x0900, 0644}, Row{"VLIBCFileStat", "", 0x2700, 0644},
                           Row{"fchmod", file.path(), 0x2A00, 0644}, Row{"VLIBCKernelAttrCall", "", 0x2A00, 0444}}) {
        makeOld({{"VEXO:Resource", resource(0x0021, 0)}});
        ::chmod(file.path().c_str(), 0644);
        VLIBCErrSetEx(0, "", 0);
        kit::Faults::fail(row.function, EIO, row.path);
        EXPECT_EQ(0, upgrade("VexoResource")) << row.function;
        EXPECT_EQ(row.code, VLIBCErrGet()) << row.function;
        EXPECT_EQ(row.after, mode()) << row.function;
        EXPECT_FALSE(hidden()) << row.function;
        EXPECT_FALSE(kit::exists(file.own())) << row.function;
        ::unlink(file.resource().c_str());
    }
}

// Whoever may put a link beside an "@eaDir" may put a store into it, too.
TEST_F(Upgrade, FlagsAreNotForWhatALinkLeadsTo) {
    const std::string victim = file.path() + "-victim";
    kit::writeFile(victim, "secret");
    for (const bool meanwhile : {false, true}) {
        makeOld({{"VEXO:Resource", resource(0x0001, 0)}}); // hidden, not locked
        ::chmod(victim.c_str(), 0600);
        const auto exchange = [&] {
            if (::unlink(file.path().c_str()) == 0) {
                EXPECT_EQ(0, ::symlink(victim.c_str(), file.path().c_str()));
            }
        };
        if (meanwhile) {
            kit::Faults::add({.function = "open", .path = file.path(), .before = exchange});
        } else {
            exchange();
        }
        VLIBCErrSetEx(0, "", 0);
        EXPECT_EQ(0, upgrade("VexoResource"));
        EXPECT_EQ(0x2A00u, VLIBCErrGet());
        EXPECT_EQ(0600u, kit::statOf(victim).st_mode & 07777);
        EXPECT_EQ("", kit::attribute(victim, "user.DOSATTRIB"));
        kit::Faults::reset();
        ::unlink(file.resource().c_str());
        ::unlink(file.path().c_str());
        kit::writeFile(file.path(), "x");
    }
}

TEST_F(Upgrade, DirectoryAmongTheAttributesLeavesItsCode) {
    makeOld({});
    ::mkdir((file.own() + "/inner").c_str(), 0777);
    EXPECT_EQ(0, upgrade());
    EXPECT_EQ(0x0A00u, VLIBCErrGet());
    EXPECT_FALSE(kit::exists(file.stream()));
}

TEST_F(Upgrade, MvThatCannotRunFails) {
    makeOld({{"VEXO:Other", "bytes"}});
    kit::Faults::fail("VLIBCExec", EAGAIN);
    EXPECT_FAILS(upgrade("VEXO:Other"), 0x2800);
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ("bytes", kit::readFile(file.own() + "/VEXO:Other"));
}

TEST_F(Upgrade, CleanUpLeavesTheErrnoOfTheFailure) {
    makeOld({{"colour", "green"}});
    kit::Faults::fail("open", EROFS, "@VexoEAStream");
    EXPECT_FAILS(upgrade(), 0x0900);
    EXPECT_EQ(EROFS, errno);
}

// It may be the newer of the two.
TEST_F(Upgrade, AppleDoubleFileThatCannotBeLookedAtIsNotAbsent) {
    struct Row {
        const char *function;
        int error;
        uint32_t code;
    };
    for (const Row &row : {Row{"lstat", EIO, 0x2A00}, Row{"lstat", EACCES, 0x2A00}, Row{"open", EIO, 0x0A00},
                           Row{"open", EACCES, 0x0A00}, Row{"read", EIO, 0x0A00}}) {
        makeOld({{"colour", "green"}});
        kit::writeFile(file.dotFile(), stream::bytes({{"from", "double"}}));
        VLIBCErrSetEx(0, "", 0);
        kit::Faults::fail(row.function, row.error, "/._file");
        EXPECT_FAILS(upgrade(), row.code);
        EXPECT_EQ(row.error, errno) << row.function;
        kit::Faults::reset();
        EXPECT_EQ("green", kit::readFile(file.own() + "/colour"));
        EXPECT_TRUE(kit::exists(file.dotFile()));
        EXPECT_FALSE(kit::exists(file.stream()));
    }
    kit::Faults::fail("lstat", EIO, scratch / "file"); // the file that it belongs to
    EXPECT_FAILS(upgrade(), 0x2700);
}

TEST_F(Upgrade, CurrentStoreThatCannotBeLookedAtIsNotAbsent) {
    makeOld({{"colour", "green"}, {"VEXO:Resource", resource(0, 0)}, {"VEXO:Other", "bytes"}});
    kit::writeFile(file.stream(), "whatever");
    kit::Faults::failAlways("lstat", EIO, "@");
    for (const char *stream : {"VexoEAStream", "VexoResource", "VEXO:Other"}) {
        VLIBCErrSetEx(0, "", 0);
        EXPECT_FAILS(upgrade(stream), 0x2A00);
        EXPECT_EQ(EIO, errno);
    }
    kit::Faults::reset();
    EXPECT_EQ("whatever", kit::readFile(file.stream()));
    EXPECT_EQ(3u, kit::namesIn(file.own()).size());
}

// Each value that does not fit has the stream built anew only once, however many there are: also on a volume that
// cannot reserve, where a write that fails has spoilt it.
TEST_F(Upgrade, FullVolumeIsTriedOnce) {
    for (const bool reserves : {true, false}) {
        SCOPED_TRACE(reserves ? "reserving" : "not reserving");
        KIT_REQUIRE(volume, kit::Volume::tmpfs(4 << 20));
        processAsNow();
        file = {volume.path(), "file"};
        kit::writeFile(file.path(), "data");
        std::map<std::string, std::string> files;
        for (int at = 0; at < 300; ++at) {
            files["attribute" + std::to_string(at)] = kit::pattern(8000, static_cast<unsigned char>(at));
        }
        makeOld(files);
        kit::Faults::failAlways("open", 0, file.own() + "/attribute");
        if (!reserves) {
            kit::Faults::failAlways("fallocate", EOPNOTSUPP);
        }
        EXPECT_EQ(0, upgrade());
        EXPECT_GT(kit::Faults::count("open"), 300);
        EXPECT_LT(kit::Faults::count("open"), 1000) << "each file is read once or twice";
        kit::Faults::reset();
        const auto there = converted();
        EXPECT_GT(there.size(), 50u);
        EXPECT_LT(there.size(), 300u);
        for (const auto &[key, value] : files) {
            const bool inStream = there.contains(key) && there.at(key) == value;
            EXPECT_TRUE(inStream != (content(file.own() + "/" + key) == value)) << key;
        }
    }
}

// What is small enough is not left behind with what is not.
TEST_F(Upgrade, SmallAttributesGoWhereALargeOneDoesNotFit) {
    for (const bool reserves : {true, false}) {
        KIT_REQUIRE(volume, kit::Volume::tmpfs(4 << 20));
        processAsNow();
        file = {volume.path(), "file"};
        kit::writeFile(file.path(), "data");
        std::map<std::string, std::string> files = {{"large", kit::pattern(3000000)}};
        for (int at = 0; at < 20; ++at) {
            files["small" + std::to_string(at)] = "value";
        }
        makeOld(files);
        if (!reserves) {
            kit::Faults::failAlways("fallocate", EOPNOTSUPP);
        }
        EXPECT_EQ(0, upgrade());
        EXPECT_EQ(20u, converted().size());
        EXPECT_EQ(std::vector<std::string>{"large"}, kit::namesIn(file.own()));
    }
}

TEST_F(Upgrade, StreamNameWithoutAColonIsTheCurrentOne) {
    file.directory = scratch / "a:b";
    ASSERT_EQ(0, ::mkdir(file.directory.c_str(), 0755));
    EXPECT_EQ(2, upgrade("VEXOther"));
    makeOld({{"VEXOther", "bytes"}});
    EXPECT_EQ(1, upgrade("VEXOther"));
    EXPECT_EQ("bytes", kit::readFile(file.own() + "/VEXOther"));
}

TEST_F(Upgrade, OtherStreamsMoveByMv) {
    makeOld({{"VEXO:Other", "bytes"}});
    EXPECT_EQ(0, upgrade("VEXO:Other"));
    EXPECT_EQ("bytes", kit::readFile(file.own() + "/VEXO@Other"));
    kit::writeFile(file.own() + "/VEXO:Other", "again");
    EXPECT_EQ(1, upgrade("VEXO:Other"));
    EXPECT_EQ("bytes", kit::readFile(file.own() + "/VEXO@Other"));
    EXPECT_EQ("again", kit::readFile(file.own() + "/VEXO:Other"));
}

TEST_F(Upgrade, OnlyTheLastColonOfAStreamNameChanges) {
    makeOld({{"VEXO:a:b", "bytes"}});
    EXPECT_EQ(0, upgrade("VEXO:a:b"));
    EXPECT_EQ(std::vector<std::string>{"VEXO:a@b"}, kit::namesIn(file.own()));
}

} // namespace
