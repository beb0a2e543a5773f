// What a comparison of two entries finds: each class where it was planted, on real volumes and between all kinds of
// store, and nothing between equals.
#include "tools/engine/compare/entry_comparison.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tests/kit/sanitized.h"
#include "tools/engine/store/store.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/paths.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <set>
#include <sys/acl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <tuple>

namespace {

using engine::CompareOptions;
using engine::Loss;
using engine::LossClass;
using engine::Side;
using Names = std::vector<std::string>;

// Sets modification and creation time.
void set_times(const std::string &path, time_t seconds = 1'600'000'000, long nanoseconds = 123'456'700) {
    const timespec both[] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), both, AT_SYMLINK_NOFOLLOW));
}
void set_creation(const std::string &path, time_t seconds) {
    struct stat found {};
    ASSERT_EQ(0, ::stat(path.c_str(), &found));
    const timespec all[] = {found.st_atim, found.st_mtim, {seconds, 0}};
    ASSERT_EQ(0, VLIBCFileUTime(path.c_str(), 3, all)) << std::strerror(errno);
}

Names names_of(const std::vector<Loss> &losses) {
    Names names;
    for (const Loss &loss : losses) {
        names.emplace_back(engine::loss_row(loss.cls).name);
    }
    return names;
}
std::string text_of(const std::vector<Loss> &losses) {
    std::string text;
    for (const Loss &loss : losses) {
        text += std::string(engine::loss_row(loss.cls).name) + ": " + loss.detail + "\n";
    }
    return text;
}

