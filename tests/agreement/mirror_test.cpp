// After a mirror a comparison finds nothing, whatever stood at the destination, between volumes of several kinds; and
// the same command once more finds nothing to do.
#include "tests/agreement/random_tree.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/seeds.h"
#include "tests/kit/volumes.h"
#include "tests/tools/tool_process.h"
#include "tools/engine/compare/tree_comparison.h"
#include "tools/engine/report/names.h"

#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace {

using engine::LossClass;

class MirrorDifferences : public engine::ComparisonObserver {
  public:
    explicit MirrorDifferences(std::string &text) : m_text(text) {}
    bool stopped() const override { return false; }
    void loss(const std::string &first, const std::string &, const engine::Loss &loss) override {
        // What belongs to the system, and what is kept for nobody, does not go along. A file whose names have stores of
        // their own becomes several where a volume keeps those in the file itself.
        const bool expected = loss.cls == LossClass::not_carried || loss.cls == LossClass::hard_link;
        m_text += expected ? ""
                             ""
                           : engine::displayed(first) + ": " + loss.detail + "\n";
    }
    void extra(const std::string &second, engine::EntryKind) override {
        m_text += engine::displayed(second) + ": extra\n";
    }
    void same(const std::string &, const std::string &) override {}
    void compared(const std::string &, engine::EntryKind, int64_t) override {}
    void progress(int64_t) override {}

  private:
    std::string &m_text;
};

std::string differences(const std::string &first, const std::string &second) {
    std::string text;
    MirrorDifferences observer(text);
    engine::compare_trees(first, second, {}, observer);
    return text;
}

// An entry that no copy takes would keep everything from being removed; and what cannot be kept for an entry would be
// tried anew by each run.
void removeStrays(const std::string &directory) {
    const bool inStore = directory.find("/@eaDir/") != std::string::npos;
    for (const std::string &name : kit::namesIn(directory)) {
        const std::string path = directory + "/" + name;
        if (name == "@eaDir") {
            for (const std::string &kept : kit::namesIn(path)) {
                if (S_ISDIR(kit::statOf(path + "/" + kept).st_mode)) {
                    removeStrays(path + "/" + kept);
                }
            }
        } else if (name == "._stray" || (inStore && S_ISFIFO(kit::statOf(path).st_mode))) {
            ASSERT_EQ(0, ::unlink(path.c_str()));
        } else if (S_ISDIR(kit::statOf(path).st_mode)) {
            removeStrays(path);
        }
    }
}

class Mirrored : public kit::Behaviour, public ::testing::WithParamInterface<std::tuple<std::string, std::string>> {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_ROOT("to mount volumes");
    }
    static kit::Volume made(const std::string &kind) {
        constexpr uint64_t mebibyte = 1 << 20;
        return kind == "tmpfs" ? kit::Volume::tmpfs(2048 * mebibyte) : kit::Volume::loop(kind, 1024 * mebibyte);
    }
};

TEST_P(Mirrored, DestinationIsEqualWhateverStoodThere) {
    const auto &[fromKind, toKind] = GetParam();
    KIT_REQUIRE(from, made(fromKind));
    KIT_REQUIRE(to, made(toKind));
    for (const uint32_t seed : kit::seeds(12, 300)) {
        const std::string name = "tree" + std::to_string(seed);
        const std::string source = from.path() + "/" + name, copy = to.path() + "/" + name;
        agreement::make_tree(source, seed, {.lossless = true});
        removeStrays(source);
        agreement::make_tree(copy, seed % 3 == 0 ? seed : seed + 7, {.older = true});
        const kit::ToolResult run = kit::runTool({"mirror", "-f", "--specials", source, copy});
        EXPECT_EQ("", differences(source, copy)) << kit::repeat(seed) << "\n" << run.out << run.err;
        const kit::ToolResult again = kit::runTool({"mirror", "--specials", source, copy});
        EXPECT_TRUE(again.out.starts_with("0 files and ") && again.out.ends_with(" 0 removed\n"))
            << kit::repeat(seed) << "\n"
            << again.out << again.err;
        if (HasFailure()) {
            break;
        }
    }
    processAsNow();
}

const std::string kKinds[] = {"tmpfs", "ext4", "btrfs"};
INSTANTIATE_TEST_SUITE_P(Pairs, Mirrored, ::testing::Combine(::testing::ValuesIn(kKinds), ::testing::ValuesIn(kKinds)),
                         [](const auto &pair) { return std::get<0>(pair.param) + "To" + std::get<1>(pair.param); });

} // namespace
