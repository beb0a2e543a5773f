// Files that are passed over after one look are the same in everything; whatever one has more, or not as the other, has
// them compared.
#include "tools/engine/compare/plain_files.h"

#include "platform/core.h"
#include "tests/ea/stream_bytes.h"
#include "tests/kit/scratch.h"
#include "tests/tools/engine/store_scene.h"
#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/walk/descriptor.h"

#include <climits>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using Names = std::vector<std::string>;

// Two directories, each with a file "f" of which there is nothing to tell.
struct Pair {
    Pair() {
        constexpr timespec times[] = {{1'600'000'000, 5}, {1'600'000'000, 7}};
        VLIBCStat found{};
        for (const std::string &directory : {one, other}) {
            EXPECT_EQ(0, ::mkdir(directory.c_str(), 0755));
            kit::writeFile(directory + "/f", "content");
            EXPECT_EQ(0, ::utimensat(AT_FDCWD, (directory + "/f").c_str(), times, 0));
        }
        EXPECT_EQ(0, VLIBCFileStat((one + "/f").c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_CREATE_TIME, &found));
        give({times[0], times[1], found.createTime});
    }
    void give(const std::vector<timespec> &times) const { EXPECT_EQ(0, VLIBCFileUTime(copy.c_str(), 3, times.data())); }
    VLIBCStat status() const {
        VLIBCStat found{};
        EXPECT_EQ(0, VLIBCFileStat(copy.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_CREATE_TIME, &found));
        return found;
    }
    // A minute ago both were there as they are, and the copying began.
    Names rest(time_t begun = ::time(nullptr) + 60) const {
        const engine::Descriptor first(::open(one.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        const engine::Descriptor second(::open(other.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        const engine::VolumeFacts a = engine::volume_facts(first.get(), 1), b = engine::volume_facts(second.get(), 1);
        return engine::files_to_compare({first.get(), second.get(), a, b, {begun, 0}}, {"f"});
    }

    kit::ScratchDirectory scratch;
    // Of both, or of the source alone.
    void keep(const char *stream, const std::string &bytes, bool both = true) const {
        for (const std::string &directory : both ? Names{one, other} : Names{one}) {
            (void)::mkdir((directory + "/@eaDir").c_str(), 0777);
            kit::writeFile(directory + "/@eaDir/f@" + stream, bytes);
        }
    }
    std::vector<engine::Loss> losses() const {
        const engine::Descriptor first(::open(one.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        const engine::Descriptor second(::open(other.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        return engine::compare_entries({first.get(), "f", engine::volume_facts(first.get(), 1)},
                                       {second.get(), "f", engine::volume_facts(second.get(), 1)});
    }

    void giveBoth(const char *name, const std::string &value) const {
        kit::setAttribute(file, name, value);
        kit::setAttribute(copy, name, value);
    }

    const std::string one = scratch / "one", other = scratch / "other", file = one + "/f", copy = other + "/f";
};

std::string working_directory() {
    char path[PATH_MAX] = "";
    return ::getcwd(path, sizeof path) == nullptr ? "" : path;
}

TEST(PlainFiles, ThoseWithoutADifferenceArePassedOver) {
    const std::string before = working_directory();
    EXPECT_EQ(Names{}, Pair().rest());
    EXPECT_EQ(before, working_directory());
}

// The value of an ACL as the kernel takes it: one named user with the rights `bits`.
std::string acl(char bits) {
    constexpr char anybody[] = "\xff\xff\xff\xff";
    const auto entry = [&](char tag, char rights, const std::string &who) {
        return std::string{tag, '\0', rights, '\0'} + who;
    };
    const std::string none(anybody, 4), user("\xe8\x03\0\0", 4);
    return std::string("\2\0\0\0", 4) + entry(1, 6, none) + entry(2, bits, user) + entry(4, 4, none) +
           entry(0x10, 4, none) + entry(0x20, 4, none);
}

TEST(PlainFiles, ThoseWithTheSameAttributesArePassedOver) {
    const Pair pair;
    for (int number = 0; number < 6; ++number) {
        pair.giveBoth(("user.note" + std::to_string(number)).c_str(), std::string(100, 'n'));
    }
    kit::setAttribute(pair.copy, "user.zeta", "last");
    kit::setAttribute(pair.file, "user.zeta", "last"); // which the volume lists in another order
    EXPECT_EQ(Names{}, pair.rest());
    if (::geteuid() == 0) {
        pair.giveBoth("system.posix_acl_access", acl(4));
        EXPECT_EQ(Names{}, pair.rest());
    }
}

TEST(PlainFiles, ThoseWithMoreThanAttributesOfUsersAreCompared) {
    for (const char *name : {"security.note", "trusted.note", "user.netatalk.Metadata"}) {
        const Pair pair;
        if (::geteuid() == 0 || std::string(name).starts_with("user.")) {
            pair.giveBoth(name, "n");
            EXPECT_EQ(Names{"f"}, pair.rest()) << name;
        }
    }
    const Pair pair;
    pair.giveBoth("user.note", "n");
    for (int number = 0; number < 8; ++number) {
        pair.giveBoth(("user." + std::string(150, 'n') + std::to_string(number)).c_str(), ""); // more than one list
    }
    EXPECT_EQ(Names{"f"}, pair.rest());
}

TEST(PlainFiles, AttributesOfASourceThatHasChangedMeanwhileAreCompared) {
    const Pair pair;
    EXPECT_EQ(Names{}, pair.rest(1));
    pair.giveBoth("user.note", "n");
    EXPECT_EQ(Names{"f"}, pair.rest(1));
}

TEST(PlainFiles, ThoseWithTheSameStoresArePassedOver) {
    const Pair pair;
    pair.keep("VexoEAStream", stream::bytes(store_scene::kThree));
    EXPECT_EQ(Names{}, pair.rest());
    pair.keep("VexoResource", store_scene::resource_bytes("fork"));
    EXPECT_EQ(Names{}, pair.rest());
    pair.giveBoth("user.note", "n");
    EXPECT_EQ(Names{}, pair.rest());
    EXPECT_EQ(0, ::mkdir((pair.one + "/@eaDir/others").c_str(), 0777));
    EXPECT_EQ(Names{}, pair.rest()); // which is no matter of this file's
}

TEST(PlainFiles, StreamThatSomebodyWritesIsCompared) {
    const Pair pair;
    pair.keep("VexoEAStream", stream::bytes(store_scene::kThree));
    int gates[2];
    ASSERT_EQ(0, ::pipe(gates));
    const pid_t writer = ::fork();
    if (writer == 0) {
        struct flock lock {};
        lock.l_type = F_WRLCK;
        const int file = ::open((pair.one + "/@eaDir/f@VexoEAStream").c_str(), O_RDWR);
        (void)!::write(gates[1], ::fcntl(file, F_SETLK, &lock) == 0 ? "l" : "n", 1);
        ::pause();
        ::_exit(0);
    }
    char said = 'n';
    EXPECT_EQ(1, ::read(gates[0], &said, 1));
    EXPECT_EQ('l', said);
    EXPECT_EQ(Names{"f"}, pair.rest());
    EXPECT_EQ(0, ::kill(writer, SIGKILL));
    EXPECT_EQ(writer, ::waitpid(writer, nullptr, 0));
    EXPECT_EQ(Names{}, pair.rest());
    ::close(gates[0]);
    ::close(gates[1]);
}

// Of what a comparison cannot read both can have the same bytes. Each byte of the headers is given other values: where
// the look says that there is nothing to tell, a comparison finds nothing.
TEST(PlainFiles, NothingThatAComparisonWouldTellOfAStoreIsPassedOver) {
    const std::string whole = stream::bytes(store_scene::kThree), fork = store_scene::resource_bytes("fork");
    const Pair pair;
    int passed = 0, compared = 0;
    for (const auto &[name, bytes] : {std::pair{"VexoEAStream", whole}, std::pair{"VexoResource", fork}}) {
        for (size_t at = 0; at < bytes.size(); ++at) {
            for (const int value : {0, 1, 3, 0x7f, 0xff}) {
                std::string damaged = bytes;
                damaged[at] = static_cast<char>(value);
                pair.keep(name, damaged);
                const bool same = pair.rest().empty();
                (same ? passed : compared) += 1;
                if (same) {
                    EXPECT_TRUE(pair.losses().empty()) << name << " " << at << " " << value;
                }
            }
        }
        for (size_t length = 0; length < bytes.size(); ++length) {
            pair.keep(name, bytes.substr(0, length));
            EXPECT_TRUE(!pair.rest().empty() || pair.losses().empty()) << name << " " << length;
        }
        pair.keep(name, bytes);
    }
    EXPECT_LT(50, passed);
    EXPECT_LT(50, compared);
}

TEST(PlainFiles, EachDifferenceHasThemCompared) {
    struct Change {
        const char *what;
        std::function<void(const Pair &)> make;
    };
    const Change changes[] = {
        {"size", [](const Pair &pair) { EXPECT_EQ(0, ::truncate(pair.copy.c_str(), 5)); }},
        {"mode", [](const Pair &pair) { EXPECT_EQ(0, ::chmod(pair.copy.c_str(), 0600)); }},
        {"set-user-id", [](const Pair &pair) { EXPECT_EQ(0, ::chmod(pair.file.c_str(), 04644)); }},
        {"modification time",
         [](const Pair &pair) {
             const VLIBCStat was = pair.status();
             pair.give({was.st.st_atim, {was.st.st_mtim.tv_sec, 8}, was.createTime});
         }},
        {"creation time",
         [](const Pair &pair) {
             const VLIBCStat was = pair.status();
             pair.give({was.st.st_atim, was.st.st_mtim, {1000, 0}});
         }},
        {"attribute", [](const Pair &pair) { kit::setAttribute(pair.file, "user.note", "n"); }},
        {"attribute of another name",
         [](const Pair &pair) {
             kit::setAttribute(pair.file, "user.note", "n");
             kit::setAttribute(pair.copy, "user.name", "n");
         }},
        {"attribute of the copy beside the same one",
         [](const Pair &pair) {
             pair.giveBoth("user.note", "n");
             kit::setAttribute(pair.copy, "user.more", "n");
         }},
        {"ACL of the source alone",
         [](const Pair &pair) {
             kit::setAttribute(pair.file, "system.posix_acl_access", acl(4));
             EXPECT_EQ(0, ::chmod(pair.copy.c_str(), 0644));
         }},
        {"directory that hands an ACL on",
         [](const Pair &pair) {
             pair.giveBoth("system.posix_acl_access", acl(4));
             kit::setAttribute(pair.other, "system.posix_acl_default", acl(4));
         }},
        {"hidden",
         [](const Pair &pair) {
             pair.giveBoth("user.note", "n");
             kit::setAttribute(pair.copy, "user.DOSATTRIB", "0x2");
         }},
        {"second name",
         [](const Pair &pair) { EXPECT_EQ(0, ::link(pair.file.c_str(), (pair.one + "/second").c_str())); }},
        {"hole",
         [](const Pair &pair) {
             kit::writeSparse(pair.file, 1 << 20, {{0, 4096}});
             kit::writeSparse(pair.copy, 1 << 20, {{0, 4096}});
             const VLIBCStat was = pair.status();
             const timespec times[] = {was.st.st_atim, was.st.st_mtim};
             EXPECT_EQ(0, ::utimensat(AT_FDCWD, pair.file.c_str(), times, 0));
         }},
        {"nothing there", [](const Pair &pair) { EXPECT_EQ(0, ::unlink(pair.copy.c_str())); }},
        {"link",
         [](const Pair &pair) {
             EXPECT_EQ(0, ::unlink(pair.copy.c_str()));
             EXPECT_EQ(0, ::symlink("g", pair.copy.c_str()));
         }},
        {"store of the source alone", [](const Pair &pair) { pair.keep("VexoEAStream", stream::bytes({}), false); }},
        {"another stream",
         [](const Pair &pair) {
             pair.keep("VexoEAStream", stream::bytes({{"a", "1"}}));
             pair.keep("VexoEAStream", stream::bytes({{"a", "2"}}), false);
         }},
        {"another resource file",
         [](const Pair &pair) {
             pair.keep("VexoResource", store_scene::resource_bytes("fork"));
             pair.keep("VexoResource", store_scene::resource_bytes("fort"), false);
         }},
        {"resource file of the source beside the same stream",
         [](const Pair &pair) {
             pair.keep("VexoEAStream", stream::bytes({}));
             pair.keep("VexoResource", store_scene::resource_bytes(""), false);
         }},
        {"directory of its own in the store",
         [](const Pair &pair) {
             pair.keep("VexoEAStream", stream::bytes({}));
             EXPECT_EQ(0, ::mkdir((pair.one + "/@eaDir/f").c_str(), 0777));
         }},
        {"link in the place of a stream",
         [](const Pair &pair) {
             pair.keep("VexoEAStream", stream::bytes({}));
             EXPECT_EQ(0, ::rename((pair.one + "/@eaDir/f@VexoEAStream").c_str(), (pair.one + "/s").c_str()));
             EXPECT_EQ(0, ::symlink("../s", (pair.one + "/@eaDir/f@VexoEAStream").c_str()));
         }},
        {"store that is a link",
         [](const Pair &pair) {
             pair.keep("VexoEAStream", stream::bytes({}));
             EXPECT_EQ(0, ::rename((pair.one + "/@eaDir").c_str(), (pair.one + "/s").c_str()));
             EXPECT_EQ(0, ::symlink("s", (pair.one + "/@eaDir").c_str()));
         }},
        {"stream of more than 64 KiB",
         [](const Pair &pair) {
             pair.keep("VexoEAStream", stream::bytes({{"a", std::string(70'000, 'v')}}));
         }},
    };
    for (const Change &change : changes) {
        const Pair pair;
        change.make(pair);
        EXPECT_EQ(Names{"f"}, pair.rest()) << change.what;
    }
}

} // namespace
