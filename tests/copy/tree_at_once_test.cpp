// What a tree copy says to the platform in one step for a new file comes to what the steps one by one come to, and is
// left to them where anything else belongs to the file.
#include "tests/copy/tree_support.h"

#include <map>
#include <sys/xattr.h>

using namespace tree;

namespace {

using namespace std::string_literals;

constexpr char kRecord[] = "user.DOSATTRIB";
constexpr int kCommands[] = {514, 515, 522}; // archive, hidden, locked

// A record of 24 bytes: what of it is valid, the attributes, and a creation time or none.
std::string record(char valid, const std::string &attributes, const std::string &time) {
    return "\0\0\5\0\5\0\0\0"s + valid + "\0\0\0"s + attributes + time;
}
const std::string kNoTime(8, '\0');
const std::string kSomeTime = "\x00\x80\x35\x0c\xd1\xdf\xd6\x01"s;

// An ACL as the kernel takes it: owner, one more user, group, mask, others.
std::string aclOf(int owner, int user, int userRights, int group, int mask, int others) {
    std::string bytes = "\2\0\0\0"s;
    const auto add = [&](int tag, int rights, int id) {
        for (const int byte : {tag, 0, rights, 0, id & 0xFF, id >> 8 & 0xFF, id >> 16 & 0xFF, id >> 24 & 0xFF}) {
            bytes.push_back(static_cast<char>(byte));
        }
    };
    add(0x01, owner, -1);
    add(0x02, userRights, user);
    add(0x04, group, -1);
    add(0x10, mask, -1);
    add(0x20, others, -1);
    return bytes;
}

class TreeAtOnce : public Scene, public ::testing::WithParamInterface<std::tuple<Family, const char *>> {
  protected:
    void SetUp() override {
        Scene::SetUp();
        request.keepOwner = true;
        request.copyAcl = true;
    }
    // Puts source and destination onto the volume that is tested, with the types that it has.
    void onVolume(const std::string &directory, int type) {
        request.src = directory + "/tree";
        request.dst = directory + "/copy";
        makeDirectory(request.src);
        kit::PlatformDouble::setType(directory, type);
        processAsNow();
    }
    void putFiles() const {
        for (int bits = 0; bits < 8; ++bits) {
            const std::string name = "flags" + std::to_string(bits);
            putFile(name);
            for (int bit = 0; bit < 3; ++bit) {
                if ((bits >> bit & 1) != 0) {
                    ASSERT_EQ(0, VLIBCKernelAttrCall(src(name).c_str(), kCommands[bit]));
                }
            }
        }
        putFile("empty", "");
        putFile("system");
        kit::setAttribute(src("system"), kRecord, record(1, "\4\0\0\0"s, kNoTime));
        putFile("bits of others"); // offline, not to be indexed
        kit::setAttribute(src("bits of others"), kRecord, record(0x11, "\2\x30\0\0"s, kSomeTime));
        putFile("time alone");
        kit::setAttribute(src("time alone"), kRecord, record(0x10, "\0\0\0\0"s, kSomeTime));
        putFile("attributes alone");
        kit::setAttribute(src("attributes alone"), kRecord, record(1, "\1\0\0\0"s, kNoTime));
        putFile("text");
        kit::setAttribute(src("text"), kRecord, "0x22");
        putFile("no record");
        kit::setAttribute(src("no record"), kRecord, "nothing of the kind");
        putFile("commented");
        kit::setAttribute(src("commented"), "user.comment", "mine");
        kit::setAttribute(src("commented"), "user.other", std::string(1500, 'x'));
        putFile("many");
        for (int number = 0; number < 32; ++number) { // more names than one look takes
            kit::setAttribute(src("many"), "user.a rather long name to fill the list " + std::to_string(number), "v");
        }
        putFile("acl");
        kit::setAttribute(src("acl"), "system.posix_acl_access", aclOf(6, 1234, 4, 4, 4, 0));
        putFile("archived acl");
        kit::setAttribute(src("archived acl"), "security.NTACL", "a windows acl");
        putFile("metadata");
        kit::setAttribute(src("metadata"), "user.netatalk.Metadata", "no header, but carried");
        for (const mode_t mode : {0400U, 0640U, 0777U, 06711U}) {
            const std::string name = "mode" + std::to_string(mode);
            putFile(name);
            ASSERT_EQ(0, ::chown(src(name).c_str(), 1234, 1235));
            ASSERT_EQ(0, ::chmod(src(name).c_str(), mode));
        }
        putDirectories();
        setTimes();
    }
    void putDirectories() const {
        for (const char *name :
             {"plain directory", "hidden directory", "bits of others in a directory", "commented directory",
              "directory acl", "directory default", "directory archived acl"}) {
            putDirectory(name);
        }
        putDirectory("group directory", 02750);
        putFile("plain directory/file");
        ASSERT_EQ(0, VLIBCKernelAttrCall(src("hidden directory").c_str(), 515));
        kit::setAttribute(src("bits of others in a directory"), kRecord, record(0x11, "\x12\x30\0\0"s, kSomeTime));
        kit::setAttribute(src("commented directory"), "user.comment", "mine");
        kit::setAttribute(src("directory acl"), "system.posix_acl_access", aclOf(7, 1234, 5, 5, 5, 0));
        kit::setAttribute(src("directory default"), "system.posix_acl_default", aclOf(7, 1234, 5, 5, 5, 0));
        kit::setAttribute(src("directory archived acl"), "security.NTACL", "a windows acl");
        ASSERT_EQ(0, ::chown(src("group directory").c_str(), 1234, 1235));
        ASSERT_EQ(0, ::chmod(src("group directory").c_str(), 02750));
    }
    void setTimes() const {
        const timespec times[] = {{1'000'000'001, 123'456'789}, {1'000'000'002, 987'654'321}};
        for (const std::string &name : kit::namesIn(request.src)) {
            ASSERT_EQ(0, ::utimensat(AT_FDCWD, src(name).c_str(), times, 0));
        }
    }
    int copy() { return copyThrough(std::get<0>(GetParam())); }
    // The same copy again, with each step made by a function of its own.
    int copyStepByStep(const std::string &copyTo) {
        kit::Faults::add({.function = "VLIBCFileUTime", .path = "/nowhere"});
        kit::Faults::add({.function = "VEXOACLCopy", .path = "/nowhere"});
        const std::string before = std::exchange(request.dst, copyTo);
        const int result = copy();
        request.dst = before;
        kit::Faults::reset();
        return result;
    }

