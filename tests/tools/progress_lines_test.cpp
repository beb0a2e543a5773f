// --progress=json: lines for programs, on stderr, beside whatever else the command says.
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/slow_file.h"
#include "tests/tools/tool_process.h"

#include <csignal>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using kit::runTool;
using kit::ToolResult;

using Object = std::shared_ptr<json_object>;

// The lines of the text, all of which are events of progress.
std::vector<Object> eventsOf(const std::string &text) {
    std::vector<Object> events;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        events.emplace_back(json_tokener_parse(line.c_str()), &json_object_put);
        json_object *event = nullptr;
        EXPECT_TRUE(json_object_object_get_ex(events.back().get(), "event", &event)) << line;
        EXPECT_STREQ("progress", json_object_get_string(event)) << line;
    }
    return events;
}

int64_t numberIn(const Object &object, const char *name) {
    json_object *member = nullptr;
    EXPECT_TRUE(json_object_object_get_ex(object.get(), name, &member)) << name;
    return json_object_get_int64(member);
}

class ProgressLines : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, ::mkdir(tree.c_str(), 0755));
        ASSERT_EQ(0, ::mkdir((tree + "/in").c_str(), 0755));
        kit::writeFile(tree + "/one", std::string(1000, '1'));
        kit::writeFile(tree + "/in/two", std::string(200, '2'));
        kit::writeFile(tree + "/in/left.o", std::string(50'000, 'o'));
    }
    kit::ScratchDirectory scratch;
    const std::string tree = scratch / "tree", copy = scratch / "copy";
};

