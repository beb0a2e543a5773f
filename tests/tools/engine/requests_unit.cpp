// The engine as a program sees it that is no command: options in, events and results out. This program is linked
// without a line of the commands.
#include "tests/kit/behaviour.h"
#include "tools/engine/remove/tree_removal.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/transfer/transfer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

using namespace engine;
using Lines = std::vector<std::string>;

class Requests : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        ASSERT_EQ(0, ::mkdir((scratch / "from").c_str(), 0755));
        kit::writeFile(scratch / "from/one", "1");
        kit::writeFile(scratch / "two", "22");
    }
};

// Writes down what it is told; answers as it is set.
class TransferRecord : public TransferObserver {
  public:
    bool stopped() const override { return stop; }
    void tree(const std::string &source) override { said.push_back("tree " + source); }
    void entry(EntryKind, const std::string &source, const Outcome &outcome) override {
        said.push_back(std::to_string(static_cast<int>(outcome.status)) + " " + source);
        last = outcome;
    }
    void arrived(const std::string &, int files, int64_t) override {
        said.push_back(std::to_string(files) + " arrived");
    }
    void progress(int64_t bytes, bool) override { done += bytes; }
    bool may_replace(const std::string &) override { return replace; }

    Lines said;
    Outcome last;
    int64_t done = 0;
    bool stop = false, replace = false;
};

TEST_F(Requests, TransferTellsOfEachEntryAndOfTheBytes) {
    TransferRecord record;
    Transfer transfer({.links = true, .trees = true}, record);
    transfer.run(scratch / "from", scratch / "to");
    transfer.run(scratch / "two", scratch / "to/two");
    EXPECT_EQ((Lines{"tree " + scratch / "from", "0 " + scratch / "from/one", "0 " + scratch / "from",
                     "0 " + scratch / "two"}),
              record.said);
    EXPECT_EQ(3, record.done);
    EXPECT_EQ("22", kit::readFile(scratch / "to/two"));
}

TEST_F(Requests, ConflictIsForTheObserverToDecide) {
    kit::writeFile(scratch / "there", "old");
    TransferRecord record;
    Transfer transfer({.conflict = Conflict::ask}, record);
    transfer.run(scratch / "two", scratch / "there");
    EXPECT_EQ(Status::skipped, record.last.status);
    EXPECT_EQ("old", kit::readFile(scratch / "there"));
    record.replace = true;
    transfer.run(scratch / "two", scratch / "there");
    EXPECT_EQ(Status::done, record.last.status);
    EXPECT_EQ("22", kit::readFile(scratch / "there"));
}

TEST_F(Requests, StopEndsATreeBeforeTheNextEntry) {
    TransferRecord record;
    record.stop = true;
    Transfer({.trees = true}, record).run(scratch / "from", scratch / "to");
    EXPECT_EQ(Lines{"tree " + scratch / "from"}, record.said);
    EXPECT_FALSE(kit::exists(scratch / "to"));
}

TEST_F(Requests, DirectoryIsRefusedWithoutAWordOfOptions) {
    TransferRecord record;
    Transfer({}, record).run(scratch / "from", scratch / "to");
    ASSERT_TRUE(record.last.problem);
    EXPECT_TRUE(record.last.problem->needsRecursion);
    EXPECT_EQ("is a directory", record.last.problem->reason);
}

class RemovalRecord : public RemovalObserver {
  public:
    bool stopped() const override { return false; }
    void entry(const std::string &path, mode_t, Status status, const Problem *problem) override {
        said.push_back(std::to_string(static_cast<int>(status)) + " " + path + (problem ? ": " + problem->reason : ""));
    }
    bool may_remove(const std::string &path, RemovalQuestion) override { return path != kept; }

    Lines said;
    std::string kept;
};

TEST_F(Requests, RemovalAsksAndTells) {
    RemovalRecord record;
    record.kept = scratch / "from/one";
    TreeRemoval({.recursive = true}, record).run(scratch / "from");
    EXPECT_EQ(Lines{"1 " + record.kept}, record.said);
    EXPECT_TRUE(kit::exists(record.kept));
}

TEST_F(Requests, RemovalRefusesWhatNamesMoreThanItSays) {
    RemovalRecord record;
    TreeRemoval removal({.recursive = true, .force = true}, record);
    for (const char *path : {"/", "/.", "/..", "/../"}) {
        removal.run(path);
    }
    removal.run(scratch / "from/.");
    removal.run(scratch / "from/..");
    ASSERT_EQ(6u, record.said.size());
    for (const std::string &line : record.said) {
        EXPECT_NE(std::string::npos, line.find("refused")) << line;
    }
    EXPECT_EQ("1", kit::readFile(scratch / "from/one"));
}

TEST_F(Requests, SlashAtTheEndAsksForADirectory) {
    RemovalRecord record;
    TreeRemoval({.force = true}, record).run(scratch / "two/");
    ASSERT_EQ(1u, record.said.size());
    EXPECT_TRUE(kit::exists(scratch / "two"));
}

} // namespace
