// vexofileop store: checking and repairing stores, by the program itself.
#include "tests/ea/adouble_bytes.h"
#include "tests/ea/stream_bytes.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using kit::mentions;
using kit::runTool;
using kit::ToolResult;

class StoreCommand : public testing::Test {
  protected:
    void SetUp() override {
        KIT_NEEDS_TO_MAKE_STORES();
        ::setenv("VEXOFILEOP_FSTYPES", (scratch.path() + "=2").c_str(), 1);
        ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
        with_stream("", "sound", sound);
    }
    void TearDown() override { ::unsetenv("VEXOFILEOP_FSTYPES"); }
    std::string place(const std::string &below, const std::string &name) const {
        return tree + below + "/@eaDir/" + name + "@VexoEAStream";
    }
    void with_stream(const std::string &below, const std::string &name, const std::string &bytes) const {
        ::mkdir((tree + below).c_str(), 0755);
        ::mkdir((tree + below + "/@eaDir").c_str(), 0777);
        ::chmod((tree + below + "/@eaDir").c_str(), 0777);
        kit::writeFile(tree + below + "/" + name, "data");
        kit::writeFile(place(below, name), bytes);
    }
    ToolResult store(kit::Arguments arguments) const {
        arguments.insert(arguments.begin(), "store");
        return runTool(arguments, {.directory = scratch.path()});
    }

    kit::ScratchDirectory scratch;
    std::string tree = scratch / "tree", quarantine = scratch / "originals";
    std::string sound = stream::bytes({{"note", "text"}}, 4) + "fork";
};

TEST_F(StoreCommand, ExitStatusIsThatOfACheckOfAFileSystem) {
    ToolResult result = store({"check", "-r", tree});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("1 store in 1 directory: 0 findings\n", result.out);
    EXPECT_EQ("", result.err);

    with_stream("/below", "file", sound + "more");
    EXPECT_EQ(0, store({"check", tree}).status) << "that lies deeper";
    result = store({"check", "-r", tree});
    EXPECT_EQ(4, result.status);
    EXPECT_EQ(place("/below", "file") + ": 4 bytes follow its end at " + std::to_string(sound.size()) +
                  "; a repair: cut off (store-extra-bytes)\n2 stores in 2 directories: 1 finding\n",
              result.out);
    EXPECT_EQ("", store({"check", "-rq", tree}).out);
    EXPECT_EQ(8, store({"check", tree, scratch / "none"}).status);
    EXPECT_EQ(12, store({"check", "-r", tree, scratch / "none"}).status);

    with_stream("", "orphan", sound);
    ASSERT_EQ(0, ::unlink((tree + "/orphan").c_str()));
    result = store({"repair", "-r", "--quarantine", quarantine, tree});
    EXPECT_EQ(5, result.status) << result.out;
    EXPECT_TRUE(mentions(result.out,
                         "@eaDir/orphan@VexoEAStream: no file or directory is called orphan; left (store-orphan)\n"))
        << result.out;
    EXPECT_TRUE(mentions(result.out, "; cut off (store-extra-bytes)\n")) << result.out;
    EXPECT_TRUE(mentions(result.out, ": 2 findings, 1 mended, 1 left\n")) << result.out;
    EXPECT_TRUE(mentions(result.err, "the originals are in " + quarantine)) << result.err;
    EXPECT_EQ(sound, kit::readFile(place("/below", "file")));
    ASSERT_EQ(0, ::unlink(place("", "orphan").c_str()));
    EXPECT_EQ(0, store({"check", "-r", tree}).status);
}

TEST_F(StoreCommand, WrongUsageIsSixteen) {
    for (const kit::Arguments &words : std::vector<kit::Arguments>{{},
                                                                   {"mend"},
                                                                   {"check"},
                                                                   {"check", ""},
                                                                   {"check", "--report", "x.txt", tree},
                                                                   {"check", "--undo", quarantine},
                                                                   {"repair", "--undo", quarantine, tree},
                                                                   {"repair", "--undo", quarantine, "--dry-run"},
                                                                   {"repair", "--undo", "a", "--quarantine", "b"}}) {
        EXPECT_EQ(16, store(words).status) << (words.empty() ? "none" : words.back());
    }
    EXPECT_EQ(2, runTool({"copy"}).status) << "of other commands it is another";
    EXPECT_EQ(0, store({"--help"}).status);
}

