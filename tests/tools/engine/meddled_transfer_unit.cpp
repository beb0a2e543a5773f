// Copies and moves while somebody else changes what they work on, at each moment at which they ask whether to stop:
// what changed is not lost, and nothing outside is read, written or removed.
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tools/engine/transfer/transfer.h"

#include <cstdio>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

using namespace engine;

// Does something once, when it has been asked so many times whether to stop or been told of so much progress.
class Meddler : public TransferObserver {
  public:
    Meddler(int at, std::function<void()> what) : m_at(at), m_what(std::move(what)) {}

    bool stopped() const override {
        meddle();
        return false;
    }
    void tree(const std::string &) override {}
    void entry(EntryKind, const std::string &, const Outcome &outcome) override {
        good = good && outcome.status == Status::done && !outcome.warning && outcome.losses.empty();
        last = outcome;
        meddle();
    }
    void arrived(const std::string &, int, int64_t) override {}
    void progress(int64_t, bool) override { meddle(); }
    bool may_replace(const std::string &) override { return true; }

    bool did() const { return m_asked > m_at; }
    bool good = true;
    Outcome last;

  private:
    void meddle() const {
        if (m_asked++ == m_at) {
            m_what();
        }
    }
    int m_at;
    std::function<void()> m_what;
    mutable int m_asked = 0;
};

struct Place {
    explicit Place(const std::string &path) : source(path + "/source"), outside(path + "/outside") {
        EXPECT_EQ(0, ::mkdir(source.c_str(), 0755));
        EXPECT_EQ(0, ::mkdir(outside.c_str(), 0755));
        EXPECT_EQ(0, ::mkdir((source + "/sub").c_str(), 0755));
        for (const char *name : {"a", "b"}) {
            kit::writeFile(source + "/sub/" + name, kit::pattern(100'000));
            kit::writeFile(outside + "/" + name, "outside");
        }
    }
    void exchange(const std::string &directory) const {
        EXPECT_EQ(0, std::rename(directory.c_str(), (directory + ".moved").c_str()));
        EXPECT_EQ(0, ::symlink(outside.c_str(), directory.c_str()));
    }
    bool isOutsideWhole() const {
        return kit::namesIn(outside) == std::vector<std::string>{"a", "b"} &&
               kit::attribute(outside, "user.DOSATTRIB").empty() && kit::readFile(outside + "/a") == "outside" &&
               kit::readFile(outside + "/b") == "outside" && kit::statOf(outside + "/a").st_uid == ::geteuid() &&
               (kit::statOf(outside + "/a").st_mode & 07777) == 0644;
    }
    const std::string source, outside;
};

class MeddledTransfer : public ::testing::TestWithParam<Operation> {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root to mount volumes";
        }
    }
    static TransferOptions options() {
        return {.operation = GetParam(), .conflict = Conflict::replace, .links = true, .trees = true};
    }
};
INSTANTIATE_TEST_SUITE_P(Operations, MeddledTransfer, ::testing::Values(Operation::copy, Operation::move),
                         [](const auto &each) { return each.param == Operation::copy ? "Copy" : "Move"; });

bool holds_text(const std::string &directory, const std::string &text) {
    for (const std::string &name : kit::namesIn(directory)) {
        const std::string path = directory + "/" + name;
        const mode_t mode = kit::statOf(path).st_mode;
        if ((S_ISREG(mode) && kit::readFile(path) == text) || (S_ISDIR(mode) && holds_text(path, text))) {
            return true;
        }
    }
    return false;
}

