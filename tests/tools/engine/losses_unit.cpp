// The vocabulary of losses: names that scripts ask for.
#include "tools/engine/losses/loss.h"

#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

namespace {

using engine::LossClass;

// As released: a name may be added, none may go or change.
const std::vector<std::string> kReleased = {"data",
                                            "name-changed",
                                            "name-clash",
                                            "name-too-long",
                                            "file-too-large",
                                            "owner",
                                            "group",
                                            "mode",
                                            "acl-access",
                                            "acl-default",
                                            "acl-windows",
                                            "dos-attributes",
                                            "creation-time",
                                            "modification-time",
                                            "attribute",
                                            "stream",
                                            "system-attribute",
                                            "finder-info",
                                            "resource-fork",
                                            "mac-attributes",
                                            "locked",
                                            "symbolic-link",
                                            "hard-link",
                                            "hole",
                                            "special-file",
                                            "unreadable",
                                            "not-carried"};

TEST(Losses, NamesAreTheReleasedOnesEachOnce) {
    std::set<std::string> names;
    for (const engine::LossRow &row : engine::kLossTable) {
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
    }
    EXPECT_EQ(std::set<std::string>(kReleased.begin(), kReleased.end()), names);
}

TEST(Losses, NameAndClassLeadToEachOther) {
    for (const engine::LossRow &row : engine::kLossTable) {
        EXPECT_EQ(row.cls, engine::loss_class(row.name));
        EXPECT_STREQ(row.name, engine::loss_row(row.cls).name);
    }
    EXPECT_FALSE(engine::loss_class("nothing"));
    EXPECT_FALSE(engine::loss_class(""));
}

TEST(Losses, EveryClassSaysWhatItMeansAndWhatHelps) {
    for (const engine::LossRow &row : engine::kLossTable) {
        for (const std::string text : {row.meaning, row.help}) {
            EXPECT_GT(text.size(), 20U) << row.name;
            EXPECT_EQ('.', text.back()) << row.name;
        }
    }
}

TEST(Losses, OnlyWhatIsWholeCostsMore) {
    for (const engine::LossRow &row : engine::kLossTable) {
        const bool whole = row.cls == LossClass::hole || row.cls == LossClass::hard_link;
        EXPECT_EQ(whole, row.severity == engine::Severity::costs_more) << row.name;
        EXPECT_FALSE(std::string(engine::severity_name(row.severity)).empty());
    }
    EXPECT_STREQ("costs-more", engine::severity_name(engine::Severity::costs_more));
    EXPECT_STREQ("lost", engine::severity_name(engine::Severity::lost));
    EXPECT_STREQ("changed", engine::severity_name(engine::Severity::changed));
}

} // namespace
