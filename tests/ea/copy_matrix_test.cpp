// Every kind of store carried into every other: what arrives, what a move takes away, what comes back again, and that
// no failing call on the way loses the only copy.
#include "ea/ea.h"
#include "tests/ea/item_store.h"
#include "tests/kit/behaviour.h"

#include <array>
#include <cerrno>
#include <set>
#include <tuple>

namespace {

using namespace item_store;

constexpr std::array<int, 4> kKinds = {kAppleDouble, kNative, kEaDirectory, kFileEa};

enum class Case {
    nothing,
    finderInfo,
    emptyFork,
    forkOfOneByte,
    blankFork,
    largeFork,
    oneAttribute,
    fortyAttributes,
    largestValue,
    valueTooLarge,
    locked,
    extras,
    everything,
};
struct NamedCase {
    Case which;
    const char *name;
};
constexpr std::array kCases = {
    NamedCase{Case::nothing, "Nothing"},
    NamedCase{Case::finderInfo, "FinderInfo"},
    NamedCase{Case::emptyFork, "EmptyFork"},
    NamedCase{Case::forkOfOneByte, "ForkOfOneByte"},
    NamedCase{Case::blankFork, "BlankFork"},
    NamedCase{Case::largeFork, "LargeFork"},
    NamedCase{Case::oneAttribute, "OneAttribute"},
    NamedCase{Case::fortyAttributes, "FortyAttributes"},
    NamedCase{Case::largestValue, "LargestValue"},
    NamedCase{Case::valueTooLarge, "ValueTooLarge"},
    NamedCase{Case::locked, "Locked"},
    NamedCase{Case::extras, "Extras"},
    NamedCase{Case::everything, "Everything"},
};

Items itemsOf(Case which) {
    Items items;
    switch (which) {
    case Case::nothing:
    case Case::emptyFork:
        break;
    case Case::finderInfo:
        items.finderInfo = kit::pattern(32, 7);
        break;
    case Case::forkOfOneByte:
        items.fork = "f";
        break;
    case Case::blankFork:
        items.fork = kBlank;
        break;
    case Case::largeFork:
        items.fork = kit::pattern(5 << 20, 3);
        break;
    case Case::oneAttribute:
        items.attributes["user.colour"] = "green";
        break;
    case Case::fortyAttributes:
        for (int number = 0; number < 40; ++number) {
            items.attributes["user.a" + std::to_string(number)] =
                kit::pattern(static_cast<size_t>(number), static_cast<uint32_t>(number));
        }
        break;
    case Case::largestValue:
        items.attributes = {{"user.large", kit::pattern(65536, 5)}, {"user.small", "s"}};
        break;
    case Case::valueTooLarge:
        items.attributes = {{"user.large", kit::pattern(65537, 5)}, {"user.small", "s"}};
        break;
    case Case::locked:
        items.finderInfo = kit::pattern(32, 9);
        items.locked = true;
        break;
    case Case::extras:
        items.extras = {{"thumb.jpg", kit::pattern(9000, 2)}, {"line\nfeed", "x"}, {"empty", ""}};
        break;
    case Case::everything:
        items = {kit::pattern(32, 7),
                 kit::pattern(1000, 3),
                 {{"user.a", "one"}, {"user.b", std::string("t\0o", 3)}},
                 {{"thumb.jpg", "picture"}},
                 false};
        break;
    }
    return items;
}

bool hasOversize(const Items &items) {
    for (const auto &[key, value] : items.attributes) {
        if (value.size() > 65536) {
            return true;
        }
    }
    return false;
}

// Resource files are rewritten between the kinds, and a fork left blank is not worth carrying then.
bool convertsResource(int from, int to) {
    const bool same = from == to || (from == kFileEa && to == kEaDirectory);
    return !same && from != kNative && to != kNative;
}

// What must arrive.
Items arriving(int from, int to, Items items) {
    if (to == kNative) {
        std::erase_if(items.attributes, [](const auto &one) { return one.second.size() > 65536; });
    }
    if (items.fork == kBlank && convertsResource(from, to)) {
        items.fork.clear();
    }
    if (from == kAppleDouble || to == kAppleDouble) {
        items.extras.clear();
    }
    return items;
}

// What a move leaves behind at the source.
Items remaining(int from, int to, const Items &items) {
    Items left;
    left.locked = items.locked; // the file's own state
    if (from == kNative) {      // the file's own attributes go with the file
        left = items;
        left.extras.clear();
    }
    if (from == kFileEa && to == kFileEa) { // so does the metadata attribute between volumes that have it
        left.finderInfo = items.finderInfo;
    }
    const bool skipped = to == kNative && hasOversize(items);
    if (skipped || (from == kFileEa && to == kAppleDouble)) {
        left.attributes = items.attributes;
    }
    if ((from == kAppleDouble || to == kAppleDouble) && !(from == kEaDirectory && to == kAppleDouble)) {
        left.extras = items.extras;
    }
    return left;
}

class Matrix : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        KIT_NEEDS_TO_MAKE_STORES();
    }
    // Two volumes in `root`, the source with its items.
    void prepare(const std::string &root, int fromKind, int toKind, const Items &items) {
        from = {root + "/from", "file.txt"};
        to = {root + "/to", "file.txt"};
        makeVolume(from.directory, fromKind);
        makeVolume(to.directory, toKind);
        makeFile(from, fromKind);
        makeFile(to, toKind);
        build(from, fromKind, items);
        ASSERT_EQ(items, read(from, fromKind)) << "the kit's own store";
    }
    int copy(bool move, bool fullDirectory = false) const {
        return VEXOEACopy(from.path().c_str(), to.path().c_str(), move ? 1 : 0, fullDirectory ? 1 : 0, -1, -1, 0, 0);
    }

    Place from, to;
};

