// vexofileop ea, stopped before each of its system calls, and with each of them failing: what else a file has in its
// store is as it was, what was to change is old or new, and running it again finishes it and leaves nothing behind.
//
// Without VEXO_FULL in the environment a sample of the points is taken; with it all of them.
#include "ea/ea.h"
#include "tests/ea/adouble_bytes.h"
#include "tests/ea/stream_bytes.h"
#include "tests/faults/system_calls.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using kit::runTool;
using namespace std::string_literals;

constexpr size_t kSample = 10;
const std::string kFork = kit::pattern(9'000, 7);
const std::string kFinderInfo = "TEXTttxt" + std::string(24, '\x11');

// What lies in a store file, by its bytes.
struct Content {
    std::map<std::string, std::string> attributes;
    std::string finderInfo, fork;
    bool sound = false;
};

// A resource file beside the stream, which no change of that touches.
std::string resourceBytes() {
    return adouble_bytes::header({{9, 50, 32}, {2, 82, 4}}, 82) + "fork";
}

Content contentOf(const std::string &path) {
    Content content;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    VEXOEAS *stream = fd < 0 ? nullptr : VEXOEASOpen(fd, F_RDLCK);
    if (stream != nullptr) {
        const std::string bytes = kit::readFile(path);
        content.sound = true;
        for (int at = 0; at < stream->header.attrCount; ++at) {
            const VEXOEASRecord &record = stream->records[at];
            content.sound &= uint64_t{record.offset} + record.length <= bytes.size();
            content.attributes[record.name] = content.sound ? bytes.substr(record.offset, record.length) : "";
        }
        content.finderInfo.assign(reinterpret_cast<const char *>(stream->header.finderInfo), 32);
        uint32_t offset = 0, length = 0;
        content.sound &= EASGetRForkLocation(stream, &offset, &length) == 0;
        content.fork = offset <= bytes.size() ? bytes.substr(offset, length) : "";
        VEXOEASClose(stream);
    }
    if (fd >= 0) {
        ::close(fd);
    }
    return content;
}

struct Case {
    const char *name;
    int kind;
    kit::Arguments words;             // between "ea" and the file: "set", "rm"
    std::optional<std::string> value; // what "the-one" is to have
    bool isThere = true;
};
void PrintTo(const Case &one, std::ostream *out) {
    *out << one.name;
}

// A file with a store that has Finder Info, a fork and three attributes, of which "the-one" changes.
class Scene {
  public:
    explicit Scene(const Case &one, const std::string &directory = {})
        : m_case(one), m_directory(directory.empty() ? m_scratch.path() : directory) {
        ::setenv("VEXOFILEOP_FSTYPES", (m_directory + "=" + std::to_string(one.kind)).c_str(), 1);
        kit::writeFile(file(), "data", 0600);
        stream::Attributes attributes = {{"first", kit::pattern(300, 1)}, {"last", kit::pattern(500, 2)}};
        if (one.isThere) {
            attributes.insert(attributes.begin() + 1, {"the-one", kit::pattern(200, 3)});
        }
        if (one.kind != 0) {
            ::mkdir((m_directory + "/@eaDir").c_str(), 0777);
        }
        kit::writeFile(store(), stream::bytes(attributes, static_cast<uint32_t>(kFork.size()), kFinderInfo) + kFork,
                       0640);
        if (one.kind != 0) {
            kit::writeFile(resource(), resourceBytes());
        }
        kit::setAttribute(store(), "user.mark", "of the store file");
        if (isCopy()) {
            kit::writeFile(source(), "data of the source");
            kit::writeFile(sourceStore(), bytesOfSource());
        }
        m_before = contentOf(store());
    }
    ~Scene() { ::unsetenv("VEXOFILEOP_FSTYPES"); }
    Scene(const Scene &) = delete;
    Scene &operator=(const Scene &) = delete;

    std::string file() const { return m_directory + "/photo.jpg"; }
    std::string store() const {
        return m_directory + (m_case.kind == 0 ? "/._photo.jpg" : "/@eaDir/photo.jpg@VexoEAStream");
    }
    std::string resource() const { return m_directory + "/@eaDir/photo.jpg@VexoResource"; }
    std::string source() const { return m_directory + "/source"; }
    std::string sourceStore() const {
        return m_directory + (m_case.kind == 0 ? "/._source" : "/@eaDir/source@VexoEAStream");
    }
    kit::Arguments arguments() const {
        if (isCopy()) {
            kit::Arguments all = {"ea"};
            all.insert(all.end(), m_case.words.begin(), m_case.words.end());
            all.insert(all.end(), {source(), file()});
            return all;
        }
        kit::Arguments all = {"ea"};
        all.insert(all.end(), m_case.words.begin(), m_case.words.end());
        all.insert(all.end(), {file(), "the-one"});
        if (m_case.value) {
            all.push_back(*m_case.value);
        }
        return all;
    }
    // What is wrong; empty: nothing. `done`: the change has to be there.
    std::string wrong(bool done) const {
        if ((kit::statOf(file()).st_mode & 07777) != 0600) {
            return "the file has another mode"; // also for the moment in which it was stopped
        }
        const Content now = contentOf(store());
        if (!now.sound) {
            return "the store cannot be read";
        }
        for (const auto &name : {"first"s, "last"s}) {
            if (!now.attributes.contains(name) || now.attributes.at(name) != m_before.attributes.at(name)) {
                return "attribute " + name + " is not what it was";
            }
        }
        if (now.finderInfo != m_before.finderInfo || now.fork != kFork) {
            return now.fork == kFork ? "the Finder Info is another" : "the fork is another";
        }
        const bool isNew = valueIn(now) == m_case.value;
        if (!isNew && (done || valueIn(now) != valueIn(m_before))) {
            return "the one attribute is neither old nor new, or not done";
        }
        const struct stat status = kit::statOf(store());
        if ((status.st_mode & 07777) != 0640 || kit::attribute(store(), "user.mark") != "of the store file") {
            return "the store file has another mode, or lost its attribute";
        }
        const bool mayBeGone = m_case.words.back() == "--move" && isNew && now.attributes.contains("brought");
        if (isCopy() && !mayBeGone && kit::readFile(sourceStore()) != bytesOfSource()) {
            return "the source's store is another";
        }
        return m_case.kind == 0 || kit::readFile(resource()) == resourceBytes() ? "" : "the resource file is another";
    }
    bool hasPrivateNames() const {
        const auto all = std::filesystem::recursive_directory_iterator(m_directory);
        return std::any_of(begin(all), end(all), [](const auto &entry) {
            return entry.path().filename().string().find(".vexofileop-") != std::string::npos;
        });
    }

  private:
    bool isCopy() const { return m_case.words.front() == "copy"; }
    std::string bytesOfSource() const { return stream::bytes({{"brought", "1"}, {"the-one", *m_case.value}}); }
    static std::optional<std::string> valueIn(const Content &content) {
        const auto found = content.attributes.find("the-one");
        return found == content.attributes.end() ? std::nullopt : std::optional(found->second);
    }
    kit::ScratchDirectory m_scratch;
    Case m_case;
    std::string m_directory;
    Content m_before;
};

faults::Outcome supervised(const faults::Plan &plan, const kit::Arguments &arguments) {
    return faults::supervise(plan, [&](faults::Window &window) {
        const int nothing = ::open("/dev/null", O_RDWR);
        ::dup2(nothing, STDOUT_FILENO);
        ::dup2(nothing, STDERR_FILENO);
        std::string program = VEXOFILEOP_TOOL;
        std::vector<char *> pointers = {program.data()};
        for (const std::string &argument : arguments) {
            pointers.push_back(const_cast<char *>(argument.c_str()));
        }
        pointers.push_back(nullptr);
        window.open();
        ::execv(program.c_str(), pointers.data());
        ::_exit(126);
    });
}

// The points from the first call on that names something of the scene: what is before loads the program.
std::vector<size_t> pointsOf(const std::vector<faults::SystemCall> &calls, const std::string &below) {
    const auto first = std::find_if(calls.begin(), calls.end(),
                                    [&](const faults::SystemCall &call) { return call.path.starts_with(below); });
    std::vector<size_t> points;
    const auto from = static_cast<size_t>(first - calls.begin());
    const size_t step = std::getenv("VEXO_FULL") != nullptr ? 1 : std::max<size_t>(1, (calls.size() - from) / kSample);
    for (size_t at = from; at < calls.size(); at += step) {
        points.push_back(at);
    }
    return points;
}

class EaSweep : public testing::TestWithParam<Case> {
  protected:
    void SetUp() override {
        KIT_NEEDS_TO_MAKE_STORES();
        if (const std::string reason = faults::unavailable(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
    }
    static std::vector<faults::SystemCall> calls() {
        const Scene scene(GetParam());
        faults::Outcome outcome = supervised({}, scene.arguments());
        EXPECT_EQ(0, WEXITSTATUS(outcome.status));
        EXPECT_EQ("", scene.wrong(true));
        // Each run has a directory of its own.
        const std::string directory = std::filesystem::path(scene.file()).parent_path();
        for (faults::SystemCall &call : outcome.calls) {
            call.path = call.path.starts_with(directory) ? "HERE" + call.path.substr(directory.size()) : call.path;
        }
        return outcome.calls;
    }
    // What became of a stopped or failing run, and of the next one.
    static void check(const Scene &scene, const faults::Plan &plan, const std::string &point) {
        const faults::Outcome outcome = supervised(plan, scene.arguments());
        ASSERT_FALSE(outcome.hung) << point;
        const bool succeeded = WIFEXITED(outcome.status) && WEXITSTATUS(outcome.status) == 0;
        EXPECT_EQ("", scene.wrong(succeeded)) << point;
        const bool undone = !GetParam().value && contentOf(scene.store()).attributes.contains("the-one");
        if (GetParam().value || undone) {
            EXPECT_EQ(0, runTool(scene.arguments()).status) << point;
        }
        EXPECT_EQ("", scene.wrong(true)) << "again, after " << point;
        EXPECT_FALSE(scene.hasPrivateNames()) << point;
    }
};

TEST_P(EaSweep, KilledBeforeACallLosesNothing) {
    const std::vector<faults::SystemCall> made = calls();
    for (const size_t at : pointsOf(made, "HERE")) {
        const Scene scene(GetParam());
        check(scene, faults::planAt(faults::Plan::Action::kill, made, at),
              "a kill before " + faults::nameOf(made[at]) + " " + made[at].path);
    }
}

TEST_P(EaSweep, FailingCallLosesNothing) {
    const std::vector<faults::SystemCall> made = calls();
    for (const size_t at : pointsOf(made, "HERE")) {
        for (const int error : faults::plausibleErrors(made[at])) {
            const Scene scene(GetParam());
            check(scene, faults::planAt(faults::Plan::Action::fail, made, at, error),
                  faults::nameOf(made[at]) + " " + made[at].path + " with " + std::strerror(error));
        }
    }
}

TEST_P(EaSweep, FullVolumeLosesNothing) {
    KIT_REQUIRE(volume, kit::Volume::tmpfs(256 << 10));
    const Scene scene(GetParam(), volume.path());
    // Filled to the last page.
    const int fd = ::open((volume / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    while (::write(fd, kFork.data(), 4096) > 0) {
    }
    ::close(fd);
    const kit::ToolResult result = runTool(scene.arguments());
    EXPECT_EQ(2, result.status) << result.err;
    EXPECT_NE(std::string::npos, result.err.find("o space left")) << result.err;
    EXPECT_EQ("", scene.wrong(false));
    EXPECT_FALSE(scene.hasPrivateNames());
    ASSERT_EQ(0, ::unlink((volume / "filler").c_str()));
    EXPECT_EQ(0, runTool(scene.arguments()).status);
    EXPECT_EQ("", scene.wrong(true));
}

// Eight attributes of the old layout, of which a stopped run before left three in a stream.
class UpgradeScene {
  public:
    UpgradeScene() {
        ::setenv("VEXOFILEOP_FSTYPES", (m_scratch.path() + "=2").c_str(), 1);
        kit::writeFile(file(), "data");
        ::mkdir((m_scratch / "@eaDir").c_str(), 0777);
        ::mkdir(old().c_str(), 0777);
        for (char name = 'a'; name <= 'h'; ++name) {
            kit::writeFile(old() + "/" + name, std::string(40, name));
        }
        kit::writeFile(store(), stream::bytes({{"b", std::string(40, 'b')}, {"c", std::string(40, 'c')}}));
    }
    ~UpgradeScene() { ::unsetenv("VEXOFILEOP_FSTYPES"); }
    UpgradeScene(const UpgradeScene &) = delete;
    UpgradeScene &operator=(const UpgradeScene &) = delete;
    std::string directory() const { return m_scratch.path(); }
    std::string file() const { return m_scratch / "photo.jpg"; }
    kit::Arguments arguments() const { return {"ea", "upgrade", file()}; }
    // Each attribute is at one of its two places, or at both.
    bool hasAll() const {
        const Content content = contentOf(store());
        bool all = content.sound;
        for (char name = 'a'; name <= 'h'; ++name) {
            const std::string place = old() + "/" + name;
            const auto found = content.attributes.find(std::string(1, name));
            const bool converted = found != content.attributes.end() && found->second == std::string(40, name);
            all &= converted || (kit::exists(place) && kit::readFile(place) == std::string(40, name));
        }
        return all;
    }
    bool isDone() const {
        return hasAll() && kit::namesIn(m_scratch / "@eaDir") == std::vector<std::string>{"photo.jpg@VexoEAStream"};
    }

  private:
    std::string old() const { return m_scratch / "@eaDir/photo.jpg"; }
    std::string store() const { return m_scratch / "@eaDir/photo.jpg@VexoEAStream"; }
    kit::ScratchDirectory m_scratch;
};

TEST(EaUpgradeSweep, StoppedOneLosesNothingAndTheNextOneFinishes) {
    KIT_NEEDS_TO_MAKE_STORES();
    if (const std::string reason = faults::unavailable(); !reason.empty()) {
        GTEST_SKIP() << reason;
    }
    std::vector<faults::SystemCall> made;
    std::vector<size_t> points;
    {
        const UpgradeScene scene;
        made = supervised({}, scene.arguments()).calls;
        points = pointsOf(made, scene.directory());
        ASSERT_TRUE(scene.isDone());
    }
    for (const size_t at : points) {
        std::vector<faults::Plan> plans = {faults::planAt(faults::Plan::Action::kill, made, at)};
        for (const int error : faults::plausibleErrors(made[at])) {
            plans.push_back(faults::planAt(faults::Plan::Action::fail, made, at, error));
        }
        for (const faults::Plan &plan : plans) {
            const UpgradeScene scene;
            const std::string point = faults::nameOf(made[at]) + " " + made[at].path +
                                      (plan.error == 0 ? " kill" : std::strerror(plan.error));
            const faults::Outcome outcome = supervised(plan, scene.arguments());
            ASSERT_FALSE(outcome.hung) << point;
            EXPECT_TRUE(scene.hasAll()) << point;
            EXPECT_EQ(0, runTool(scene.arguments()).status) << point;
            EXPECT_TRUE(scene.isDone()) << point;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Changes, EaSweep,
                         testing::Values(Case{"SetNewInStream", 2, {"set"}, std::string(100, 'n'), false},
                                         Case{"SetLongerInStream", 2, {"set"}, std::string(6'000, 'l')},
                                         Case{"SetShorterInStream", 2, {"set"}, "short"}, //
                                         Case{"RmInStream", 2, {"rm"}, std::nullopt},
                                         Case{"SetNewInDouble", 0, {"set"}, std::string(6'000, 'n'), false},
                                         Case{"SetLongerInDouble", 0, {"set"}, std::string(6'000, 'l')},
                                         Case{"SetShorterInDouble", 0, {"set"}, "short"}, //
                                         Case{"RmInDouble", 0, {"rm"}, std::nullopt},
                                         Case{"CopyToStream", 2, {"copy"}, std::string(6'000, 'c')},
                                         Case{"CopyToDouble", 0, {"copy"}, std::string(6'000, 'c')},
                                         Case{"MoveToStream", 2, {"copy", "--move"}, std::string(6'000, 'm')},
                                         Case{"MoveToDouble", 0, {"copy", "--move"}, std::string(6'000, 'm')}),
                         [](const auto &test) { return std::string(test.param.name); });

} // namespace
