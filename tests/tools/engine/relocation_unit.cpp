// Relocations: what they bring, what they refuse, and what they leave where they cannot go on.
#include "tests/kit/behaviour.h"
#include "tests/kit/child.h"
#include "tests/kit/volumes.h"
#include "tests/tools/engine/relocation_scene.h"
#include "tools/engine/relocate/note.h"
#include "tools/engine/report/invalid_request.h"

#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using engine::RelocationEnd;
using engine::RelocationResult;
using relocation::Record;
using relocation::Scene;
using Lines = std::vector<std::string>;

bool mentions(const Record &record, const std::string &part) {
    return relocation::text(record).find(part) != std::string::npos;
}

// Does something at a moment of the relocation: before the copying ends, when it has ended, at the n-th question
// whether to stop.
class StoreMeddler : public Record {
  public:
    void copied() override {
        Record::copied();
        if (whenCopied) {
            whenCopied();
        }
    }
    bool stopped() const override {
        if (copyEnded && atQuestion > 0 && ++m_asked == atQuestion) {
            then();
        }
        return stop || (stopWhen && stopWhen());
    }
    std::function<void()> whenCopied, then;
    std::function<bool()> stopWhen;
    int atQuestion = 0;

  private:
    mutable int m_asked = 0;
};

bool setImmutable(const std::string &path, bool on) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    int flags = 0;
    const bool done =
        fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 &&
        (flags = on ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL, ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0);
    ::close(fd);
    return done;
}

class Relocations : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        processMayChange(); // volumes
        try {
            m_source.emplace(kit::Volume::loop("ext4", 16 << 20));
            m_destination.emplace(kit::Volume::loop("ext4", 16 << 20));
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
        ::rmdir((*m_source / "lost+found").c_str());
        m_scene.emplace(m_source->path(), m_destination->path());
    }
    RelocationResult run(Record &record, bool keep = false) const {
        return relocation::run(m_scene->from(), m_scene->to(), record, keep);
    }
    std::string from(const std::string &name) const { return m_scene->from() + "/" + name; }
    std::string to(const std::string &name) const { return m_scene->to() + "/" + name; }
    // Everything but the private place is as it was.
    void expectUntouched() const {
        EXPECT_TRUE(kit::exists(from("sub/deep/last")));
        EXPECT_TRUE(kit::exists(to("in/old")));
        EXPECT_FALSE(kit::exists(to("one")));
        EXPECT_EQ("", m_scene->lost());
    }

    std::optional<kit::Volume> m_source, m_destination;
    std::optional<Scene> m_scene;
};

TEST_F(Relocations, BringEverythingAndLeaveNothingBeside) {
    Record record;
    const RelocationResult result = run(record);
    EXPECT_EQ(RelocationEnd::done, result.end) << relocation::text(record);
    EXPECT_EQ("", m_scene->unfinished());
    EXPECT_TRUE(record.copyEnded);
    EXPECT_FALSE(result.resumed);
}

TEST_F(Relocations, ArePlannedWithoutATrace) {
    const auto before = kit::namesIn(m_destination->path());
    const engine::RelocationPlan plan =
        engine::plan_relocation({.source = m_scene->from(), .destination = m_scene->to()});
    EXPECT_TRUE(plan.destinationExists);
    EXPECT_EQ("", plan.stoppedAt);
    EXPECT_EQ(before, kit::namesIn(m_destination->path()));
    for (const std::string &destination : {m_scene->from(), m_source->path(), from("sub/new")}) {
        EXPECT_THROW(engine::plan_relocation({.source = m_scene->from(), .destination = destination}),
                     engine::InvalidRequest);
    }
}