    // All that a file has beside its name.
    static std::map<std::string, std::string> looksOf(const std::string &path) {
        std::map<std::string, std::string> looks;
        char names[8192];
        const ssize_t size = ::llistxattr(path.c_str(), names, sizeof names);
        for (ssize_t at = 0; at < size; at += static_cast<ssize_t>(std::strlen(names + at)) + 1) {
            looks[names + at] = kit::attribute(path, names + at);
        }
        VLIBCStat status{};
        EXPECT_EQ(0, VLIBCFileStat(path.c_str(), 0xFF, &status)) << path;
        const auto time = [](const timespec &stamp) {
            return std::to_string(stamp.tv_sec) + "." + std::to_string(stamp.tv_nsec);
        };
        looks["mode"] = std::to_string(status.st.st_mode);
        looks["owner"] = std::to_string(status.st.st_uid) + ":" + std::to_string(status.st.st_gid);
        looks["accessed"] = time(status.st.st_atim);
        looks["modified"] = time(status.st.st_mtim);
        looks["created"] = time({status.createTime.tv_sec, status.createTime.tv_nsec / 100 * 100}); // its unit
        looks["attributes"] = std::to_string(status.attributes);
        looks["content"] = S_ISDIR(status.st.st_mode) ? "" : kit::readFile(path);
        return looks;
    }
    void expectSame(const std::string &one, const std::string &other) {
        const std::vector<std::string> names = kit::namesIn(request.src);
        ASSERT_EQ(names, kit::namesIn(one));
        ASSERT_EQ(names, kit::namesIn(other));
        for (const std::string &name : names) {
            EXPECT_EQ(looksOf(other + "/" + name), looksOf(one + "/" + name)) << name;
        }
    }
    void compareBothWays() {
        const std::string stepByStep = request.dst + "-step-by-step";
        ASSERT_EQ(0, copyStepByStep(stepByStep)) << kit::Log::all();
        setTimes(); // reading the files has changed them
        kit::Faults::record(true);
        ASSERT_EQ(0, copy()) << kit::Log::all();
        const std::vector<std::string> calls = kit::Faults::recorded();
        kit::Faults::reset();
        expectSame(request.dst, stepByStep);
        const auto asks = [&](const std::string &call) {
            return std::find(calls.begin(), calls.end(), call) != calls.end();
        };
        EXPECT_FALSE(asks("VLIBCFileUTime(" + dst("empty") + ")"));
        EXPECT_FALSE(asks("VLIBCFileUTime(" + dst("plain directory") + ")"));
        EXPECT_TRUE(asks("VLIBCFileUTime(" + dst("commented directory") + ")"));
        EXPECT_TRUE(asks("VLIBCFileUTime(" + dst("metadata") + ")")); // a store may belong to it
    }
};
INSTANTIATE_TEST_SUITE_P(, TreeAtOnce,
                         ::testing::Combine(kFamilies, ::testing::Values("tmpfs", "ext4", "xfs", "btrfs")),
                         [](const auto &one) { return nameOf(std::get<0>(one.param)) + "_" + std::get<1>(one.param); });

int typeOf(const std::string &volume) {
    return volume == "tmpfs" ? 1 : volume == "btrfs" ? 3 : 2;
}
kit::Volume volumeOf(const std::string &type) {
    if (type == "tmpfs") {
        return kit::Volume::tmpfs(64 << 20);
    }
    // In small blocks ext4 has no room for many attributes.
    return kit::Volume::loop(type, type == "xfs" ? 320 << 20 : 128 << 20, type == "ext4" ? "-b 4096" : "");
}

TEST_P(TreeAtOnce, GivesWhatTheSingleStepsGive) {
    TREE_NEEDS_ROOT();
    const std::string type = std::get<1>(GetParam());
    KIT_REQUIRE(volume, volumeOf(type));
    onVolume(volume.path(), typeOf(type));
    putFiles();
    compareBothWays();
    // What a look by hand expects of it.
    EXPECT_EQ(looksOf(src("time alone"))["created"], looksOf(dst("time alone"))["created"]);
    EXPECT_EQ(looksOf(src("attributes alone"))["created"], looksOf(dst("attributes alone"))["created"]);
    EXPECT_EQ(std::to_string(VLIBC_ATTR_ARCHIVE | VLIBC_ATTR_LOCKED), looksOf(dst("attributes alone"))["attributes"]);
    EXPECT_EQ("\x22\x30"s, kit::attribute(dst("bits of others"), kRecord).substr(12, 2));
    EXPECT_EQ("a windows acl", kit::attribute(dst("archived acl"), "security.NTACL"));
    EXPECT_EQ(kit::attribute(src("acl"), "system.posix_acl_access"),
              kit::attribute(dst("acl"), "system.posix_acl_access"));
}

// The directory of the copy hands its own ACL on to every new file.
TEST_P(TreeAtOnce, TakesAwayWhatTheDirectoryHandsOn) {
    TREE_NEEDS_ROOT();
    const std::string type = std::get<1>(GetParam());
    KIT_REQUIRE(volume, volumeOf(type));
    onVolume(volume.path(), typeOf(type));
    putFiles();
    for (const std::string &copyTo : {request.dst, request.dst + "-step-by-step"}) {
        makeDirectory(copyTo);
        kit::setAttribute(copyTo, "system.posix_acl_default", aclOf(7, 4321, 7, 5, 7, 0));
    }
    compareBothWays();
    EXPECT_EQ("", kit::attribute(dst("empty"), "system.posix_acl_access"));
    EXPECT_EQ(0644u, kit::statOf(dst("empty")).st_mode & 07777);
}

// Somebody gives the new file a record between its making and the step.
TEST_P(TreeAtOnce, RecordThatSomebodyWroteMeanwhileIsAddedTo) {
    TREE_NEEDS_ROOT();
    const std::string type = std::get<1>(GetParam());
    KIT_REQUIRE(volume, volumeOf(type));
    onVolume(volume.path(), typeOf(type));
    putFile("file");
    setTimes();
    kit::Faults::add({.function = "fchown", .path = dst("file"), .before = [this] {
                          kit::setAttribute(dst("file"), kRecord, record(1, "\2\x10\0\0"s, kNoTime));
                      }});
    ASSERT_EQ(0, copy());
    kit::Faults::reset();
    EXPECT_EQ(std::to_string(VLIBC_ATTR_ARCHIVE | VLIBC_ATTR_HIDDEN), looksOf(dst("file"))["attributes"]);
    EXPECT_EQ("\x22\x10"s, kit::attribute(dst("file"), kRecord).substr(12, 2));
    EXPECT_EQ(looksOf(src("file"))["created"], looksOf(dst("file"))["created"]);
    EXPECT_EQ(looksOf(src("file"))["modified"], looksOf(dst("file"))["modified"]);
}

} // namespace
