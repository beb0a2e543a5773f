// A seed says the same tree wherever it is drawn: a failure in the build of one compiler is repeated in another's.
#include "tests/agreement/random_tree.h"
#include "tests/kit/behaviour.h"
#include "tests/kit/fingerprint.h"
#include "tests/kit/volumes.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <string>

namespace {

class RandomTree : public kit::Behaviour {};

// FNV-1a
void add(uint64_t &digest, const std::string &text) {
    constexpr uint64_t prime = 0x100000001b3;
    for (const char one : text + '\n') {
        digest = (digest ^ static_cast<unsigned char>(one)) * prime;
    }
}

// A generator that is changed on purpose makes another number, which is the same with each compiler.
TEST_F(RandomTree, IsTheSameFromEveryCompiler) {
    KIT_NEEDS_ROOT("to mount volumes");
    constexpr uint64_t expected = 14058657214485488342U;
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    uint64_t digest = 0xcbf29ce484222325;
    constexpr uint32_t seeds = 12;
    for (uint32_t seed = 1; seed <= seeds; ++seed) {
        const std::string tree = volume / std::to_string(seed);
        agreement::make_tree(tree, seed, {.older = seed % 4 == 0});
        const kit::Fingerprint made = kit::Fingerprint::of(tree);
        for (const auto &[path, print] : made.entries()) {
            add(digest, path);
            for (const auto &[name, value] : print) {
                // Those of stores are of now.
                const bool time = name == "modified" || name == "accessed" || name == "created";
                add(digest, time || name == "xattrs" ? name : name + value);
            }
        }
    }
    EXPECT_EQ(expected, digest);
}

} // namespace
