// Opening a store's files: what is taken for one, what is not, and that neither a link on the way nor in the place
// leads anywhere.
#include "ea/files/store_file.h"
#include "tests/ea/planted.h"
#include "tests/kit/behaviour.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using planted::Outside;
using planted::Thing;

class StoreFile : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        ::mkdir(store.c_str(), 0777);
        ::mkdir((store + "/f").c_str(), 0777);
    }
    static int errorOf(const vexo::Fd &file) { return file ? 0 : errno; }
    static int opens(const std::string &path, int flags) { return errorOf(vexo::open_store_file(path.c_str(), flags)); }

    std::string store = scratch / "@eaDir";
    std::string streamPath = store + "/f@VexoEAStream";
    std::string entryPath = store + "/f/thumb.jpg";
};

TEST_F(StoreFile, RegularFileIsOpenedAsAsked) {
    for (const std::string &path : {streamPath, entryPath, scratch / "._f"}) {
        EXPECT_EQ(ENOENT, opens(path, O_RDWR));
        ASSERT_EQ(0, opens(path, O_RDWR | O_CREAT));
        EXPECT_EQ(EEXIST, opens(path, O_RDWR | O_CREAT | O_EXCL));
        kit::writeFile(path, "bytes");
        {
            const vexo::Fd file = vexo::open_store_file(path.c_str(), O_RDWR);
            ASSERT_TRUE(file);
            EXPECT_NE(0, ::fcntl(file.get(), F_GETFD) & FD_CLOEXEC);
        }
        EXPECT_EQ("bytes", kit::readFile(path));
        EXPECT_EQ(0, opens(path, O_RDWR | O_TRUNC));
        EXPECT_EQ("", kit::readFile(path));
        EXPECT_TRUE(vexo::is_store_file(path.c_str()));
        EXPECT_EQ(0, vexo::unlink_store_file(path.c_str()));
        EXPECT_FALSE(kit::exists(path));
    }
}

TEST_F(StoreFile, AnythingElseIsNone) {
    KIT_NEEDS_ROOT("to make devices");
    for (const std::string &path : {streamPath, entryPath, scratch / "._f"}) {
        for (const Thing thing : planted::kThings) {
            for (const int flags : {O_RDONLY, O_WRONLY, O_RDWR, O_RDWR | O_CREAT | O_TRUNC}) {
                Outside outside(scratch / "outside", planted::kSecret);
                planted::plant(thing, path, outside);
                outside.remember();
                const int error = opens(path, flags);
                const bool isDirectory = thing == Thing::directory && flags != O_RDONLY;
                const bool isLink = thing == Thing::link || thing == Thing::dangling_link;
                EXPECT_EQ(isLink                      ? ELOOP
                          : thing == Thing::hard_link ? EMLINK
                          : isDirectory               ? EISDIR
                                                      : EINVAL,
                          error)
                    << planted::name(thing) << " " << path << " " << flags;
                struct stat status {};
                EXPECT_EQ(-1, vexo::check_store_file(path.c_str(), flags, status));
                EXPECT_EQ(isLink ? ELOOP : thing == Thing::hard_link ? EMLINK : EINVAL, errno);
                EXPECT_EQ(thing == Thing::hard_link, vexo::is_store_file(path.c_str()));
                EXPECT_EQ(-1, vexo::set_store_mode(path.c_str()));
                outside.expectUnchanged();
            }
        }
    }
}

TEST_F(StoreFile, NoLinkIsFollowedOnTheWay) {
    Outside outside(scratch / "outside", planted::kSecret, "thumb.jpg");
    planted::plantDirectoryLink(store + "/f", outside);
    outside.remember();
    for (const bool whole : {false, true}) {
        EXPECT_EQ(ENOTDIR, opens(entryPath, O_RDONLY));
        EXPECT_EQ(ENOTDIR, opens(store + "/f/new", O_RDWR | O_CREAT));
        EXPECT_EQ(-1, vexo::unlink_store_file(entryPath.c_str()));
        EXPECT_EQ(-1, vexo::set_store_mode(entryPath.c_str()));
        EXPECT_FALSE(vexo::is_store_file(entryPath.c_str()));
        EXPECT_EQ(ENOTDIR, errorOf(vexo::open_store_directory(entryPath.c_str())));
        EXPECT_EQ(ENOTDIR, errorOf(vexo::open_store_directory((whole ? store : store + "/f").c_str())));
        outside.expectUnchanged();
        planted::plantDirectoryLink(store, outside);
    }
    // What a caller's own path leads through is the caller's.
    ::unlink(store.c_str());
    ::mkdir((scratch / "real").c_str(), 0755);
    ASSERT_EQ(0, ::symlink("real", (scratch / "link").c_str()));
    ::mkdir((scratch / "real/@eaDir").c_str(), 0777);
    EXPECT_EQ(0, opens(scratch / "link/@eaDir/f@VexoEAStream", O_RDWR | O_CREAT));
}

TEST_F(StoreFile, ManyNamesAreFineWhereEverybodyMayDoTheSame) {
    kit::writeFile(streamPath, "bytes");
    ASSERT_EQ(0, ::link(streamPath.c_str(), (scratch / "other").c_str()));
    struct Row {
        mode_t mode;
        bool reads, writes;
    };
    for (const Row &row : {Row{0600, false, false}, Row{0644, true, false}, Row{0622, false, true},
                           Row{0666, true, true}, Row{0777, true, true}}) {
        ::chmod(streamPath.c_str(), row.mode);
        EXPECT_EQ(row.reads ? 0 : EMLINK, opens(streamPath, O_RDONLY)) << row.mode;
        EXPECT_EQ(row.writes ? 0 : EMLINK, opens(streamPath, O_WRONLY)) << row.mode;
        EXPECT_EQ(row.reads && row.writes ? 0 : EMLINK, opens(streamPath, O_RDWR | O_TRUNC)) << row.mode;
        if (!row.writes) {
            EXPECT_EQ("bytes", kit::readFile(streamPath));
        }
        kit::writeFile(streamPath, "bytes");
    }
}

TEST_F(StoreFile, PathsThatDoNotFitAreRefused) {
    EXPECT_NE(0, opens("/" + std::string(5000, 'd') + "/@eaDir/x", O_RDONLY));
    EXPECT_NE(0, opens(store + "/" + std::string(300, 'd') + "/x", O_RDONLY));
}

TEST_F(StoreFile, ModeIsThatOfEverybody) {
    kit::writeFile(streamPath, "bytes", 0600);
    EXPECT_EQ(0, vexo::set_store_mode(streamPath.c_str()));
    EXPECT_EQ(0777u, kit::statOf(streamPath).st_mode & 07777);
    EXPECT_EQ(-1, vexo::set_store_mode((store + "/none").c_str()));
    EXPECT_EQ(ENOENT, errno);
}

} // namespace