TEST_F(Relocations, KeepTheSourceWhereThatIsAskedOrSomethingDoesNotArrive) {
    Record kept;
    EXPECT_EQ(RelocationEnd::done, run(kept, true).end) << relocation::text(kept);
    EXPECT_EQ(kit::readFile(from("big")), kit::readFile(to("big")));
    ASSERT_EQ(0, ::mkfifo(from("sub/pipe").c_str(), 0600));
    kit::writeFile(from("@eaDir/gone@VexoEAStream"), "nobody's");
    ASSERT_EQ(0, ::mkdir(from("@EADIR").c_str(), 0755));
    kit::writeFile(from("@EADIR/own"), "a user's");
    Record record;
    const RelocationResult result = run(record);
    EXPECT_EQ(RelocationEnd::incomplete, result.end);
    EXPECT_EQ(3, result.missing) << relocation::text(record);
    for (const char *part : {"sub/pipe: ", "@eaDir/gone@VexoEAStream: ", "@EADIR: "}) {
        EXPECT_TRUE(mentions(record, part)) << relocation::text(record);
    }
    EXPECT_EQ("a user's", kit::readFile(from("@EADIR/own")));
    EXPECT_EQ("nobody's", kit::readFile(from("@eaDir/gone@VexoEAStream")));
    EXPECT_EQ("", m_scene->privatePlace());
}

TEST_F(Relocations, FileChangedInPlaceMeanwhileEndsItWithEverythingAsItWas) {
    const struct stat before = kit::statOf(from("big"));
    StoreMeddler record;
    record.whenCopied = [&] { // of the same size, with the same times
        const int fd = ::open(from("big").c_str(), O_WRONLY | O_CLOEXEC);
        EXPECT_EQ(3, ::pwrite(fd, "NEW", 3, 1000));
        const timespec times[] = {before.st_atim, before.st_mtim};
        ::futimens(fd, times);
        ::close(fd);
    };
    EXPECT_EQ(RelocationEnd::not_copied, run(record).end);
    EXPECT_TRUE(kit::exists(to("in/old")));
    EXPECT_FALSE(kit::exists(to("one")));
    EXPECT_EQ("", m_scene->privatePlace());
    EXPECT_TRUE(mentions(record, "from/big: data differ from byte 1000 on (data)")) << relocation::text(record);
    EXPECT_EQ("NEW", kit::readFile(from("big")).substr(1000, 3));
}

