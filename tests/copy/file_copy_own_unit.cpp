// The single-file engine driven by a request of its own.
#include "copy/engine/file_copy.h"

#include "tests/kit/behaviour.h"

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

std::vector<std::string> steps;

class FileCopyEngine : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        steps.clear();
        source = scratch / "source";
        target = scratch / "target";
        kit::writeFile(source, "data");
    }
    vexo::FileCopyRequest request() {
        vexo::FileCopyRequest made = {.source = "copy/engine_of_the_test.c",
                                      .src = source.c_str(),
                                      .dst = target.c_str(),
                                      .srcType = &srcType,
                                      .dstType = &dstType};
        made.isTooLarge = {[](void *, const char *, int, uint64_t) { return 0; }, nullptr};
        made.moveData = {[](void *, const char *, const char *, int *from, int *to, int64_t size) {
                             char data[16];
                             const ssize_t got = ::read(*from, data, static_cast<size_t>(size));
                             return got == size && ::write(*to, data, static_cast<size_t>(got)) == got ? 0 : -1;
                         },
                         nullptr};
        made.renameMetadata = {[](void *, const char *src, const char *dst, int type) {
                                   steps.push_back("rename metadata " + std::string(src) + " " + dst + " " +
                                                   std::to_string(type));
                                   return -1;
                               },
                               nullptr};
        made.copyMetadata = {[](void *, const vexo::FileRef &src, const vexo::FileRef &dst, int from, int to,
                                const vexo::KnownOfFile &) {
                                 const std::string sourceThere = kit::exists(src.path()) ? "with" : "without";
                                 steps.push_back("copy metadata " + std::string(src.path()) + " " + dst.path() + " " +
                                                 std::to_string(from) + " " + std::to_string(to) + " " + sourceThere +
                                                 " source");
                                 return -1;
                             },
                             nullptr};
        return made;
    }

    std::string source, target;
    int32_t srcType = 2, dstType = 1;
};

TEST_F(FileCopyEngine, CopyCarriesMetadataAndIgnoresTheirResult) {
    EXPECT_EQ(0, vexo::copy_file(request()));
    EXPECT_EQ(std::vector<std::string>{"copy metadata " + source + " " + target + " 2 1 with source"}, steps);
}

TEST_F(FileCopyEngine, MoveAcrossVolumesCarriesMetadataBeforeTheSourceGoes) {
    kit::Faults::fail("rename", EXDEV);
    vexo::FileCopyRequest move = request();
    move.move = true;
    EXPECT_EQ(0, vexo::copy_file(move));
    EXPECT_EQ(std::vector<std::string>{"copy metadata " + source + " " + target + " 2 1 with source"}, steps);
    EXPECT_FALSE(kit::exists(source));
}

TEST_F(FileCopyEngine, MoveByRenameRenamesMetadata) {
    vexo::FileCopyRequest move = request();
    move.move = true;
    EXPECT_EQ(0, vexo::copy_file(move));
    EXPECT_EQ(std::vector<std::string>{"rename metadata " + source + " " + target + " 2"}, steps);
}

TEST_F(FileCopyEngine, RenamedFileStaysWhenItCannotBeLookedAt) {
    kit::Faults::fail("stat", EIO, target);
    vexo::FileCopyRequest move = request();
    move.move = true;
    EXPECT_FAILS(vexo::copy_file(move), 0x6C00);
    EXPECT_STREQ("copy/engine_of_the_test.c", VLIBCErrorGetFile());
    EXPECT_EQ("data", kit::readFile(target));
    EXPECT_TRUE(steps.empty());
}

TEST_F(FileCopyEngine, FailedOrSkippedCopyLeavesMetadataAlone) {
    kit::Faults::fail("write", ENOSPC, target);
    vexo::FileCopyRequest failing = request();
    EXPECT_EQ(-1, vexo::copy_file(failing));
    kit::writeFile(target, "old");
    EXPECT_EQ(0, vexo::copy_file(failing));
    EXPECT_TRUE(steps.empty());
}

TEST_F(FileCopyEngine, EmptyMetadataCallbacksAreSkipped) {
    vexo::FileCopyRequest plain = request();
    plain.copyMetadata = {};
    plain.renameMetadata = {};
    EXPECT_EQ(0, vexo::copy_file(plain));
    plain.src = target.c_str();
    const std::string third = scratch / "third";
    plain.dst = third.c_str();
    plain.move = true;
    EXPECT_EQ(0, vexo::copy_file(plain));
    EXPECT_EQ("data", kit::readFile(third));
}

TEST_F(FileCopyEngine, CancelledCopyWithMoveKeepsTheSource) {
    kit::Faults::fail("rename", EXDEV);
    vexo::FileCopyRequest move = request();
    move.move = true;
    move.isCancel = {[](void *) { return 1; }, nullptr};
    move.moveData = {[](void *, const char *, const char *, int *, int *, int64_t) { return -1; }, nullptr};
    EXPECT_EQ(0, vexo::copy_file(move));
    EXPECT_FALSE(kit::exists(target));
    EXPECT_EQ("data", kit::readFile(source));
    EXPECT_TRUE(steps.empty());
}

TEST(OwnerPolicy, ZeroStandsForTheDefaultOwner) {
    EXPECT_EQ(1024u, vexo::OwnerPolicy{}.user());
    EXPECT_EQ(100u, vexo::OwnerPolicy{}.group());
    EXPECT_EQ(7u, (vexo::OwnerPolicy{.uid = 7, .gid = 8}.user()));
    EXPECT_EQ(8u, (vexo::OwnerPolicy{.uid = 7, .gid = 8}.group()));
}

} // namespace
