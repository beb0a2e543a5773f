// Whether an entry still is what was copied.
#include "tools/engine/compare/witness.h"

#include "tests/kit/behaviour.h"
#include "tools/engine/walk/descriptor.h"

#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <tuple>

namespace {

using engine::Witness;

class WitnessOf : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        kit::writeFile(file(), "data");
        m_directory = std::make_unique<engine::Descriptor>(::open(scratch.path().c_str(), O_PATH | O_CLOEXEC));
        const timespec times[] = {{1, 0}, {1, 0}}; // long ago, so that every write shows
        ASSERT_EQ(0, ::utimensat(AT_FDCWD, file().c_str(), times, 0));
    }
    void TearDown() override {
        m_directory.reset();
        kit::Behaviour::TearDown();
    }
    std::string file() const { return scratch / "f"; }
    int directory() const { return m_directory->get(); }
    Witness seen() const { return *Witness::of(directory(), "f"); }

  private:
    std::unique_ptr<engine::Descriptor> m_directory;
};

TEST_F(WitnessOf, EntryThatStayedIsUnchangedByNameAndDescriptor) {
    const Witness before = seen();
    (void)kit::readFile(file());
    EXPECT_TRUE(before.unchanged(directory(), "f"));
    const engine::Descriptor open(::open(file().c_str(), O_PATH | O_CLOEXEC));
    EXPECT_TRUE(before.unchanged(open.get()));
    EXPECT_TRUE(Witness::of(open.get())->is(before.seen()));
}

TEST_F(WitnessOf, WriteInPlaceOfTheSameLengthShows) {
    const Witness before = seen();
    const engine::Descriptor open(::open(file().c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(4, ::pwrite(open.get(), "Data", 4, 0));
    EXPECT_FALSE(before.unchanged(directory(), "f"));
    EXPECT_FALSE(before.unchanged(open.get()));
    EXPECT_EQ(0, errno);
}

TEST_F(WitnessOf, WriteWhoseTimeWasSetBackShows) {
    const Witness before = seen();
    // A change time is one of a coarse clock: within one tick of it two changes cannot be told apart.
    timespec now{};
    do {
        ASSERT_EQ(0, ::clock_gettime(CLOCK_REALTIME_COARSE, &now));
    } while (std::tie(now.tv_sec, now.tv_nsec) <=
             std::tie(before.seen().st_ctim.tv_sec, before.seen().st_ctim.tv_nsec));
    kit::writeFile(file(), "Data");
    const timespec times[] = {{1, 0}, {1, 0}};
    ASSERT_EQ(0, ::utimensat(AT_FDCWD, file().c_str(), times, 0));
    EXPECT_FALSE(before.unchanged(directory(), "f"));
}

TEST_F(WitnessOf, FileThatWasReplacedOrIsGoneIsNotTheSame) {
    const Witness before = seen();
    const engine::Descriptor open(::open(file().c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(0, ::rename(file().c_str(), (scratch / "old").c_str()));
    EXPECT_FALSE(before.unchanged(directory(), "f"));
    EXPECT_EQ(ENOENT, errno);
    ASSERT_EQ(0, ::symlink("old", file().c_str()));
    EXPECT_FALSE(before.unchanged(directory(), "f"));
    EXPECT_EQ(0, errno);
    EXPECT_FALSE(Witness::of(directory(), "none"));
}

} // namespace