TEST_F(ProgressLines, BeginAndEndWithWhatIsToBeDone) {
    for (const kit::Arguments &command : std::vector<kit::Arguments>{
             {"copy", "-r", "-T"}, {"mirror", "-f"}, {"compare"}, {"copy", "-ru", "--json", "-T"}}) {
        kit::Arguments all = command;
        all.insert(all.end(), {"--progress=json", tree, copy});
        const ToolResult result = runTool(all);
        ASSERT_EQ(0, result.status) << result.err;
        const std::vector<Object> events = eventsOf(result.err);
        ASSERT_LE(2U, events.size()) << command.front();
        EXPECT_EQ(0, numberIn(events.front(), "files")) << command.front();
        for (const char *end : {"", "_total"}) {
            EXPECT_EQ(3, numberIn(events.back(), ("files" + std::string(end)).c_str())) << command.front() << end;
            EXPECT_EQ(51'200, numberIn(events.back(), ("bytes" + std::string(end)).c_str())) << command.front() << end;
        }
    }
}

TEST_F(ProgressLines, EachPhaseIsOneOfItsOwn) {
    ASSERT_EQ(0, ::mkdir(copy.c_str(), 0755));
    kit::writeFile(copy + "/old", "old");
    const std::string other = scratch / "other";
    using Phases = std::vector<std::string>;
    const auto phases = [&](const kit::Arguments &arguments, int64_t removed) {
        const ToolResult result = runTool(arguments);
        EXPECT_EQ(0, result.status) << result.err;
        Phases seen;
        const std::vector<Object> events = eventsOf(result.err);
        for (const Object &event : events) {
            json_object *phase = nullptr;
            EXPECT_TRUE(json_object_object_get_ex(event.get(), "phase", &phase));
            if (seen.empty() || seen.back() != json_object_get_string(phase)) {
                seen.emplace_back(json_object_get_string(phase));
            }
        }
        EXPECT_EQ(3, numberIn(events.back(), "files")) << arguments.front();
        EXPECT_EQ(3, numberIn(events.back(), "files_total")) << arguments.front();
        if (removed > 0) {
            EXPECT_EQ(removed, numberIn(events.back(), "removed")) << arguments.front();
        }
        return seen;
    };
    EXPECT_EQ((Phases{"copy", "sync", "remove", "sync"}),
              phases({"mirror", "-f", "--sync=volume", "--progress=json", tree, copy}, 1));
    EXPECT_EQ((Phases{"copy", "sync"}),
              phases({"copy", "-r", "--sync=volume", "--progress=json", tree, scratch / "third"}, 0));
    EXPECT_EQ((Phases{"copy", "compare", "remove"}), phases({"relocate", "-y", "--progress=json", tree, other}, 0));
    EXPECT_EQ(Phases{"remove"}, phases({"remove", "-rq", "--progress=json", other}, 5));
}

TEST_F(ProgressLines, EndWithWhatWasDoneWhenTheyAreStopped) {
    ASSERT_EQ(0, ::mkdir((scratch / "to").c_str(), 0755));
    ASSERT_EQ(0, ::mkdir((scratch / "to/two").c_str(), 0755));
    const ToolResult result = runTool({"copy", "-f", "--stop-on-error", "--json", "--progress=json", "-t",
                                       scratch / "to", tree + "/one", tree + "/in/two", tree + "/in/left.o"});
    EXPECT_EQ(1, result.status);
    std::istringstream lines(result.err);
    Object last;
    for (std::string line; std::getline(lines, line);) {
        last = line.starts_with('{') ? Object(json_tokener_parse(line.c_str()), &json_object_put) : last;
    }
    ASSERT_NE(nullptr, last);
    EXPECT_EQ(1, numberIn(last, "files")) << result.err;
    EXPECT_EQ(1000, numberIn(last, "bytes"));
    EXPECT_EQ(51'200, numberIn(last, "bytes_total"));
}

TEST_F(ProgressLines, EndWithoutTheFileThatWasUnderWayAtASignal) {
    std::optional<kit::SlowFile> slow;
    try {
        slow.emplace(10 << 20);
    } catch (const kit::Unavailable &missing) {
        GTEST_SKIP() << missing.reason;
    }
    kit::ToolOnTerminal tool({"copy", "--progress=json", "-t", scratch.path(), tree + "/one", slow->path()});
    ASSERT_TRUE(slow->waitedFor());
    ASSERT_TRUE(tool.catches(SIGTERM));
    tool.send(SIGTERM);
    ASSERT_TRUE(tool.takes(SIGTERM));
    slow->allowAll();
    const ToolResult result = tool.finish();
    EXPECT_EQ(128 + SIGTERM, result.status);
    const size_t at = result.out.rfind("{\"event\":\"progress\"");
    ASSERT_NE(std::string::npos, at);
    const Object last(json_tokener_parse(result.out.c_str() + at), &json_object_put);
    EXPECT_EQ(1, numberIn(last, "files")) << result.out;
    EXPECT_EQ(1000, numberIn(last, "bytes")) << result.out;
}

TEST_F(ProgressLines, TotalsAreOfWhatIsMeant) {
    const ToolResult result = runTool({"copy", "-r", "-T", "--progress", "json", "--exclude", "*.o", tree, copy});
    const std::vector<Object> events = eventsOf(result.err);
    ASSERT_LE(2U, events.size());
    EXPECT_EQ(2, numberIn(events.front(), "files_total"));
    EXPECT_EQ(1200, numberIn(events.front(), "bytes_total"));
    EXPECT_EQ(2, numberIn(events.back(), "files"));
    const ToolResult compared = runTool({"compare", "--progress", "json", "--exclude", "*.o", tree, copy});
    EXPECT_EQ(1200, numberIn(eventsOf(compared.err).front(), "bytes_total"));
}

TEST_F(ProgressLines, AreFewHoweverManyTheEntriesAre) {
    constexpr int files = 400;
    for (int number = 0; number < files; ++number) {
        kit::writeFile(tree + "/in/" + std::to_string(number), "");
    }
    const ToolResult result = runTool({"copy", "-rv", "-T", "--progress", "json", tree, copy});
    EXPECT_GT(files / 2U, eventsOf(result.err).size());
    EXPECT_EQ(files + 3, numberIn(eventsOf(result.err).back(), "files"));
}

TEST_F(ProgressLines, KindsAreChecked) {
    EXPECT_EQ(2, runTool({"copy", "--progress", "loud", tree, copy}).status);
    EXPECT_EQ("", runTool({"copy", "-r", "--progress=none", tree, copy}).err);
    EXPECT_EQ("", runTool({"copy", "-r", "--progress=json", "--no-progress", tree, scratch / "other"}).err);
}

} // namespace
