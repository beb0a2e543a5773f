// What a file has in its store, on volumes that no machine here has: Apple's names as native attributes, resource forks
// that the file system shows.
#include "tools/engine/store/store.h"

#include "tests/kit/behaviour.h"
#include "tools/engine/report/failure.h"

namespace {

using engine::Store;

class NativeStore : public kit::Behaviour {
  protected:
    void SetUp() override {
        kit::Behaviour::SetUp();
        kit::PlatformDouble::setType(scratch.path(), 7);
        kit::NativeDouble::setVolume(scratch.path());
        kit::ForkDouble::make(file(), "a fork of 23 bytes, yes");
        kit::setAttribute(file(), "com.apple.FinderInfo", std::string(32, 'F'));
    }
    std::string file() const { return scratch / "file"; }
    std::vector<std::string> listed() const {
        std::vector<std::string> rows;
        for (const Store::Attribute &attribute : Store(file()).list()) {
            rows.push_back(attribute.name + " " + std::to_string(attribute.size));
        }
        return rows;
    }
};

TEST_F(NativeStore, ResourceForkIsListedWithItsLength) {
    EXPECT_EQ((std::vector<std::string>{"com.apple.FinderInfo 32", "com.apple.ResourceFork 23"}), listed());
}

TEST_F(NativeStore, EmptyForkIsNotListed) {
    kit::writeFile(kit::ForkDouble::forkOf(file()), "");
    EXPECT_EQ((std::vector<std::string>{"com.apple.FinderInfo 32"}), listed());
}

TEST_F(NativeStore, ForkIsReadWrittenAndRemovedByItsName) {
    const Store store(file());
    EXPECT_EQ("a fork of 23 bytes, yes", store.get("com.apple.ResourceFork"));
    store.set("com.apple.ResourceFork", "shorter", Store::Existing::must);
    EXPECT_EQ("shorter", kit::ForkDouble::read(file()));
    store.remove("com.apple.ResourceFork");
    EXPECT_EQ("", kit::ForkDouble::read(file()));
    EXPECT_THROW((void)store.get("com.apple.ResourceFork"), engine::Failure);
}

TEST_F(NativeStore, MetadataHaveForkAndFinderInfoApartFromTheAttributes) {
    const Store store(file());
    store.set("user.note", "n", Store::Existing::must_not);
    const Store::Metadata all = store.metadata();
    EXPECT_EQ("a fork of 23 bytes, yes", all.fork);
    EXPECT_EQ(std::string(32, 'F'), all.finderInfo);
    EXPECT_EQ((std::map<std::string, std::string>{{"user.note", "n"}}), all.attributes);
    EXPECT_FALSE(all.locked);
}

} // namespace
