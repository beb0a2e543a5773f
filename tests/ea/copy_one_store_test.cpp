// One store under two names: a link or another path to the same directory, a hard link, two long names with one
// shortened companion. Whatever the kinds, a copy leaves it as it is, and a move takes nothing away.
#include "ea/ea.h"
#include "tests/ea/store_copy.h"
#include "tests/kit/fingerprint.h"

#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace item_store;

constexpr int kEachKind[] = {kAppleDouble, kNative, kEaDirectory, kFileEa};

class OneStore : public store_copy::StoreCopy {
  protected:
    static std::string resourceOf(const Place &place) {
        char path[4096] = "";
        EXPECT_EQ(0, VEXOEAPath(1, place.path().c_str(), "VexoResource", path, 4095, 0));
        return path;
    }
    // Carries between the two places in every way, and expects each to be told as done and to change nothing below.
    void expectNothingDone(const std::string &root, int fromKind, int toKind) {
        const kit::Fingerprint before = kit::Fingerprint::of(root);
        for (const bool move : {false, true}) {
            for (const bool full : {false, true}) {
                EXPECT_EQ(0, copy(move, fromKind, toKind, full)) << kit::Log::all();
                EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(root), {"accessed"}))
                    << name(fromKind) << " to " << name(toKind) << ", move " << move << ", full " << full;
            }
        }
    }
};

TEST_F(OneStore, PathToItselfDoesNothing) {
    for (const int fromKind : kEachKind) {
        for (const int toKind : kEachKind) {
            const std::string root = newRoot();
            prepare(fromKind, fromKind, some(), root);
            to = from;
            expectNothingDone(root, fromKind, toKind);
        }
    }
}

TEST_F(OneStore, DirectoryByALinkDoesNothing) {
    for (const int fromKind : kEachKind) {
        for (const int toKind : kEachKind) {
            const std::string root = newRoot();
            prepare(fromKind, fromKind, some(), root);
            ASSERT_EQ(0, ::symlink(from.directory.c_str(), (root + "/by").c_str()));
            to = {root + "/by", from.base};
            expectNothingDone(root, fromKind, toKind);
        }
    }
}

// Where nothing is stored, there is still the archive bit that a copy gets, and a lock.
TEST_F(OneStore, FileWithoutAStoreIsLeftAloneAsWell) {
    for (const int fromKind : {kEaDirectory, kFileEa}) {
        for (const int toKind : {kEaDirectory, kFileEa}) {
            for (const bool byLink : {false, true}) {
                const std::string root = newRoot();
                from = {root + "/from", "f"};
                ::mkdir(from.directory.c_str(), 0777);
                kit::writeFile(from.path(), "data");
                ASSERT_EQ(0, ::symlink(from.directory.c_str(), (root + "/by").c_str()));
                to = byLink ? Place{root + "/by", "f"} : from;
                expectNothingDone(root, fromKind, toKind);
                EXPECT_EQ("", kit::attribute(from.path(), "user.DOSATTRIB"));
            }
        }
    }
}

TEST_F(OneStore, HardLinkedStreamsStay) {
    for (const int fromKind : {kEaDirectory, kFileEa}) {
        const std::string root = newRoot();
        prepare(fromKind, kEaDirectory, some(), root);
        // Hard-linked snapshots have one store under two names.
        makeDirectories(to);
        for (const std::string &one : {from.resource(), from.stream()}) {
            ASSERT_EQ(0, ::link(one.c_str(), (to.eaDirectory() + one.substr(one.rfind('/'))).c_str()));
        }
        ::chmod(from.resource().c_str(), 0777);
        ::chmod(from.stream().c_str(), 0777);
        const std::string resource = kit::readFile(from.resource());
        const std::string stream = kit::readFile(from.stream());
        for (const bool move : {false, true}) {
            EXPECT_EQ(0, copy(move)) << kit::Log::all();
            EXPECT_EQ(resource, content(from.resource())) << name(fromKind) << move;
            EXPECT_EQ(stream, content(from.stream())) << name(fromKind) << move;
        }
    }
}

TEST_F(OneStore, HardLinkedAppleDoubleFilesStay) {
    prepare(kAppleDouble, kAppleDouble);
    ::chmod(from.dotFile().c_str(), 0777);
    ASSERT_EQ(0, ::link(from.dotFile().c_str(), to.dotFile().c_str()));
    const std::string before = kit::readFile(from.dotFile());
    EXPECT_EQ(0, copy(true));
    EXPECT_EQ(before, content(from.dotFile()));
    EXPECT_EQ(before, content(to.dotFile()));
}

// Long names are cut so that their companions have room for the stream's name.
TEST_F(OneStore, LongNamesWithOneCompanionKeepIt) {
    for (const int kind : {kEaDirectory, kFileEa}) {
        const std::string root = newRoot();
        const std::string begin(250, 'n');
        prepare(kind, kind, {"", "", {}, {}, false}, root, begin + "1");
        to = {};
        const std::string shared = resourceOf(from);
        for (int number = 100; number < 1000 && (to.base.size() < begin.size() || resourceOf(to) != shared); ++number) {
            to = {from.directory, begin + std::to_string(number)};
        }
        ASSERT_EQ(shared, resourceOf(to));
        makeFile(to, kind);
        makeDirectories(from);
        kit::writeFile(shared, resourceBytes(kit::pattern(32, 7), "fork"), 0777);
        const std::string before = kit::readFile(shared);
        for (const bool move : {false, true}) {
            EXPECT_EQ(0, copy(move)) << kit::Log::all();
            EXPECT_EQ(before, content(shared)) << name(kind) << move;
        }
    }
}

// The file's own directory is removed at the destination before it is made anew.
TEST_F(OneStore, OwnDirectoryUnderTwoNamesStays) {
    prepare(kEaDirectory, kEaDirectory);
    ASSERT_EQ(0, ::symlink(from.eaDirectory().c_str(), to.eaDirectory().c_str()));
    EXPECT_EQ(-1, copy()) << "an \"@eaDir\" that is a link is none";
    EXPECT_EQ(some(), read(from, kEaDirectory));
}

// Two names of one file in one directory have stores of their own.
TEST_F(OneStore, HardLinksOfAFileHaveTheirOwnStores) {
    prepare(kEaDirectory, kEaDirectory);
    to = {from.directory, "other"};
    ASSERT_EQ(0, ::link(from.path().c_str(), to.path().c_str()));
    EXPECT_EQ(0, copy());
    EXPECT_EQ(some(), read(to, kEaDirectory));
    EXPECT_EQ(some(), read(from, kEaDirectory));
}

} // namespace