TEST_P(MeddledTransfer, DirectoryOfTheSourceThatBecomesALinkLeadsNowhere) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    int meddled = 0;
    for (int at = 0;; ++at) {
        const kit::ScratchDirectory scratch;
        const Place place(scratch.path());
        const std::string to = volume / ("to" + std::to_string(at));
        Meddler meddler(at, [&] {
            if (kit::exists(place.source + "/sub")) {
                place.exchange(place.source + "/sub");
            }
        });
        Transfer(options(), meddler).run(place.source, to);
        if (!meddler.did()) {
            break;
        }
        ++meddled;
        EXPECT_TRUE(place.isOutsideWhole()) << at;
        EXPECT_FALSE(kit::exists(to) && holds_text(to, "outside")) << at;
        // Of a move every file is somewhere.
        for (const char *name : {"a", "b"}) {
            bool found = false;
            for (const std::string &directory : {place.source, to}) {
                for (const char *sub : {"/sub", "/sub.moved"}) {
                    const std::string path = directory + sub + "/" + name;
                    found = found || (kit::exists(path) && kit::readFile(path) == kit::pattern(100'000));
                }
            }
            EXPECT_TRUE(found) << at << name;
        }
    }
    EXPECT_LT(5, meddled);
}

TEST_P(MeddledTransfer, DirectoryOfTheDestinationThatBecomesALinkLeadsNowhere) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    int meddled = 0;
    for (int at = 0;; ++at) {
        const kit::ScratchDirectory scratch;
        const Place place(scratch.path());
        const std::string to = volume / ("to" + std::to_string(at));
        for (const char *directory : {"", "/sub"}) {
            ASSERT_EQ(0, ::mkdir((to + directory).c_str(), 0755));
        }
        kit::writeFile(to + "/sub/a", "old");
        Meddler meddler(at, [&] { place.exchange(to + "/sub"); });
        Transfer(options(), meddler).run(place.source, to);
        if (!meddler.did()) {
            break;
        }
        ++meddled;
        EXPECT_TRUE(place.isOutsideWhole()) << at;
    }
    EXPECT_LT(5, meddled);
}

