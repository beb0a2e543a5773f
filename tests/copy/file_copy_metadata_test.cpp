// The extended-attribute store travels with the file.
#include "ea/ea.h"
#include "tests/copy/file_copy_support.h"
#include "tests/kit/child.h"

#include <filesystem>

namespace file_copy {
namespace {

class FileCopyMetadata : public EveryDoor {
  protected:
    void SetUp() override {
        EveryDoor::SetUp();
        ASSERT_EQ(0, ::mkdir((from + "/@eaDir").c_str(), 0777));
        kit::writeFile(streamOf(from, "source.bin"), stream);
        ASSERT_EQ(0, ::mkdir((from + "/@eaDir/source.bin").c_str(), 0777));
        kit::writeFile(from + "/@eaDir/source.bin/thumb.jpg", "picture");
    }
    static std::string streamOf(const std::string &directory, const std::string &name) {
        return directory + "/@eaDir/" + name + "@VexoEAStream";
    }
    static uint32_t attributesOf(const std::string &path) {
        VLIBCStat out{};
        return VLIBCFileStat(path.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES, &out) == 0 ? out.attributes : 0;
    }

    const std::string stream = "the attributes of the source";
};
INSTANTIATE_TEST_SUITE_P(, FileCopyMetadata, kDoors, doorName);

TEST_P(FileCopyMetadata, CopyBringsTheStoreAndKeepsTheSources) {
    KIT_NEEDS_TO_MAKE_STORES();
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_EQ(stream, kit::readFile(streamOf(to, "target.bin")));
    EXPECT_EQ("picture", kit::readFile(to + "/@eaDir/target.bin/thumb.jpg"));
    EXPECT_EQ(stream, kit::readFile(streamOf(from, "source.bin")));
    EXPECT_EQ("picture", kit::readFile(from + "/@eaDir/source.bin/thumb.jpg"));
}

// Whoever may not write a file may not set its attributes, not even its owner.
TEST_P(FileCopyMetadata, ReadOnlyFileOfAUserBringsItsAttributes) {
    KIT_NEEDS_ROOT("to become another user");
    std::filesystem::remove_all(from + "/@eaDir");
    for (const mode_t mode : {0444U, 0400U, 0555U, 0644U}) {
        ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0777));
        ASSERT_EQ(0, ::chmod(from.c_str(), 0777));
        ASSERT_EQ(0, ::chmod(to.c_str(), 0777));
        ASSERT_EQ(0, ::chown(request.src.c_str(), kNobody, kNobody));
        kit::setAttribute(request.src, "user.own", "value");
        ASSERT_EQ(0, ::chmod(request.src.c_str(), mode));
        ::unlink(request.dst.c_str());
        EXPECT_TRUE(kit::holdsInChild([&] {
            processMayChange();
            ASSERT_EQ(0, ::setresgid(kNobody, kNobody, kNobody));
            ASSERT_EQ(0, ::setresuid(kNobody, kNobody, kNobody));
            (void)copy();
        }));
        EXPECT_EQ("value", kit::attribute(request.dst, "user.own")) << mode;
        EXPECT_EQ(mode, kit::statOf(request.dst).st_mode & 07777);
    }
}

TEST_P(FileCopyMetadata, CopyHasTheArchiveBit) {
    KIT_NEEDS_TO_MAKE_STORES();
    EXPECT_EQ(0, copy());
    EXPECT_NE(0U, attributesOf(request.dst) & VLIBC_ATTR_ARCHIVE);
}

TEST_P(FileCopyMetadata, MoveByRenameRenamesTheStore) {
    KIT_NEEDS_TO_MAKE_STORES();
    request.move = true;
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_EQ(stream, kit::readFile(streamOf(to, "target.bin")));
    EXPECT_EQ("picture", kit::readFile(to + "/@eaDir/target.bin/thumb.jpg"));
    EXPECT_FALSE(kit::exists(from + "/@eaDir"));
}

TEST_P(FileCopyMetadata, MoveAcrossVolumesBringsTheStore) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    processAsNow();
    kit::PlatformDouble::setType(volume.path(), 1);
    request.dst = volume / "target.bin";
    request.move = true;
    EXPECT_EQ(0, copy());
    expectCopied();
    EXPECT_FALSE(kit::exists(request.src));
    EXPECT_EQ(stream, kit::readFile(streamOf(volume.path(), "target.bin")));
    // The form with user data has no options of the first kind to say "move" to the store: there it stays behind.
    EXPECT_EQ(GetParam() == Door::reentrant, kit::exists(streamOf(from, "source.bin")));
}

TEST_P(FileCopyMetadata, FailedCopyBringsNothing) {
    kit::Faults::fail("write", ENOSPC, "target.bin");
    expectFailed(copy(), 0x2900);
    EXPECT_FALSE(kit::exists(to + "/@eaDir"));
}

TEST_P(FileCopyMetadata, StoreThatCannotBeCarriedDoesNotFailTheCopy) {
    kit::Faults::failAlways("mkdir", EROFS, "@eaDir");
    EXPECT_EQ(0, copy());
    expectCopied();
    expectNotReported();
    EXPECT_EQ(stream, kit::readFile(streamOf(from, "source.bin")));
}