std::vector<Loss> compared(const std::string &one, const std::string &other, const CompareOptions &options = {},
                           int firstType = -1, int secondType = -1) {
    const engine::Descriptor first(::open(engine::parent_of(one).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const engine::Descriptor second(::open(engine::parent_of(other).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const Side a{first.get(), engine::base_name(one), engine::volume_facts(first.get(), firstType)};
    const Side b{second.get(), engine::base_name(other), engine::volume_facts(second.get(), secondType)};
    return engine::compare_entries(a, b, options);
}

void set_acl(const std::string &path, acl_type_t type, const char *text) {
    acl_t acl = ::acl_from_text(text);
    ASSERT_NE(nullptr, acl);
    EXPECT_EQ(0, ::acl_set_file(path.c_str(), type, acl)) << std::strerror(errno);
    ::acl_free(acl);
}
constexpr char kAcl[] = "u::rw-,u:1234:rw-,g::r--,m::rw-,o::---";

// The "._" file of `path`, on a volume that keeps stores so: attributes, Finder Info, a resource fork behind them.
void make_double(const std::string &path, const std::string &note, char finderInfo, const std::string &fork) {
    const engine::Store store(path);
    store.set("user.note", note, engine::Store::Existing::either);
    store.set("user.long", std::string(1'500, 'l'), engine::Store::Existing::either);
    const std::string companion = store.stream_path("VexoResource");
    std::string bytes = kit::readFile(companion);
    constexpr size_t kFinderInfo = 50, kForkLength = 46;
    bytes.replace(kFinderInfo, 32, std::string(32, finderInfo));
    bytes[kForkLength + 2] = static_cast<char>(fork.size() >> 8);
    bytes[kForkLength + 3] = static_cast<char>(fork.size());
    kit::writeFile(companion, bytes + fork);
}

// ---- Between all kinds of store ----

constexpr int kFat = 0, kEaDirectory = 1, kFileEa = 2, kNtfs = 5, kNative = 7;

class StorePair : public kit::Behaviour, public ::testing::WithParamInterface<std::tuple<int, int>> {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_TO_MAKE_STORES();
        prepare("stick", kNtfs);
        prepare("one", firstType());
        prepare("other", secondType());
        kit::writeFile(scratch / "stick/f", "data");
        make_double(scratch / "stick/f", "a note", 'F', fork());
        give(one());
        give(other());
    }
    static int firstType() { return std::get<0>(GetParam()); }
    static int secondType() { return std::get<1>(GetParam()); }
    // The double of a fork is a directory, which no copy makes.
    static std::string fork() { return firstType() == kNative || secondType() == kNative ? "" : "a resource fork"; }
    std::string one() const { return scratch / "one/f"; }
    std::string other() const { return scratch / "other/f"; }
    std::vector<Loss> losses(const CompareOptions &options = {.data = true}) const {
        return compared(one(), other(), options, firstType(), secondType());
    }
    // Another store for the second.
    void replace(const std::string &note, char finderInfo, const std::string &theFork) const {
        ASSERT_EQ(0, VEXOEARemove(other().c_str(), secondType()));
        ASSERT_EQ(0, ::unlink((scratch / "stick/._f").c_str()));
        make_double(scratch / "stick/f", note, finderInfo, theFork);
        carry(other());
        ASSERT_EQ(0, ::chmod(other().c_str(), 0644)); // a lock is a mode on some
    }
    void carry(const std::string &to) const {
        ASSERT_EQ(0, VEXOEACopy((scratch / "stick/f").c_str(), to.c_str(), 0, 0, kNtfs,
                                to == one() ? firstType() : secondType(), 0, 0));
    }

  private:
    void prepare(const std::string &name, int type) const {
        ASSERT_EQ(0, ::mkdir((scratch / name).c_str(), 0755));
        kit::PlatformDouble::setType(scratch / name, type);
        if (type == kNative) {
            kit::NativeDouble::setVolume(scratch / name);
        }
    }
    void give(const std::string &path) const {
        kit::writeFile(path, "data", 0644);
        carry(path);
        ASSERT_EQ(0, ::chmod(path.c_str(), 0644));
        set_times(path);
        set_creation(path, 1'500'000'000);
    }
};

TEST_P(StorePair, NothingDiffersBetweenEquals) {
    EXPECT_EQ(Names{}, names_of(losses())) << text_of(losses());
    EXPECT_EQ("a note", engine::Store(other()).get("user.note")); // there is something to compare
}

TEST_P(StorePair, ValueOfAnAttributeIsFound) {
    engine::Store(other()).remove("user.note");
    engine::Store(other()).set("user.note", "A note", engine::Store::Existing::must_not);
    EXPECT_EQ(Names{"attribute"}, names_of(losses({}))) << text_of(losses({}));
    EXPECT_EQ("attribute user.note differs: 6 and 6 bytes", losses({}).at(0).detail);
}

TEST_P(StorePair, MissingAttributeIsFoundAndOneTooManyToo) {
    engine::Store(other()).remove("user.note");
    EXPECT_EQ("attribute: attribute user.note: only at the first, 6 bytes\n", text_of(losses()));
    engine::Store(one()).remove("user.note");
    EXPECT_EQ("", text_of(losses()));
    engine::Store(other()).set("user.more", "", engine::Store::Existing::must_not);
    EXPECT_EQ("attribute: attribute user.more: only at the second\n", text_of(losses()));
}

TEST_P(StorePair, FinderInfoIsFound) {
    replace("a note", 'G', fork());
    EXPECT_EQ("finder-info: Finder Info differs\n", text_of(losses()));
}

TEST_P(StorePair, ForkIsFound) {
    if (fork().empty()) {
        GTEST_SKIP() << "the double of a resource fork is a directory";
    }
    replace("a note", 'F', "a Resource fork");
    EXPECT_EQ("resource-fork: resource fork differs: 15 and 15 bytes\n", text_of(losses()));
    replace("a note", 'F', "shorter");
    EXPECT_EQ("resource-fork: resource fork differs: 15 and 7 bytes\n", text_of(losses()));
}

TEST_P(StorePair, LockIsFoundWhateverItIsKeptIn) {
    const auto lock = [](const std::string &path, int type) {
        constexpr int command = 522;
        const bool byMode = type == kFat || type == kNtfs || type == kNative;
        return byMode ? ::chmod(path.c_str(), 0444) : VLIBCKernelAttrCall(path.c_str(), command);
    };
    ASSERT_EQ(0, lock(one(), firstType()));
    const Names found = names_of(losses());
    EXPECT_EQ(1, std::ranges::count(found, "locked")) << text_of(losses());
    ASSERT_EQ(0, lock(other(), secondType()));
    const Names both = names_of(losses());
    EXPECT_EQ(0, std::ranges::count(both, "locked")) << text_of(losses());
}

TEST_P(StorePair, MalformedStoreIsUnreadable) {
    if (secondType() == kNative) {
        GTEST_SKIP() << "attributes of the file have no form";
    }
    const std::string place = engine::Store(other()).stream_path("VexoEAStream");
    const std::string whole = kit::readFile(place);
    for (const size_t length : {size_t{1}, size_t{25}, size_t{60}, size_t{119}, size_t{130}}) {
        kit::writeFile(place, whole.substr(0, length));
        const Names found = names_of(losses());
        EXPECT_TRUE(std::ranges::count(found, "unreadable") > 0) << length << "\n" << text_of(losses());
    }
    for (size_t at = 24; at < 160; ++at) { // no crash, whatever is in it
        std::string bytes = whole;
        bytes[at] = '\xff';
        kit::writeFile(place, bytes);
        (void)losses();
    }
}

TEST_P(StorePair, LinkInPlaceOfAStoreIsNotFollowed) {
    if (secondType() == kNative) {
        GTEST_SKIP() << "there is no file";
    }
    const std::string place = engine::Store(other()).stream_path("VexoEAStream");
    ASSERT_EQ(0, ::rename(place.c_str(), (scratch / "elsewhere").c_str()));
    ASSERT_EQ(0, ::symlink((scratch / "elsewhere").c_str(), place.c_str()));
    const Names found = names_of(losses());
    EXPECT_TRUE(std::ranges::count(found, "unreadable") > 0) << text_of(losses());
}

INSTANTIATE_TEST_SUITE_P(All, StorePair,
                         ::testing::Combine(::testing::Values(kFat, kEaDirectory, kFileEa, kNtfs, kNative),
                                            ::testing::Values(kFat, kEaDirectory, kFileEa, kNtfs, kNative)),
                         [](const auto &chosen) {
                             return std::to_string(std::get<0>(chosen.param)) + "To" +
                                    std::to_string(std::get<1>(chosen.param));
                         });

// ---- Each class on real volumes ----

struct Plant {
    const char *cls;
    std::function<void(const std::string &one, const std::string &other)> make;
    enum What { file, directory } what = file;
    CompareOptions options = {};
};

void put(const std::string &path, const char *name, std::string_view value) {
    ASSERT_EQ(0, ::lsetxattr(path.c_str(), name, value.data(), value.size(), 0)) << name << std::strerror(errno);
}

const std::vector<Plant> &plants() {
    using Path = const std::string &;
    static const std::vector<Plant> all = {
        {"data", [](Path, Path b) { kit::writeFile(b, "longer than it was"), set_times(b); }},
        {"data", [](Path, Path b) { kit::writeFile(b, "Data"), set_times(b); }, Plant::file, {.data = true}},
        {"owner", [](Path, Path b) { ASSERT_EQ(0, ::chown(b.c_str(), 1234, static_cast<gid_t>(-1))); }},
        {"group", [](Path, Path b) { ASSERT_EQ(0, ::chown(b.c_str(), static_cast<uid_t>(-1), 1234)); }},
        {"mode", [](Path, Path b) { ASSERT_EQ(0, ::chmod(b.c_str(), 0600)); }},
        {"mode", [](Path a, Path) { ASSERT_EQ(0, ::chmod(a.c_str(), 06644)); }},
        {"mode", [](Path a, Path) { ASSERT_EQ(0, ::chmod(a.c_str(), 03755)); }, Plant::directory},
        {"acl-default", [](Path a, Path) { set_acl(a, ACL_TYPE_DEFAULT, kAcl); }, Plant::directory},
        {"acl-windows", [](Path a, Path) { put(a, "security.NTACL", "windows"); }},
        {"dos-attributes", [](Path a, Path) { ASSERT_EQ(0, VLIBCKernelAttrCall(a.c_str(), 515)); }},
        {"creation-time", [](Path a, Path) { set_creation(a, 1'400'000'000); }},
        {"modification-time", [](Path, Path b) { set_times(b, 1'600'000'000, 123'456'800); }},
        {"modification-time", [](Path, Path b) { set_times(b, 1'600'000'001); }, Plant::directory},
        {"attribute", [](Path a, Path) { put(a, "user.comment", "text"); }},
        {"attribute", [](Path a, Path b) { put(a, "user.comment", "text"), put(b, "user.comment", "Text"); }},
        {"attribute", [](Path, Path b) { put(b, "user.comment", "text"); }, Plant::directory},
        {"system-attribute", [](Path a, Path) { put(a, "trusted.mine", "text"); }},
        {"system-attribute", [](Path a, Path) { put(a, "trusted.mine", "text"); }, Plant::directory},
        {"stream", [](Path a, Path) { engine::Store(a).set("named", "v", engine::Store::Existing::either); }},
        {"stream", [](Path a, Path) { engine::Store(a).set("named", "v", engine::Store::Existing::either); },
         Plant::directory},
        {"stream",
         [](Path a, Path b) {
             engine::Store(a).set("large", std::string(100'000, 'a'), engine::Store::Existing::either);
             engine::Store(b).set("large", std::string(100'000, 'b'), engine::Store::Existing::either);
         },
         Plant::file,
         {.data = true}},
        {"finder-info",
         [](Path a, Path) { ASSERT_EQ(0, VEXOEAEADirFSFInfoWrite(a.c_str(), std::string(32, 'F').data())); }},
        {"locked", [](Path, Path b) { ASSERT_EQ(0, VLIBCKernelAttrCall(b.c_str(), 522)); }},
        {"hard-link",
         [](Path a, Path) { ASSERT_EQ(0, ::link(a.c_str(), (a + "2").c_str())); },
         Plant::file,
         {.costs = true}},
        {"hole",
         [](Path a, Path b) {
             kit::writeSparse(a, 1 << 20, {{0, 65536}});
             kit::writeFile(b, kit::readFile(a));
             set_times(a), set_times(b);
         },
         Plant::file,
         {.data = true, .costs = true}},
        {"unreadable",
         [](Path a, Path) {
             engine::Store(a).set("named", "v", engine::Store::Existing::either);
             ASSERT_EQ(0, ::truncate(engine::Store(a).stream_path("VexoEAStream").c_str(), 50));
         }},
        {"not-carried",
         [](Path a, Path) {
             ASSERT_EQ(0, VEXOEAMKDir(1, (engine::parent_of(a) + "/@eaDir/" + engine::base_name(a)).c_str()));
             kit::writeFile(engine::parent_of(a) + "/@eaDir/" + engine::base_name(a) + "/thumb.jpg", "picture");
         }},
    };
    return all;
}

class RealVolume : public kit::Behaviour, public ::testing::WithParamInterface<std::tuple<std::string, std::string>> {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_TO_MAKE_STORES();
        try {
            mount(m_first, std::get<0>(GetParam()));
            mount(m_second, std::get<1>(GetParam()));
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
        processAsNow();
    }
    // Two equal entries of that name.
    std::pair<std::string, std::string> twins(const std::string &name, Plant::What what) const {
        const std::pair both{*m_first / name, *m_second / name};
        for (const std::string &path : {both.first, both.second}) {
            if (what == Plant::directory) {
                EXPECT_EQ(0, ::mkdir(path.c_str(), 0755));
            } else {
                kit::writeFile(path, "data");
            }
            set_times(path);
            set_creation(path, 1'500'000'000);
        }
        return both;
    }

  private:
    static void mount(std::optional<kit::Volume> &volume, const std::string &type) {
        constexpr uint64_t size = uint64_t{320} << 20; // XFS takes no less
        if (type == "tmpfs") {
            volume.emplace(kit::Volume::tmpfs(uint64_t{16} << 20));
        } else {
            volume.emplace(kit::Volume::loop(type, size));
        }
    }
    std::optional<kit::Volume> m_first, m_second;
};

TEST_P(RealVolume, EachClassIsFoundWhereItIsAndOnlyThat) {
    int number = 0;
    for (const Plant &plant : plants()) {
        const auto [one, other] = twins("entry" + std::to_string(number++), plant.what);
        const auto before = compared(one, other, {.data = true, .costs = true});
        EXPECT_EQ("", text_of(before)) << plant.cls;
        plant.make(one, other);
        if (plant.what == Plant::directory && std::string(plant.cls) != "modification-time") {
            set_times(one), set_times(other);
        }
        (void)EASetSmbArchive(other.c_str()); // as a copy does; planting has done it at the first
        const auto found = compared(one, other, plant.options);
        EXPECT_EQ(Names{plant.cls}, names_of(found)) << number << "\n" << text_of(found);
    }
}

TEST_P(RealVolume, LinksAndDevicesAreCompared) {
    const auto [one, other] = twins("base", Plant::file);
    const std::string links[] = {one + "l", other + "l"}, devices[] = {one + "d", other + "d"};
    ASSERT_EQ(0, ::symlink("here", links[0].c_str()));
    ASSERT_EQ(0, ::symlink("here", links[1].c_str()));
    ASSERT_EQ(0, ::mknod(devices[0].c_str(), S_IFCHR | 0600, makedev(1, 3)));
    ASSERT_EQ(0, ::mknod(devices[1].c_str(), S_IFCHR | 0600, makedev(1, 3)));
    for (const std::string &path : {links[0], links[1], devices[0], devices[1]}) {
        set_times(path);
    }
    EXPECT_EQ("", text_of(compared(links[0], links[1])));
    EXPECT_EQ("", text_of(compared(devices[0], devices[1])));
    ::unlink(links[1].c_str());
    EXPECT_EQ("symbolic-link: is not at the second\n", text_of(compared(links[0], links[1])));
    ASSERT_EQ(0, ::symlink("there", links[1].c_str()));
    set_times(links[1]);
    EXPECT_EQ("symbolic-link: leads to here and to there\n", text_of(compared(links[0], links[1])));
    ::unlink(devices[1].c_str());
    EXPECT_EQ("special-file: is not at the second\n", text_of(compared(devices[0], devices[1])));
    ASSERT_EQ(0, ::mknod(devices[1].c_str(), S_IFCHR | 0600, makedev(1, 5)));
    set_times(devices[1]);
    EXPECT_EQ("special-file: device differs: 1:3 and 1:5\n", text_of(compared(devices[0], devices[1])));
    EXPECT_EQ("data: type differs: a regular file and a symbolic link\n", text_of(compared(one, links[1])));
    EXPECT_EQ("data: is not at the second\n", text_of(compared(one, other + "gone")));
    EXPECT_EQ(Names{"unreadable"}, names_of(compared(one + "gone", other)));
}

TEST_P(RealVolume, AccessAclIsComparedAsWhatItGrants) {
    const auto [one, other] = twins("f", Plant::file);
    set_acl(one, ACL_TYPE_ACCESS, kAcl);
    // What a copy that knows no ACLs makes of it: the mask becomes the group's rights.
    ASSERT_EQ(0, ::chmod(other.c_str(), 0660));
    EXPECT_EQ("acl-access: access ACL differs: user::rw-,user:1234:rw-,group::r--,mask::rw-,other::--- and "
              "user::rw-,group::rw-,other::---\n"
              "mode: permissions differ: 0640 and 0660, where the mask of the ACL became the group's rights\n",
              text_of(compared(one, other)));
    ASSERT_EQ(0, ::chmod(other.c_str(), 0640));
    EXPECT_EQ(Names{"acl-access"}, names_of(compared(one, other)));
    set_acl(other, ACL_TYPE_ACCESS, "o::---,g::r--,m::rw-,u:1234:rw-,u::rw-");
    EXPECT_EQ("", text_of(compared(one, other)));
}

INSTANTIATE_TEST_SUITE_P(All, RealVolume,
                         ::testing::Combine(::testing::Values("tmpfs", "ext4", "xfs"),
                                            ::testing::Values("tmpfs", "ext4", "xfs")),
                         [](const auto &chosen) {
                             return std::get<0>(chosen.param) + "To" + std::get<1>(chosen.param);
                         });

// ---- Of a volume that cannot hold it ----

class Compare : public kit::Behaviour {};

TEST_F(Compare, TimesAreComparedAtTheGrainOfTheCoarserVolume) {
    kit::writeFile(scratch / "f", "data");
    kit::writeFile(scratch / "g", "data");
    set_times(scratch / "f", 1'600'000'001, 900'000'000);
    set_times(scratch / "g", 1'600'000'000, 0);
    const engine::Descriptor directory(::open(scratch.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const Side a{directory.get(), "f", engine::volume_facts(directory.get())};
    Side b{directory.get(), "g", a.volume};
    const auto has = [&](const char *name) {
        return std::ranges::count(names_of(engine::compare_entries(a, b)), name);
    };
    EXPECT_EQ(1, has("modification-time"));
    b.volume.timeGrain = 2'000'000'000;
    EXPECT_EQ(0, has("modification-time"));
    set_times(scratch / "g", 1'599'999'999, 0);
    EXPECT_EQ(1, has("modification-time"));
    EXPECT_EQ(0, std::ranges::count(names_of(engine::compare_entries(a, b, {.times = false})), "modification-time"));
}

TEST_F(Compare, VolumeWithoutOwnersLosesNone) {
    KIT_NEEDS_ROOT("to give a file away");
    kit::writeFile(scratch / "f", "data");
    kit::writeFile(scratch / "g", "data", 0600);
    ASSERT_EQ(0, ::chown((scratch / "g").c_str(), 1234, 1234));
    const CompareOptions options{.times = false};
    EXPECT_EQ((Names{"owner", "group", "mode"}), names_of(compared(scratch / "f", scratch / "g", options, 2, 2)));
    EXPECT_EQ(Names{}, names_of(compared(scratch / "f", scratch / "g", options, 0, 2)));
}

TEST_F(Compare, HolesOnBothSidesAreSkippedAndWhatIsBehindThemIsSeen) {
    constexpr off_t size = off_t{1} << 40; // nobody reads that
    for (const char *name : {"f", "g"}) {
        kit::writeSparse(scratch / name, size, {{0, 4096}, {off_t{1} << 39, 8192}});
        set_times(scratch / name);
        set_creation(scratch / name, 1);
    }
    EXPECT_EQ("", text_of(compared(scratch / "f", scratch / "g", {.data = true})));
    const engine::Descriptor file(::open((scratch / "g").c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(1, ::pwrite(file.get(), "x", 1, size - 5));
    EXPECT_EQ("data: data differ from byte 1099511627771 on\n",
              text_of(compared(scratch / "f", scratch / "g", {.data = true, .times = false})));
}

// A walk compares many of these.
TEST_F(Compare, PlainFilesAreComparedWithoutOpeningThem) {
    KIT_NOT_SANITIZED();
    for (const char *name : {"f", "g"}) {
        kit::writeFile(scratch / name, "data");
        set_times(scratch / name);
        set_creation(scratch / name, 1'500'000'000);
    }
    EXPECT_TRUE(kit::holdsInChild([&] {
        const engine::Descriptor directory(::open(scratch.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        const engine::VolumeFacts volume = engine::volume_facts(directory.get(), kFileEa);
        const rlimit none{0, 64};
        const Side a{directory.get(), "f", volume}, b{directory.get(), "g", volume};
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
        EXPECT_EQ("", text_of(engine::compare_entries(a, b)));
        EXPECT_EQ(Names{"unreadable"}, names_of(engine::compare_entries(a, b, {.data = true})));
        const rlimit some{64, 64}; // what the end of the child needs
        ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &some));
    }));
}

TEST_F(Compare, StoppedComparisonIsNotEqual) {
    kit::writeFile(scratch / "f", "data");
    const CompareOptions options{.data = true, .stopped = [] { return true; }};
    EXPECT_EQ("unreadable: data: the comparison was stopped\n",
              text_of(compared(scratch / "f", scratch / "f", options)));
}

TEST_F(Compare, NamesThatAreNoneAreRefused) {
    const engine::Descriptor directory(::open(scratch.path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (const char *name : {"", "..", "a/b"}) {
        const Side side{directory.get(), name, {}};
        EXPECT_EQ(Names{"unreadable"}, names_of(engine::compare_entries(side, side))) << name;
    }
    const Side itself{directory.get(), ".", {}};
    EXPECT_EQ(Names{}, names_of(engine::compare_entries(itself, itself)));
}

TEST_F(Compare, CommentOfTheMetadataAttributeIsCompared) {
    constexpr size_t kCommentLength = 34;
    std::string value("\0\5\26\7\0\2\0\0                \0\1\0\0\0\4\0\0\0\46\0\0\0\0", 38);
    value.resize(402);
    for (const char *name : {"f", "g"}) {
        kit::writeFile(scratch / name, "data");
        kit::setAttribute(scratch / name, "user.netatalk.Metadata", value);
    }
    const auto found = [&] { return text_of(compared(scratch / "f", scratch / "g", {.times = false}, 2, 2)); };
    EXPECT_EQ("", found());
    value[kCommentLength + 3] = 5;
    kit::setAttribute(scratch / "f", "user.netatalk.Metadata", value);
    EXPECT_EQ("mac-attributes: comment differs: 5 and 0 bytes\n", found());
}

} // namespace