class CopyMatrix : public Matrix, public testing::WithParamInterface<std::tuple<int, int, bool, NamedCase>> {};

TEST_P(CopyMatrix, CarriesEveryItem) {
    const auto [fromKind, toKind, move, which] = GetParam();
    const Items items = itemsOf(which.which);
    if (fromKind == kNative && hasOversize(items)) {
        return; // no file can have such an attribute
    }
    KIT_REQUIRE(volume, kit::Volume::tmpfs(64 << 20));
    processAsNow();
    prepare(volume.path(), fromKind, toKind, items);
    if (which.which == Case::emptyFork && fromKind != kNative) { // the store is there and holds nothing
        makeDirectories(from);
        kit::writeFile(fromKind == kAppleDouble ? from.dotFile() : from.resource(), resourceBytes("", ""));
    }
    EXPECT_EQ(0, copy(move)) << kit::Log::all() << std::hex << VLIBCErrGet() << VLIBCErrorGetFile() << std::dec
                             << VLIBCErrorGetLine();
    EXPECT_EQ(arriving(fromKind, toKind, items), read(to, toKind)) << kit::Log::all();
    EXPECT_EQ(move ? remaining(fromKind, toKind, items) : items, read(from, fromKind)) << kit::Log::all();
    if (move && fromKind == kAppleDouble && !(toKind == kNative && hasOversize(items))) {
        EXPECT_FALSE(kit::exists(from.dotFile()));
    }
    if (move && fromKind != kAppleDouble) {
        EXPECT_FALSE(kit::exists(from.resource()));
    }
    for (const kit::LogLine &line : kit::Log::lines()) {
        EXPECT_TRUE(line.body.starts_with("65537 exceed xattr maiximal size (65536), ignore copy ea user.large ["))
            << line.text;
    }
}

std::string matrixName(const testing::TestParamInfo<CopyMatrix::ParamType> &info) {
    const auto [fromKind, toKind, move, which] = info.param;
    return std::string(name(fromKind)) + "To" + name(toKind) + (move ? "Move" : "Copy") + which.name;
}
INSTANTIATE_TEST_SUITE_P(All, CopyMatrix,
                         testing::Combine(testing::ValuesIn(kKinds), testing::ValuesIn(kKinds), testing::Bool(),
                                          testing::ValuesIn(kCases)),
                         matrixName);

class CopyPair : public Matrix, public testing::WithParamInterface<std::tuple<int, int>> {};
std::string pairName(const testing::TestParamInfo<CopyPair::ParamType> &info) {
    return std::string(name(std::get<0>(info.param))) + "To" + name(std::get<1>(info.param));
}

TEST_P(CopyPair, ComesBackAsItWas) {
    const auto [fromKind, toKind] = GetParam();
    Items items = itemsOf(Case::everything);
    prepare(scratch.path(), fromKind, toKind, items);
    const Place back{scratch / "back", "file.txt"};
    makeVolume(back.directory, fromKind);
    makeFile(back, fromKind);
    ASSERT_EQ(0, copy(false)) << kit::Log::all();
    ASSERT_EQ(0, VEXOEACopy(to.path().c_str(), back.path().c_str(), 0, 0, -1, -1, 0, 0)) << kit::Log::all();
    EXPECT_EQ(arriving(toKind, fromKind, arriving(fromKind, toKind, items)), read(back, fromKind));
}

