#include "tests/tools/swept_scene.h"

#include "tests/ea/stream_bytes.h"
#include "tests/tools/independent_check.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace swept {

using kit::Arguments;
using kit::runTool;
using kit::ToolResult;

SweptScene::SweptScene(const std::string &volume)
    : copy(volume.empty() ? scratch / "copy" : volume + scratch.path().substr(scratch.path().rfind('/'))) {
    const std::string types = scratch.path() + "=1" + (volume.empty() ? "" : ":" + volume + "=1");
    ::setenv("VEXOFILEOP_FSTYPES", types.c_str(), 1); // NOLINT(concurrency-mt-unsafe)
    std::filesystem::create_directories(tree + "/in/@eaDir");
    std::filesystem::create_directories(tree + "/@eaDir");
    kit::writeFile(tree + "/one", "first");
    kit::writeFile(tree + "/in/two", "second");
    kit::setAttribute(tree + "/in/two", "user.own", "of the file");
    EXPECT_EQ(0, ::link((tree + "/one").c_str(), (tree + "/in/other").c_str()));
    EXPECT_EQ(0, ::symlink("one", (tree + "/link").c_str()));
    kit::writeFile(tree + "/@eaDir/one@VexoEAStream", stream::bytes({{"user.note", "of one"}}));
    kit::writeFile(tree + "/in/@eaDir/two@VexoEAStream", stream::bytes({{"user.note", "of two"}}));
    kit::writeFile(tree + "/@eaDir/in@VexoEAStream", stream::bytes({{"user.note", "of in"}}));
    EXPECT_EQ(0, ::chmod((tree + "/@eaDir").c_str(), 0777));
    EXPECT_EQ(0, ::chmod((tree + "/in/@eaDir").c_str(), 0777));
    m_before = kit::Fingerprint::of(tree);
}

SweptScene::~SweptScene() {
    ::unsetenv("VEXOFILEOP_FSTYPES"); // NOLINT(concurrency-mt-unsafe)
    std::error_code ignored;
    std::filesystem::remove_all(copy, ignored);
}

void SweptScene::run(const Arguments &arguments, int status) const {
    const ToolResult result = runTool(arguments);
    EXPECT_EQ(status, result.status) << result.out << result.err;
}

void SweptScene::keep_reference() const {
    // NOLINTNEXTLINE(cert-env33-c,concurrency-mt-unsafe): a program of the machine
    EXPECT_EQ(0, std::system(("cp -a " + tree + " " + reference).c_str()));
}

std::string SweptScene::difference(const std::string &one, const std::string &other) {
    // Another program's copy has times of its own at which it was made.
    const bool made = one.find("/reference") != std::string::npos;
    const ToolResult compared = runTool(made ? Arguments{"compare", "--ignore", "creation-time", one, other}
                                             : Arguments{"compare", one, other});
    return (compared.status == 0 ? "" : compared.out + compared.err) + kit::independent_differences(one, other);
}

std::string SweptScene::left_over() const {
    std::string text;
    for (const std::string &place : {scratch.path(), copy}) {
        for (const auto &entry : kit::exists(place) ? std::filesystem::recursive_directory_iterator(place)
                                                    : std::filesystem::recursive_directory_iterator()) {
            const std::string name = entry.path().filename();
            text += name.starts_with(".vexofileop") ? entry.path().string() + "; " : "";
        }
    }
    return text;
}

std::string SweptScene::holds(const std::string &path, const std::string &content) {
    return kit::exists(path) && kit::readFile(path) == content ? "" : path + " is not what it was; ";
}

std::string SweptScene::lost_of_both() const {
    std::string text;
    const std::pair<const char *, std::string> pieces[] = {
        {"/one", "first"},
        {"/in/two", "second"},
        {"/in/other", "first"},
        {"/@eaDir/one@VexoEAStream", stream::bytes({{"user.note", "of one"}})},
        {"/in/@eaDir/two@VexoEAStream", stream::bytes({{"user.note", "of two"}})},
        {"/@eaDir/in@VexoEAStream", stream::bytes({{"user.note", "of in"}})}};
    for (const auto &[name, content] : pieces) {
        const bool there = holds(tree + name, content).empty() || holds(copy + name, content).empty();
        text += there ? "" : std::string(name) + " is whole nowhere; ";
    }
    const std::string two = holds(copy + "/in/two", "second").empty() ? copy + "/in/two" : tree + "/in/two";
    text += kit::exists(two) && kit::attribute(two, "user.own") == "of the file" ? "" : "an attribute is lost; ";
    return text;
}

faults::Outcome supervised(const Arguments &arguments, const faults::Plan &plan) {
    return faults::supervise(plan, [&](faults::Window &window) {
        std::vector<std::string> words = arguments;
        words.insert(words.begin(), VEXOFILEOP_TOOL);
        std::vector<char *> pointers;
        for (std::string &word : words) {
            pointers.push_back(word.data());
        }
        pointers.push_back(nullptr);
        const int nowhere = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
        ::dup2(nowhere, STDOUT_FILENO);
        ::dup2(nowhere, STDERR_FILENO);
        window.open();
        ::execv(VEXOFILEOP_TOOL, pointers.data());
        ::_exit(127);
    });
}

} // namespace swept