// Only root makes an "@eaDir". Who can never become root copies the file without what belongs to it.
TEST_P(FileCopyMetadata, UserWithoutAnyPrivilegeCarriesNoStore) {
    KIT_NEEDS_ROOT("to become a user who cannot");
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    processAsNow();
    ASSERT_EQ(0, ::chmod(volume.path().c_str(), 0777));
    kit::PlatformDouble::setType(volume.path(), 1);
    request.dst = volume / "target.bin";
    for (const std::string &path : {request.src, from + "/@eaDir", from + "/@eaDir/source.bin",
                                    from + "/@eaDir/source.bin/thumb.jpg", streamOf(from, "source.bin")}) {
        ASSERT_EQ(0, ::chown(path.c_str(), kNobody, kNobody));
    }
    request.move = true;
    request.keepOwner = true;
    EXPECT_TRUE(kit::holdsInChild([&] {
        ASSERT_EQ(0, ::setresgid(kNobody, kNobody, kNobody));
        ASSERT_EQ(0, ::setresuid(kNobody, kNobody, kNobody));
        EXPECT_EQ(0, copy());
        EXPECT_EQ(0x3C00U, VLIBCErrGet());
    }));
    expectCopied();
    EXPECT_FALSE(kit::exists(request.src));
    EXPECT_FALSE(kit::exists(volume / "@eaDir"));
    EXPECT_EQ(stream, kit::readFile(streamOf(from, "source.bin"))) << "left behind without its file";
}

class FileCopyMetadataOne : public Scene {
  protected:
    void SetUp() override {
        Scene::SetUp();
        ASSERT_EQ(0, ::mkdir((from + "/@eaDir").c_str(), 0777));
        kit::writeFile(from + "/@eaDir/source.bin@VexoEAStream", "stream");
    }
};

TEST_F(FileCopyMetadataOne, FileOperationLeavesItWhenAskedTo) {
    constexpr uint32_t kNoEaFlag = 256;
    EXPECT_EQ(0, VEXOFileOpCopyFile(request.src.c_str(), request.dst.c_str(), kNoEaFlag, nullptr));
    expectCopied();
    EXPECT_FALSE(kit::exists(to + "/@eaDir"));
    ASSERT_EQ(0, ::unlink(request.dst.c_str()));
    EXPECT_EQ(0, VEXOFileOpCopyFile(request.src.c_str(), request.dst.c_str(), kNoEaFlag | kMove, nullptr));
    expectCopied();
    EXPECT_EQ("stream", kit::readFile(from + "/@eaDir/source.bin@VexoEAStream"));
}

std::vector<std::pair<std::string, std::string>> asked;
int copyEA(const char *src, const char *dst) {
    asked.emplace_back(src, dst);
    kit::writeFile(dst, "by the callback");
    return 0;
}
int copyEAWithData(void *data, const char *src, const char *dst) {
    ++*static_cast<int *>(data);
    return copyEA(src, dst);
}

// Each record's callback takes the place of the copy of a file of the store.
TEST_F(FileCopyMetadataOne, CallbackCopiesTheStore) {
    KIT_NEEDS_TO_MAKE_STORES();
    const std::pair<std::string, std::string> files = {from + "/@eaDir/source.bin@VexoEAStream",
                                                       to + "/@eaDir/target.bin@VexoEAStream"};
    const auto expectByCallback = [&] {
        EXPECT_EQ((std::vector<std::pair<std::string, std::string>>{files}), asked);
        EXPECT_EQ("by the callback", kit::readFile(files.second));
        asked.clear();
        EXPECT_EQ(0, ::unlink(request.dst.c_str()));
        EXPECT_EQ(0, ::unlink(files.second.c_str()));
    };
    VEXOCopyOpt opt{};
    VEXOCopyArgsEx ex{};
    ex.copyEA = copyEA;
    EXPECT_EQ(0, VEXOFileCopyEx(request.src.c_str(), request.dst.c_str(), &opt, &ex));
    expectByCallback();

    int calls = 0;
    VEXOCopyOptR optR{};
    VEXOCopyTHRArgs thr{};
    thr.copyEA = copyEAWithData;
    thr.copyEAArg = &calls;
    EXPECT_EQ(0, VEXOFileCopy_r(request.src.c_str(), request.dst.c_str(), &optR, &thr));
    EXPECT_EQ(1, calls);
    expectByCallback();

    VEXOCopyArgs *args = VEXOCopyArgsAlloc();
    ASSERT_EQ(0, VEXOCopyArgsSetFnCopyEA(args, copyEAWithData, &calls));
    EXPECT_EQ(0, VEXOFileOpCopyFile(request.src.c_str(), request.dst.c_str(), 0, args));
    VEXOCopyArgsFree(args);
    EXPECT_EQ(2, calls);
    expectByCallback();
}

} // namespace
} // namespace file_copy
