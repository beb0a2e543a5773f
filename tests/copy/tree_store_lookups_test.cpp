// What a tree copy asks once a directory of the stores beside its files, and what it goes on asking for each of them.
#include "tests/copy/tree_support.h"

using namespace tree;

namespace {

class TreeStoreLookups : public BothFamilies {
  protected:
    void putFiles(int first, int last) const {
        for (int number = first; number < last; ++number) {
            putFile(std::to_string(number));
        }
    }
    void putStores(int count) const {
        for (int number = 0; number < count; ++number) {
            const std::string name = std::to_string(number);
            if (::access(src(name).c_str(), F_OK) == 0) {
                putStore(request.src, name, "of " + name);
            }
        }
    }
};
INSTANTIATE_TEST_SUITE_P(, TreeStoreLookups, kFamilies, familyName);

TEST_P(TreeStoreLookups, NoStoreIsFoundOutOnceADirectory) {
    putFiles(0, 2);
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    const int looks = kit::Faults::count("access");
    EXPECT_LT(0, looks);

    putFiles(2, 20);
    request.dst += "-again";
    kit::Faults::reset();
    kit::Faults::record(true);
    EXPECT_EQ(0, copy());
    EXPECT_EQ(looks, kit::Faults::count("access"));
    EXPECT_EQ("data", kit::readFile(dst("19")));
}

TEST_P(TreeStoreLookups, StoreOfOneFileAmongOthersIsCarried) {
    TREE_NEEDS_ROOT(); // to make an "@eaDir"
    putFiles(0, 5);
    putStore(request.src, "3", "three");
    EXPECT_EQ(0, copy());
    EXPECT_EQ("three", storeOf(request.dst, "3"));
    EXPECT_EQ("(no store)", storeOf(request.dst, "2"));
}

TEST_P(TreeStoreLookups, StoreInTheDestinationIsFoundThoughTheSourceHasNone) {
    putFiles(0, 1);
    makeDirectory(request.dst);
    putStore(request.dst, "0", "was there");
    EXPECT_EQ(0, copy());
    EXPECT_EQ("was there", storeOf(request.dst, "0"));
}

// Somebody else makes the "@eaDir" while the walk is in the directory. The only copy of what a moved file has goes with
// the file.
TEST_P(TreeStoreLookups, MovedFilesTakeStoresThatCameMeanwhile) {
    TREE_NEEDS_ROOT(); // to make an "@eaDir"
    constexpr int kFiles = 4;
    putFiles(0, kFiles);
    request.move = true;
    request.overwrite = 1;
    acrossVolumes();
    int asked = 0;
    callbacks.isCancel = [&] {
        if (++asked == 2) {
            putStores(kFiles);
        }
        return 0;
    };
    EXPECT_EQ(0, copy());
    int carried = 0;
    for (int number = 0; number < kFiles; ++number) {
        const std::string name = std::to_string(number);
        EXPECT_EQ("data", kit::readFile(dst(name)));
        carried += storeOf(request.dst, name) == "of " + name ? 1 : 0;
    }
    EXPECT_GE(carried, kFiles - 2); // all but those that had gone before
}

} // namespace