TEST_F(StoreCommand, UndoPutsBackAndSaysWhatItLeaves) {
    with_stream("", "one", sound + "more");
    with_stream("", "two", sound + "more");
    ASSERT_EQ(0, ::chmod(place("", "one").c_str(), 0664));
    const auto before = kit::Fingerprint::of(tree);
    ASSERT_EQ(1, store({"repair", "--quarantine", "originals", tree}).status);
    ToolResult result = store({"repair", "--undo", "originals"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, place("", "one") + ": put back\n")) << result.out;
    EXPECT_EQ("", before.differenceTo(kit::Fingerprint::of(tree), {"accessed", "created", "modified"}));
    EXPECT_TRUE(mentions(store({"repair", "--undo", "originals"}).out, ": is as it was\n"));

    ASSERT_EQ(1, store({"repair", "--quarantine", "originals", tree}).status) << "it goes on with that directory";
    kit::writeFile(place("", "two"), "changed");
    result = store({"repair", "--undo", "originals"});
    EXPECT_EQ(4, result.status) << result.err;
    EXPECT_TRUE(mentions(result.err, place("", "two") + ": it was changed since the repair")) << result.err;
    EXPECT_EQ("changed", kit::readFile(place("", "two")));
    EXPECT_EQ(8, store({"repair", "--undo", tree}).status) << "a directory that is none";
}

TEST_F(StoreCommand, DryRunTellsAndChangesNothing) {
    with_stream("", "one", sound + "more");
    const ToolResult result = store({"repair", "--dry-run", "--quarantine", "originals", tree});
    EXPECT_EQ(4, result.status);
    EXPECT_TRUE(mentions(result.out, "; a repair: cut off (store-extra-bytes)")) << result.out;
    EXPECT_EQ(sound + "more", kit::readFile(place("", "one")));
    EXPECT_FALSE(kit::exists(quarantine));
}

TEST_F(StoreCommand, OriginalsGoIntoADirectoryHereWhichIsNotGoneInto) {
    with_stream("", "one", sound + "more");
    const ToolResult result =
        runTool({"store", "repair", "-r", tree}, {.directory = tree}); // the quarantine lies in the tree
    EXPECT_EQ(1, result.status) << result.err;
    std::string made;
    for (const std::string &name : kit::namesIn(tree)) {
        made = name.starts_with("vexofileop-quarantine-") ? name : made;
    }
    ASSERT_NE("", made);
    EXPECT_EQ((std::vector<std::string>{"1.new", "1.old", "manifest"}), kit::namesIn(tree + "/" + made));
    EXPECT_EQ(0, store({"check", "-r", tree}).status);
    ASSERT_EQ(0, store({"repair", "-r", tree}).status);
    EXPECT_EQ(std::vector<std::string>({"tree"}), kit::namesIn(scratch.path())) << "nothing to keep, no directory";
}

TEST_F(StoreCommand, NamesAreShownAsTheToolShowsThem) {
    with_stream("", "line\nfeed", sound + "more");
    EXPECT_TRUE(mentions(store({"check", tree}).out, "/@eaDir/line\\nfeed@VexoEAStream: 4 bytes follow"));
    const ToolResult json = store({"check", "--json", tree});
    EXPECT_TRUE(mentions(json.out, R"("finding":"store-extra-bytes","state":"found","place":")")) << json.out;
    EXPECT_TRUE(mentions(json.out, R"("found":1,"mended":0,"troubles":0,"cancelled":false,"exit_status":4})"))
        << json.out;
    EXPECT_EQ(2, std::count(json.out.begin(), json.out.end(), '\n'));
}

TEST_F(StoreCommand, ReportsNameWhatWasFound) {
    with_stream("", "one", sound + "more");
    ASSERT_EQ(4, store({"check", "--report", "found.html", tree}).status);
    const std::string page = kit::readFile(scratch / "found.html");
    EXPECT_TRUE(mentions(page, "bytes behind the end of a store file</b> (store-extra-bytes)")) << page;
    EXPECT_TRUE(mentions(page, "exit status 4")) << page;
    ASSERT_EQ(1, store({"repair", "--quarantine", quarantine, "--report", "mended.json", tree}).status);
    EXPECT_TRUE(mentions(kit::readFile(scratch / "mended.json"), R"("state":"mended")"));
}

TEST_F(StoreCommand, OtherVolumesArePassedOverWhereThatIsAsked) {
    ASSERT_EQ(0, ::mkdir((tree + "/mounted").c_str(), 0755));
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20, tree + "/mounted"));
    with_stream("/mounted", "file", sound + "more");
    EXPECT_EQ(0, store({"check", "-rx", tree}).status);
    EXPECT_EQ(4, store({"check", "-r", tree}).status);
}

TEST_F(StoreCommand, ReadOnlyVolumeIsLeftAsItIs) {
    ASSERT_EQ(0, ::mkdir((tree + "/mounted").c_str(), 0755));
    KIT_REQUIRE(volume, kit::Volume::tmpfs(1 << 20, tree + "/mounted"));
    with_stream("/mounted", "file", sound + "more");
    volume.setReadOnly(true);
    const ToolResult result = store({"repair", "-r", "--quarantine", quarantine, tree});
    EXPECT_EQ(4, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, "Read-only file system")) << result.out;
}