TEST_F(Relocations, WhatCameOrChangedAfterTheComparisonStaysAtTheSource) {
    StoreMeddler record;
    record.stopWhen = [&, done = false]() mutable {
        if (!done && !kit::exists(from("one")) && kit::exists(from("sub/two"))) { // its removal has begun
            done = true;
            kit::writeFile(from("sub/two"), "changed now");
            kit::writeFile(from("sub/new"), "new now");
        }
        return false;
    };
    const RelocationResult result = run(record);
    EXPECT_EQ(RelocationEnd::source_remains, result.end);
    EXPECT_TRUE(result.noteStays);
    EXPECT_EQ("changed now", kit::readFile(from("sub/two")));
    EXPECT_EQ("new now", kit::readFile(from("sub/new")));
    EXPECT_TRUE(mentions(record, "sub/two: was changed meanwhile, and stays\n")) << relocation::text(record);
    EXPECT_TRUE(mentions(record, "sub/new: was put there meanwhile, and stays\n")) << relocation::text(record);
    EXPECT_FALSE(kit::exists(from("big")) || kit::exists(from("sub/deep")));
    // The second run removes nothing of it either, and does not take the rest for the whole.
    Record again;
    EXPECT_EQ(RelocationEnd::source_remains, run(again).end);
    EXPECT_EQ("changed now", kit::readFile(from("sub/two")));
    EXPECT_EQ(300'000u, kit::readFile(to("big")).size());
}

TEST_F(Relocations, ImmutableFileAtTheSourceStaysAndTheSecondRunLosesNothing) {
    if (!setImmutable(from("sub/two"), true)) {
        GTEST_SKIP() << "not root, or a volume without such files";
    }
    for (int round = 0; round < 2; ++round) {
        Record record;
        const RelocationResult result = run(record);
        EXPECT_EQ(RelocationEnd::source_remains, result.end);
        EXPECT_TRUE(result.noteStays);
        EXPECT_TRUE(mentions(record, "sub/two: ")) << relocation::text(record);
        EXPECT_EQ(300'000u, kit::readFile(to("big")).size());
        EXPECT_EQ("", m_scene->lost());
    }
    setImmutable(from("sub/two"), false);
    Record record;
    const RelocationResult result = run(record);
    EXPECT_EQ(RelocationEnd::done, result.end) << relocation::text(record);
    EXPECT_TRUE(result.resumed);
    EXPECT_EQ("", m_scene->unfinished());
}

TEST_F(Relocations, ImmutableFileAtTheOldDestinationStaysAside) {
    if (!setImmutable(to("in/old"), true)) {
        GTEST_SKIP() << "not root, or a volume without such files";
    }
    Record record;
    const RelocationResult result = run(record);
    EXPECT_EQ(RelocationEnd::old_remains, result.end);
    EXPECT_EQ(m_scene->privatePlace() + "/old", result.aside);
    EXPECT_TRUE(mentions(record, "/old/in/old: ")) << relocation::text(record);
    EXPECT_FALSE(kit::exists(m_scene->from()));
    EXPECT_EQ("", m_scene->lost());
    setImmutable(result.aside + "/in/old", false);
    EXPECT_EQ(RelocationEnd::done, run(record).end);
    EXPECT_EQ("", m_scene->unfinished());
}

TEST_F(Relocations, MountedVolumesAreFoundBeforeAnythingIsTouched) {
    for (const std::string &place : {m_scene->to(), to("in"), from("sub")}) {
        ASSERT_EQ(0, ::mount("tmpfs", place.c_str(), "tmpfs", 0, "size=1m"));
        kit::writeFile(place + "/mounted", "x");
        Record record;
        const RelocationResult result = run(record);
        EXPECT_EQ(RelocationEnd::unfinished, result.end);
        EXPECT_NE(std::string::npos, result.problem.reason.find(place + ": a volume is mounted there"))
            << result.problem.reason;
        EXPECT_EQ("x", kit::readFile(place + "/mounted"));
        EXPECT_EQ("", m_scene->privatePlace());
        ASSERT_EQ(0, ::umount2(place.c_str(), MNT_DETACH));
        expectUntouched();
    }
}

TEST_F(Relocations, VolumeMountedMeanwhileStaysMounted) {
    StoreMeddler record;
    record.whenCopied = [&] { ASSERT_EQ(0, ::mount("tmpfs", to("in").c_str(), "tmpfs", 0, "size=1m")); };
    const RelocationResult result = run(record);
    EXPECT_EQ(RelocationEnd::old_remains, result.end) << result.problem.reason;
    EXPECT_TRUE(mentions(record, "/old/in: another volume is mounted there\n")) << relocation::text(record);
    ASSERT_EQ(0, ::umount2((m_scene->privatePlace() + "/old/in").c_str(), MNT_DETACH));
    EXPECT_EQ("", m_scene->lost());
}

TEST_F(Relocations, LinkPlantedAtTheDestinationIsNotReplaced) {
    ASSERT_EQ(0, ::mkdir((*m_destination / "elsewhere").c_str(), 0755));
    kit::writeFile(*m_destination / "elsewhere/file", "mine");
    StoreMeddler record;
    record.whenCopied = [&] {
        EXPECT_EQ(0, ::rename(m_scene->to().c_str(), (*m_destination / "moved").c_str()));
        EXPECT_EQ(0, ::symlink("elsewhere", m_scene->to().c_str()));
    };
    const RelocationResult result = run(record);
    EXPECT_EQ(RelocationEnd::not_copied, result.end) << result.problem.reason;
    EXPECT_TRUE(S_ISLNK(kit::statOf(m_scene->to()).st_mode));
    EXPECT_EQ((Lines{"file"}), kit::namesIn(*m_destination / "elsewhere"));
    EXPECT_TRUE(kit::exists(*m_destination / "moved/in/old"));
    EXPECT_TRUE(kit::exists(from("big")));
    EXPECT_EQ("", m_scene->privatePlace());
}

TEST_F(Relocations, TwoIntoOneParentDoNotTouchEachOther) {
    const std::string other = *m_source / "other";
    ASSERT_EQ(0, ::mkdir(other.c_str(), 0755));
    kit::writeFile(other + "/file", "the other's");
    StoreMeddler record;
    Record inner, same;
    record.whenCopied = [&] {
        EXPECT_EQ(RelocationEnd::done, relocation::run(other, *m_destination / "second", inner).end)
            << relocation::text(inner);
        // To the same destination there is one at a time.
        const RelocationResult refused = run(same);
        EXPECT_EQ(RelocationEnd::not_copied, refused.end);
        EXPECT_EQ("another relocation to it is under way", refused.problem.reason);
    };
    EXPECT_EQ(RelocationEnd::done, run(record).end) << relocation::text(record);
    EXPECT_EQ("", m_scene->unfinished());
    EXPECT_EQ("the other's", kit::readFile(*m_destination / "second/file"));
}

TEST_F(Relocations, StopBeforeTheExchangeLeavesEverythingAsItWas) {
    StoreMeddler record;
    record.whenCopied = [&] { record.stop = true; };
    EXPECT_EQ(RelocationEnd::cancelled, run(record).end);
    EXPECT_EQ("", m_scene->privatePlace());
    expectUntouched();
}

TEST_F(Relocations, StopWhileTheSourceIsRemovedIsFinishedByTheSecondRun) {
    StoreMeddler record;
    record.stopWhen = [&] { return !kit::exists(from("one")); };
    const RelocationResult result = run(record);
    EXPECT_EQ(RelocationEnd::source_remains, result.end);
    EXPECT_TRUE(result.noteStays);
    EXPECT_EQ("", m_scene->lost());
    EXPECT_NE("", engine::plan_relocation({.source = m_scene->from(), .destination = m_scene->to()}).stoppedAt);
    Record again;
    EXPECT_EQ(RelocationEnd::done, run(again).end) << relocation::text(again);
    EXPECT_EQ("", m_scene->unfinished());
}

TEST_F(Relocations, SecondRunRefusesWhatItCannotKnow) {
    StoreMeddler record;
    record.stopWhen = [&] { return !kit::exists(from("one")); };
    ASSERT_EQ(RelocationEnd::source_remains, run(record).end);
    const std::string note = m_scene->privatePlace() + "/note", text = kit::readFile(note);
    const auto refuses = [&](const std::string &why) {
        Record again;
        const RelocationResult result = run(again);
        EXPECT_EQ(RelocationEnd::unfinished, result.end);
        EXPECT_NE(std::string::npos, result.problem.reason.find(why)) << result.problem.reason;
        EXPECT_NE(std::string::npos, result.problem.reason.find(m_scene->privatePlace()));
        EXPECT_TRUE(!kit::exists(m_scene->to()) || m_scene->lost().empty()) << m_scene->lost();
    };
    for (size_t at = 0; at < text.size(); at += 7) { // another byte, or cut
        std::string damaged = text;
        damaged[at] = damaged[at] == 'x' ? 'y' : 'x';
        kit::writeFile(note, damaged);
        refuses("the note is damaged");
        kit::writeFile(note, text.substr(0, at));
        refuses("the note is damaged");
    }
    kit::writeFile(note, text);
    const std::string kept = *m_source / "kept";
    ASSERT_EQ(0, ::rename(m_scene->from().c_str(), kept.c_str()));
    ASSERT_EQ(0, ::mkdir(m_scene->from().c_str(), 0755));
    refuses("is not the directory any more that was copied");
    ASSERT_EQ(0, ::rmdir(m_scene->from().c_str()));
    ASSERT_EQ(0, ::rename(kept.c_str(), m_scene->from().c_str()));
    ASSERT_EQ(0, ::rename(m_scene->to().c_str(), (*m_destination / "moved").c_str()));
    refuses("does not stand at");
    Record other;
    const RelocationResult result = relocation::run(*m_source / "@eaDir", m_scene->to(), other);
    EXPECT_NE(std::string::npos, result.problem.reason.find("is not finished")) << result.problem.reason;
    ASSERT_EQ(0, ::rename((*m_destination / "moved").c_str(), m_scene->to().c_str()));
    Record again;
    EXPECT_EQ(RelocationEnd::done, run(again).end) << relocation::text(again);
    EXPECT_EQ("", m_scene->unfinished());
}

TEST_F(Relocations, PlacePlantedBySomebodyElseIsNotEntered) {
    const std::string place =
        engine::plan_relocation({.source = m_scene->from(), .destination = m_scene->to()}).staging;
    ASSERT_EQ(0, ::mkdir(place.c_str(), 0755));
    ASSERT_EQ(0, ::chown(place.c_str(), 1000, 1000));
    Record record;
    EXPECT_NE(std::string::npos, run(record).problem.reason.find("was not made by this user"));
    ASSERT_EQ(0, ::rmdir(place.c_str()));
    ASSERT_EQ(0, ::symlink("/tmp", place.c_str()));
    EXPECT_EQ(RelocationEnd::unfinished, run(record).end);
    expectUntouched();
}

TEST_F(Relocations, UserWithoutRightsRelocatesReadOnlyDirectories) {
    KIT_NEEDS_ROOT("to become another user");
    constexpr uid_t user = 1000;
    const std::string home = *m_destination / "home";
    ASSERT_EQ(0, ::mkdir(home.c_str(), 0755));
    ASSERT_EQ(0, ::chown(home.c_str(), user, user));
    EXPECT_TRUE(kit::holdsInChild([&] {
        ASSERT_EQ(0, ::setgid(user));
        ASSERT_EQ(0, ::setuid(user));
        for (const char *name : {"/tree", "/tree/in", "/old"}) {
            ASSERT_EQ(0, ::mkdir((home + name).c_str(), 0755));
        }
        kit::writeFile(home + "/tree/in/file", "text", 0444);
        kit::writeFile(home + "/old/file", "x", 0444);
        for (const char *name : {"/tree", "/tree/in", "/old"}) {
            ASSERT_EQ(0, ::chmod((home + name).c_str(), 0555));
        }
        Record kept;
        EXPECT_EQ(RelocationEnd::done, relocation::run(home + "/tree", home + "/old", kept, true).end)
            << relocation::text(kept);
        EXPECT_EQ(0555u, kit::statOf(home + "/old").st_mode & 07777);
        EXPECT_EQ("text", kit::readFile(home + "/old/in/file"));
        // Without the right to remove from it the source stays, and that is told.
        Record record;
        EXPECT_EQ(RelocationEnd::source_remains, relocation::run(home + "/tree", home + "/old", record).end);
        EXPECT_TRUE(mentions(record, "/tree/in/file: ")) << relocation::text(record);
        for (const char *name : {"/tree", "/tree/in"}) {
            ASSERT_EQ(0, ::chmod((home + name).c_str(), 0755));
        }
        Record again;
        EXPECT_EQ(RelocationEnd::source_remains, relocation::run(home + "/tree", home + "/old", again).end);
        EXPECT_TRUE(mentions(again, "(mode)")) << relocation::text(again);
        EXPECT_EQ("text", kit::readFile(home + "/tree/in/file"));
    }));
}

TEST_F(Relocations, FullVolumeLeavesEverythingAsItWas) {
    kit::writeFile(from("huge"), kit::pattern(24 << 20).substr(0, 9 << 20));
    kit::writeFile(*m_destination / "filler", kit::pattern(7 << 20));
    Record record;
    const RelocationResult result = run(record);
    EXPECT_EQ(RelocationEnd::not_copied, result.end) << relocation::text(record);
    EXPECT_EQ("", m_scene->privatePlace());
    expectUntouched();
}

} // namespace
