// Which names of a file are told as files of their own does not depend on the order in which they are met.
#include "tools/engine/compare/linked_names.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace {

using engine::LinkedName;
using engine::LinkedNames;

LinkedName linked_name(const char *path, ino_t second, uint64_t arrived, uint64_t names, dev_t volume = 7) {
    return {.first = {1, 100},
            .second = {volume, second},
            .names = names,
            .arrived = arrived,
            .path = std::string("/one/") + path,
            .otherPath = std::string("/other/place/") + path,
            .bytes = 5};
}

// What is told of names that are met in this order, sorted.
std::string told_of_names(const std::vector<LinkedName> &names, bool finished = true) {
    std::vector<std::string> told;
    const auto tell = [&](const std::string &first, const std::string &second, const engine::Loss &loss) {
        told.push_back(first + " " + second + " " + engine::loss_row(loss.cls).name + "\n");
    };
    LinkedNames linked;
    for (const LinkedName &name : names) {
        (void)linked.meet(name, tell);
    }
    if (finished) {
        linked.finish(tell);
    }
    std::ranges::sort(told);
    std::string all;
    for (const std::string &line : told) {
        all += line;
    }
    return all;
}

void expect_of_names_in_any_order(std::vector<LinkedName> names, const std::string &expected) {
    std::mt19937 random(1);
    for (int order = 0; order < 50; ++order) {
        std::ranges::shuffle(names, random);
        EXPECT_EQ(expected, told_of_names(names)) << "order " << order;
    }
}

TEST(LinkedNames, AllButTheFirstAreToldWhereEachHasBecomeAFile) {
    expect_of_names_in_any_order({linked_name("a", 1, 1, 3), linked_name("b", 2, 1, 3), linked_name("c", 3, 1, 3)},
                                 "/one/b /other/place/b hard-link\n/one/c /other/place/c hard-link\n");
}

TEST(LinkedNames, NothingIsToldOfNamesThatAreOneFileStill) {
    expect_of_names_in_any_order({linked_name("a", 1, 3, 3), linked_name("b", 1, 3, 3), linked_name("c", 1, 3, 3)}, "");
}

TEST(LinkedNames, AFileOfSeveralNamesIsToldUnderItsFirst) {
    expect_of_names_in_any_order({linked_name("d", 1, 2, 5), linked_name("b", 1, 2, 5), linked_name("c", 2, 1, 5),
                                  linked_name("a", 3, 2, 5), linked_name("e", 3, 2, 5)},
                                 "/one/b /other/place/b hard-link\n/one/c /other/place/c hard-link\n");
}

TEST(LinkedNames, NamesElsewhereAreNoMatter) {
    expect_of_names_in_any_order({linked_name("b", 1, 1, 9), linked_name("a", 2, 1, 9)},
                                 "/one/b /other/place/b hard-link\n");
    expect_of_names_in_any_order({linked_name("b", 1, 1, 2)}, "");
}

// As a run makes them: the file that another name is going to be linked to has one name so far.
TEST(LinkedNames, AFileThatGetsItsOtherNamesLaterIsToldUnderTheFirstOfThem) {
    EXPECT_EQ("/one/b /other/place/b hard-link\n",
              told_of_names({linked_name("a", 1, 1, 3), linked_name("c", 2, 1, 3), linked_name("b", 2, 2, 3)}));
    EXPECT_EQ("/one/c /other/place/c hard-link\n",
              told_of_names({linked_name("c", 1, 1, 3), linked_name("b", 2, 1, 3), linked_name("a", 2, 2, 3)}));
    // Of two volumes each has one of those.
    EXPECT_EQ("/one/b /other/place/b hard-link\n",
              told_of_names({linked_name("c", 1, 1, 4), linked_name("d", 1, 1, 4, 8), linked_name("b", 1, 2, 4),
                             linked_name("a", 1, 2, 4, 8)}));
}

TEST(LinkedNames, WhatIsWholeIsToldAtOnceAndForgotten) {
    EXPECT_EQ("/one/b /other/place/b hard-link\n",
              told_of_names({linked_name("b", 1, 1, 2), linked_name("a", 2, 1, 2)}, false));
    EXPECT_EQ("", told_of_names({linked_name("b", 1, 1, 2), linked_name("a", 1, 2, 2), linked_name("c", 3, 1, 2)}));
    // A name that comes twice is one.
    EXPECT_EQ("/one/c /other/place/c hard-link\n",
              told_of_names({linked_name("b", 1, 1, 2), linked_name("b", 1, 1, 2), linked_name("c", 2, 1, 2)}, false));
}

} // namespace