// What grows, or is exchanged for another file, while it is carried: the new version is at the source, or it is what
// arrived, and whoever is told that all is well has it.
TEST_P(MeddledTransfer, FileThatGrowsOrIsExchangedIsNotLost) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    const auto grow = [](const std::string &file) {
        const int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
        if (fd >= 0) {
            EXPECT_EQ(4, ::write(fd, "more", 4));
            ::close(fd);
        }
    };
    const auto exchange = [](const std::string &file) {
        kit::writeFile(file + ".new", "another file");
        EXPECT_EQ(0, std::rename((file + ".new").c_str(), file.c_str()));
    };
    const std::function<void(const std::string &)> changes[] = {grow, exchange};
    for (const auto &change : changes) {
        int meddled = 0;
        for (int at = 0;; ++at) {
            const kit::ScratchDirectory scratch;
            const std::string from = scratch / "file", to = volume / "file";
            kit::writeFile(from, kit::pattern(300'000));
            std::string now;
            Meddler meddler(at, [&] {
                if (kit::exists(from)) {
                    change(from);
                    now = kit::readFile(from);
                }
            });
            Transfer(options(), meddler).run(from, to);
            if (!meddler.did()) {
                break;
            }
            if (now.empty()) {
                continue; // it was gone already
            }
            ++meddled;
            const bool here = kit::exists(from) && kit::readFile(from) == now;
            EXPECT_TRUE(here || kit::readFile(to) == now) << at;
            EXPECT_TRUE(here || GetParam() == Operation::move) << at;
        }
        EXPECT_LT(0, meddled);
    }
}

TEST_P(MeddledTransfer, WhatIsNotWhatItsSourceIsOnceReadBackIsNeverPlaced) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    const kit::ScratchDirectory scratch;
    const std::string from = scratch / "file", to = volume / "file";
    kit::writeFile(from, kit::pattern(300'000));
    int refused = 0;
    for (int at = 0; at < 40; ++at) {
        kit::writeFile(to, "old");
        bool done = false;
        // One byte of what is under way, with its times as they were.
        Meddler meddler(at, [&] {
            for (const std::string &name : kit::namesIn(volume.path())) {
                const std::string path = volume / name;
                const struct stat before = kit::statOf(path);
                if (!name.starts_with(".vexofileop-") || before.st_size != 300'000) {
                    continue;
                }
                const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
                done = ::pwrite(fd, "\xff\xfe\xfd", 3, 290'000) == 3;
                const timespec times[] = {before.st_atim, before.st_mtim};
                ::futimens(fd, times);
                ::close(fd);
            }
        });
        TransferOptions verified = options();
        verified.verify = true;
        Transfer(verified, meddler).run(from, to);
        if (!meddler.did()) {
            break;
        }
        EXPECT_TRUE(kit::readFile(to) == kit::pattern(300'000) || kit::readFile(to) == "old") << at;
        if (done && meddler.last.status == Status::failed) {
            ++refused;
            EXPECT_EQ("old", kit::readFile(to)) << at;
            EXPECT_EQ(LossClass::data, meddler.last.losses.back().cls);
            EXPECT_EQ(1U, kit::namesIn(volume.path()).size()) << at;
            EXPECT_EQ(kit::pattern(300'000), kit::readFile(from)) << at;
        }
        if (!kit::exists(from)) {
            kit::writeFile(from, kit::pattern(300'000));
        }
    }
    EXPECT_LT(0, refused);
}

// Two names of one file, and somebody who does something once the first of them has arrived.
class FirstName : public Meddler {
  public:
    explicit FirstName(std::function<void(const std::string &)> what) : Meddler(-1, [] {}), m_doing(std::move(what)) {}
    void entry(EntryKind kind, const std::string &source, const Outcome &outcome) override {
        Meddler::entry(kind, source, outcome);
        if (kind == EntryKind::file && !std::exchange(m_done, true)) {
            ::usleep(20'000); // the clock of change times is a coarse one
            m_doing(outcome.destination);
        }
    }

  private:
    std::function<void(const std::string &)> m_doing;
    bool m_done = false;
};

struct TwoNames {
    explicit TwoNames(const std::string &path) : source(path + "/source") {
        EXPECT_EQ(0, ::mkdir(source.c_str(), 0755));
        kit::writeFile(source + "/a", "content");
        EXPECT_EQ(0, ::link((source + "/a").c_str(), (source + "/b").c_str()));
        EXPECT_EQ(0, ::link((source + "/a").c_str(), (path + "/third").c_str()));
    }
    static std::string other(const std::string &path) {
        return path.substr(0, path.size() - 1) + (path.ends_with('a') ? "b" : "a");
    }
    const std::string source;
};

TEST_P(MeddledTransfer, CopyThatWasExchangedGetsNoOtherName) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    const kit::ScratchDirectory scratch;
    const TwoNames names(scratch.path());
    std::string first;
    FirstName observer([&](const std::string &path) {
        first = path;
        const struct stat old = kit::statOf(path);
        const timespec times[] = {old.st_atim, old.st_mtim};
        ASSERT_EQ(0, std::rename(path.c_str(), (volume / "aside").c_str()));
        kit::writeFile(path, "strange");
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, path.c_str(), times, 0));
    });
    Transfer(options(), observer).run(names.source, volume / "there");
    EXPECT_EQ("strange", kit::readFile(first));
    EXPECT_EQ("content", kit::readFile(TwoNames::other(first)));
}

TEST_P(MeddledTransfer, LinkInThePlaceOfACopyIsNotFollowed) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    const kit::ScratchDirectory scratch;
    const TwoNames names(scratch.path());
    std::string first;
    FirstName observer([&](const std::string &path) {
        first = path;
        ASSERT_EQ(0, std::rename(path.c_str(), (volume / "aside").c_str()));
        ASSERT_EQ(0, ::symlink((volume / "aside").c_str(), path.c_str()));
    });
    Transfer(options(), observer).run(names.source, volume / "there");
    EXPECT_EQ("content", kit::readFile(TwoNames::other(first)));
    EXPECT_EQ(1U, kit::statOf(volume / "aside").st_nlink);
}

TEST_P(MeddledTransfer, FileThatChangedBetweenItsNamesIsCopiedAgain) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(16 << 20));
    const kit::ScratchDirectory scratch;
    const TwoNames names(scratch.path());
    std::string first;
    FirstName observer([&](const std::string &path) {
        first = path;
        const std::string third = scratch / "third";
        const struct stat old = kit::statOf(third);
        const timespec times[] = {old.st_atim, old.st_mtim};
        kit::writeFile(third, "CHANGED"); // of the same length, and with its old time
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, third.c_str(), times, 0));
    });
    Transfer(options(), observer).run(names.source, volume / "there");
    EXPECT_EQ("content", kit::readFile(first));
    EXPECT_EQ("CHANGED", kit::readFile(TwoNames::other(first)));
}

} // namespace
