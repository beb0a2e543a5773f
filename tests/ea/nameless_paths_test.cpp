// Paths that name no entry: what companions they are given are those of something else, so that nothing is found there
// and nothing is changed.
#include "ea/ea.h"
#include "tests/ea/item_store.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/fingerprint.h"

#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

namespace {

class NamelessPaths : public kit::Behaviour {
  protected:
    void SetUp() override {
        // Stores of entries, and of the names that such paths would be taken for.
        for (const char *directory :
             {"a", "a/b", "a/@eaDir", "a/@eaDir/f", "a/@eaDir/b", "@eaDir", "@eaDir/a", "a/b/@eaDir"}) {
            ::mkdir((scratch / directory).c_str(), 0777);
        }
        for (const char *store : {"@eaDir", "a/@eaDir", "a/b/@eaDir"}) {
            for (const char *name :
                 {"f@VexoEAStream", "f@VexoResource", "@VexoEAStream", "@VexoResource", ".@VexoEAStream",
                  ".@VexoResource", "..@VexoEAStream", "..@VexoResource", "colour", "VEXO:Resource", "VEXO:Other"}) {
                kit::writeFile(scratch / (std::string(store) + "/" + name), stream::bytes({{"kept", "here"}}));
            }
        }
        for (const char *name : {"a/f", "a/._f", "a/._.", "a/._..", "a/._", "a/b/._.", "a/b/._..", "a/b/._", "._."}) {
            kit::writeFile(scratch / name, stream::bytes({{"kept", "here"}}));
        }
        kit::Behaviour::SetUp();
        KIT_NEEDS_TO_MAKE_STORES();
    }
    std::vector<std::string> paths() const {
        std::vector<std::string> all;
        for (const char *end : {"a/.", "a/..", "a/b/.", "a/b/..", "a/b//", "a/./", "a/b/../"}) {
            all.push_back(scratch / end);
        }
        return all;
    }
    std::string name() const { return scratch / "a/f"; }
    // Each path, with what it is called for; nothing below the scratch directory changes.
    void onEach(const std::function<void(const char *)> &call) const {
        const kit::Fingerprint before = kit::Fingerprint::of(scratch.path());
        for (const std::string &path : paths()) {
            SCOPED_TRACE(path);
            VLIBCErrSetEx(0, "", 0);
            call(path.c_str());
            EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(scratch.path()), {"accessed"}));
        }
    }
};

TEST_F(NamelessPaths, LoseNothing) {
    onEach([](const char *path) {
        for (const int kind : {0, 1, 2, 3, 5, 6, 10, 18, 19, 22}) {
            EXPECT_FAILS(VEXOEARemove(path, kind), 0x0D00);
            EXPECT_FAILS(VEXOEARemoveWithoutEAStream(path, kind), 0x0D00);
        }
        EXPECT_FAILS(EARemove(0, path), 0x0D00);
        EXPECT_FAILS(EARemove(1, path), 0x0D00);
    });
}

TEST_F(NamelessPaths, AreNotRenamed) {
    onEach([&](const char *path) {
        for (const int kind : {0, 1, 2, 7}) {
            EXPECT_FAILS(VEXOEARename(path, name().c_str(), kind, 0), 0x0D00);
            EXPECT_FAILS(VEXOEARename(name().c_str(), path, kind, 0), 0x0D00);
        }
        EXPECT_FAILS(VEXOEARenameByStream(path, name().c_str(), 1, "VexoEAStream"), 0x0D00);
        EXPECT_FAILS(VEXOEARenameByStream(name().c_str(), path, 1, "VexoEAStream"), 0x0D00);
    });
}

TEST_F(NamelessPaths, AreNotUpgradedOrRepaired) {
    onEach([](const char *path) {
        for (const char *stream : {"VexoEAStream", "VexoResource", "VEXO:Other"}) {
            EXPECT_FAILS(VEXOEAUpgrade(path, stream), 0x0D00);
        }
        EXPECT_FAILS(VEXOEAFixErrorAD(path), 0x0D00);
    });
}

TEST_F(NamelessPaths, HaveNothingToReadAndAreNotWritten) {
    onEach([](const char *path) {
        VEXOEAAdouble header;
        EXPECT_EQ(1, VEXOEAEADirAdoubleRead(path, &header));
        for (const int kind : {0, 1}) {
            errno = 0;
            EXPECT_EQ(-1, VEXOEAOpen(1, path, "VexoEAStream", O_RDONLY, kind));
            EXPECT_EQ(ENOENT, errno);
            EXPECT_EQ(0u, VLIBCErrGet());
            for (const int flags : {O_WRONLY, O_RDWR, O_RDWR | O_CREAT, O_RDONLY | O_CREAT, O_RDONLY | O_TRUNC}) {
                EXPECT_FAILS(VEXOEAOpen(1, path, "VexoEAStream", flags, kind), 0x0D00);
                VLIBCErrSetEx(0, "", 0);
            }
        }
        char info[32] = {1};
        EXPECT_FAILS(VEXOEAEADirAdoubleFlush(info, sizeof info, path), 0x0D00);
        EXPECT_FAILS(VEXOEAEADirFSFInfoWrite(path, info), 0x0D00);
        EXPECT_FAILS(VEXOEAFileEAFSFinfoEASync(path, 0), 0x0D00);
    });
}

TEST_F(NamelessPaths, MakeNoDirectories) {
    onEach([](const char *path) {
        char directory[4096];
        ASSERT_EQ(0, VEXOEADirPath(0, path, directory, sizeof directory));
        if (std::string_view(path).ends_with("//")) { // that of nothing is the "@eaDir" itself
            return;
        }
        EXPECT_FAILS(VEXOEAMKDir(1, directory), 0x0D00);
        EXPECT_FAILS(VEXOEAMKDir(0, directory), 0x0D00);
    });
}

TEST_F(NamelessPaths, AppleDoubleFilesOfTheDotsBelongToNothing) {
    for (const char *file : {"a/._.", "a/._..", "a/._", "a/b/._."}) {
        EXPECT_EQ(-4, VEXOEACheckADFile((scratch / file).c_str())) << file;
    }
    EXPECT_EQ(0, VEXOEACheckADFile((scratch / "a/._f").c_str()));
}

TEST_F(NamelessPaths, OneSlashBehindANameIsLeftOut) {
    EXPECT_EQ(0, VEXOEARemove((scratch / "a/b/").c_str(), 1));
    EXPECT_FALSE(kit::exists(scratch / "a/@eaDir/b"));
    EXPECT_EQ(0, VEXOEAMKDir(0, (scratch / "new/").c_str()));
    EXPECT_EQ(0, VEXOEAMKDir(1, (scratch / "a/@eaDir/new/").c_str()));
    EXPECT_TRUE(kit::exists(scratch / "a/@eaDir/new"));
}

} // namespace
