// What a run knows of files of several names.
#include "tools/engine/transfer/linked_files.h"

#include "tests/kit/scratch.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using engine::LinkedFiles;

// A file of two names of which one has gone to another directory, and what came of it there.
struct LinkedScene {
    LinkedScene() {
        kit::writeFile(source, "content");
        kit::writeFile(copy, "content");
        EXPECT_EQ(0, ::link(source.c_str(), (scratch / "second").c_str()));
        files.placed(kit::statOf(source), engine::HeldDirectory(scratch.path()), "copy", false);
    }
    bool links(const struct stat &file) const {
        return files.link(file, engine::HeldDirectory(scratch.path()), "made");
    }

    kit::ScratchDirectory scratch;
    const std::string source = scratch / "source", copy = scratch / "copy";
    LinkedFiles files;
};

TEST(LinkedFilesOfARun, AnotherChangeTimeAloneIsForAProof) {
    LinkedScene scene;
    struct stat now = kit::statOf(scene.source);
    EXPECT_EQ(nullptr, scene.files.claimed(now)); // of what it is sure
    now.st_ctim.tv_sec += 1;
    EXPECT_FALSE(scene.links(now));
    ASSERT_NE(nullptr, scene.files.claimed(now));
    EXPECT_EQ(scene.copy, scene.files.claimed(now)->path);
    scene.files.prove(now);
    EXPECT_TRUE(scene.links(now));
    EXPECT_EQ(kit::statOf(scene.copy).st_ino, kit::statOf(scene.scratch / "made").st_ino);
    now.st_mtim.tv_nsec ^= 1;
    EXPECT_EQ(nullptr, scene.files.claimed(now)); // it has changed
    EXPECT_TRUE(scene.files.contains(now));
}

TEST(LinkedFilesOfARun, AFileWithoutNamesIsForgottenUnlessItHadMore) {
    LinkedScene scene;
    struct stat now = kit::statOf(scene.source);
    now.st_nlink = 0;
    scene.files.touched(now);
    EXPECT_FALSE(scene.links(kit::statOf(scene.source)));
    EXPECT_NE(nullptr, scene.files.claimed(kit::statOf(scene.source)));
    scene.files.touched(now);
    EXPECT_FALSE(scene.files.contains(now));
}

} // namespace