TEST_P(CopyPair, FullDirectoryCarriesTheRestBetweenAllKinds) {
    const auto [fromKind, toKind] = GetParam();
    const Items items = itemsOf(Case::everything);
    for (const bool move : {false, true}) {
        const std::string root = scratch / (move ? "move" : "copy");
        ::mkdir(root.c_str(), 0755);
        prepare(root, fromKind, toKind, items);
        EXPECT_EQ(0, copy(move, true)) << kit::Log::all();
        EXPECT_EQ(items.extras, read(to, toKind).extras) << move;
        EXPECT_EQ(move, read(from, fromKind).extras.empty()) << move;
    }
}

// What a move gives up on purpose: the entries of the file's own directory, which is removed at the source whether or
// not an entry of it could be copied or its place be made, and which an AppleDouble volume has no place for.
bool givenUp(const std::string &item) {
    return item == "extra";
}

struct Step {
    const char *function;
    int error;
};
constexpr std::array kSteps = {
    Step{"open", EMFILE},
    Step{"open", EACCES},
    Step{"read", EIO},
    Step{"pread", EIO},
    Step{"write", ENOSPC},
    Step{"pwrite", ENOSPC},
    Step{"lseek", EIO},
    Step{"fstat", EIO},
    Step{"stat", EIO},
    Step{"stat", EACCES},
    Step{"lstat", EIO},
    Step{"access", EACCES},
    Step{"rename", EIO},
    Step{"rename", EXDEV},
    Step{"unlink", EACCES},
    Step{"remove", EACCES},
    Step{"rmdir", EACCES},
    Step{"mkdir", ENOSPC},
    Step{"chmod", EPERM},
    Step{"opendir", EMFILE},
    Step{"readdir", EIO},
    Step{"getxattr", EIO},
    Step{"setxattr", ENOSPC},
    Step{"listxattr", EIO},
    Step{"removexattr", EIO},
    Step{"ftruncate", EIO},
    Step{"fcntl", EAGAIN},
    Step{"close", EIO},
    Step{"fopen", EMFILE},
    Step{"VEXOGetFSType", EIO},
    Step{"VLIBCFileStat", EIO},
    Step{"VLIBCSzListPush", ENOMEM},
    Step{"VLIBCKernelAttrCall", EPERM},
};

class EveryStep : public CopyPair {
  protected:
    // The names of the items that neither side has any more.
    static std::set<std::string> lost(const Items &items, const Items &source, const Items &destination) {
        std::set<std::string> names;
        if (source.finderInfo != items.finderInfo && destination.finderInfo != items.finderInfo) {
            names.insert("Finder Info");
        }
        if (source.fork != items.fork && destination.fork != items.fork) {
            names.insert("fork");
        }
        for (const auto &[key, value] : items.attributes) {
            const auto has = [&, key = key, value = value](const Items &side) {
                return side.attributes.contains(key) && side.attributes.at(key) == value;
            };
            if (!has(source) && !has(destination)) {
                names.insert(key);
            }
        }
        if (source.extras != items.extras && destination.extras != items.extras) {
            names.insert("extra");
        }
        return names;
    }
    // The file-EA source keeps Finder Info in two places, of which either will do.
    static Items all(const Place &place, int kind) {
        Items items = read(place, kind);
        if (kind == kFileEa && items.finderInfo.empty()) {
            items.finderInfo = read(place, kEaDirectory).finderInfo;
        }
        return items;
    }
};

TEST_P(EveryStep, LosesNothingWhenItFails) {
    const auto [fromKind, toKind] = GetParam();
    const Items items = itemsOf(Case::everything);
    int number = 0;
    for (const Step &step : kSteps) {
        for (int skip = 0; skip < 300; ++skip) {
            const std::string root = scratch / std::to_string(number++);
            ::mkdir(root.c_str(), 0755);
            prepare(root, fromKind, toKind, items);
            kit::Faults::add({.function = step.function, .error = step.error, .skip = skip});
            const int result = copy(true);
            const int calls = kit::Faults::count(step.function);
            kit::Faults::reset();
            if (calls <= skip) {
                EXPECT_EQ(0, result) << step.function;
                break;
            }
            const std::set<std::string> names = lost(items, all(from, fromKind), all(to, toKind));
            for (const std::string &item : names) {
                EXPECT_TRUE(givenUp(item)) << item << " is lost when call " << skip + 1 << " of " << step.function
                                           << " fails with " << step.error << ", result " << result << "\n"
                                           << kit::Log::all();
            }
            kit::Log::reset();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, CopyPair, testing::Combine(testing::ValuesIn(kKinds), testing::ValuesIn(kKinds)),
                         pairName);
INSTANTIATE_TEST_SUITE_P(All, EveryStep, testing::Combine(testing::ValuesIn(kKinds), testing::ValuesIn(kKinds)),
                         pairName);

} // namespace