TEST_F(StoreCommand, OfAUserWithoutRightsTheRestIsLookedInto) {
    with_stream("/closed", "file", sound + "more");
    with_stream("/open", "file", sound + "more");
    ASSERT_EQ(0, ::chmod((tree + "/closed").c_str(), 0700));
    ASSERT_EQ(0, ::chmod(scratch.path().c_str(), 0755));
    const ToolResult result = runTool({"store", "check", "-r", tree}, {.user = 1234});
    EXPECT_EQ(12, result.status) << result.out << result.err;
    EXPECT_TRUE(mentions(result.err, tree + "/closed: Permission denied")) << result.err;
    EXPECT_TRUE(mentions(result.out, place("/open", "file"))) << result.out;
}

TEST_F(StoreCommand, TreesOfAnyDepthAreGoneThrough) {
    const std::string deep = kit::makeDeepDirectory(tree, 3'900);
    ASSERT_EQ(0, ::mkdir((deep + "/@eaDir").c_str(), 0777));
    const ToolResult result = store({"check", "-r", tree});
    EXPECT_EQ(4, result.status) << result.err;
    EXPECT_TRUE(mentions(result.out, "(store-empty)"));
}

// The volume is said to be of one kind all the time.
TEST_F(StoreCommand, ConversionTellsWhatItDoesAndWhatItLeaves) {
    with_stream("/below", "file", sound);
    ToolResult result = store({"convert", "-n", "--to", "double", tree});
    EXPECT_EQ(4, result.status) << "a fork in a stream is read nowhere";
    EXPECT_TRUE(mentions(result.out, tree + "/sound: left: its attribute stream has a Finder Info or a resource fork"))
        << result.out;
    EXPECT_TRUE(mentions(result.out, "1 store in 1 directory: 0 would be converted, 1 left\n")) << result.out;

    with_stream("", "sound", stream::bytes({{"note", "text"}}));
    with_stream("/below", "file", stream::bytes({{"note", "text"}}));
    result = store({"convert", "-r", "--to=double", tree, "--report", "report.html"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ(tree + "/sound: converted from eadir to double\n" + tree +
                  "/below/file: converted from eadir to double\n2 stores in 2 directories: 2 converted, 0 left\n",
              result.out);
    EXPECT_EQ(stream::bytes({{"note", "text"}}), kit::readFile(tree + "/below/._file"));
    EXPECT_TRUE(mentions(kit::readFile(scratch / "report.html"), "sound: converted from eadir to double"));
    result = store({"convert", "-rq", "--to=native", tree});
    EXPECT_EQ(4, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_TRUE(mentions(result.err, "keeps the old one; --accept stream gives it up")) << result.err;
    result = store({"convert", "-r", "--json", "--to=native", "--accept=stream", tree, scratch / "none"});
    EXPECT_EQ(8, result.status) << result.out;
    EXPECT_TRUE(mentions(result.out, R"("event":"loss","class":"stream","severity":"lost")")) << result.out;
    EXPECT_TRUE(mentions(result.out, R"("stores":2,"converted":2,"convertible":0,"left":0,"troubles":1)"))
        << result.out;
    for (const kit::Arguments &words : std::vector<kit::Arguments>{
             {"convert", tree}, {"convert", "--to", "fat", tree}, {"convert", "--to", "native"}}) {
        EXPECT_EQ(16, store(words).status) << words.back();
    }
}

// Held against a copy from before, by the comparison of the tool.
TEST_F(StoreCommand, ConvertedTreeIsWhatItWas) {
    const std::string backup = scratch / "backup";
    const auto be = [&](int type) {
        ::setenv("VEXOFILEOP_FSTYPES", (tree + "=" + std::to_string(type) + ":" + backup + "=2").c_str(), 1);
    };
    be(2);
    with_stream("/below", "file", stream::bytes({{"user.note", "text"}}));
    with_stream("", "sound", stream::bytes({{"user.long", std::string(1000, 'l')}, {"user.note", "other"}}));
    kit::setAttribute(tree + "/sound", "user.netatalk.Metadata", adouble_bytes::metadata().replace(122, 8, "TEXTttxt"));
    kit::setAttribute(tree + "/below", "user.own", "of the directory itself");
    ASSERT_EQ(0, runTool({"copy", "-r", tree, backup}).status);
    struct Step {
        const char *to;
        int type;
    };
    for (const Step &step : {Step{"double", 5}, {"native", 7}, {"eadir", 1}, {"fileea", 2}}) {
        const ToolResult result =
            store({"convert", "-r", "--to", step.to, "--accept", "finder-info", tree}); // of a stock kernel, natively
        EXPECT_EQ(0, result.status) << step.to << result.out << result.err;
        be(step.type);
        const ToolResult compared = runTool({"compare", "--ignore", "finder-info", tree, backup});
        EXPECT_EQ(0, compared.status) << step.to << compared.out << compared.err;
        EXPECT_EQ(0, store({"check", "-r", tree}).status) << step.to;
    }
}

} // namespace
