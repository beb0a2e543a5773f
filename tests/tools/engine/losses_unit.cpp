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

TEST(Losses, EveryClassCanBeCounted) {
    for (const engine::LossRow &row : engine::kLossTable) {
        EXPECT_NE(std::string(row.one), row.several) << row.name;
        EXPECT_GT(std::string(row.one).size(), 8U) << row.name;
    }
}

TEST(Losses, GroupsAreSetsOfClasses) {
    const auto all = engine::loss_set("all"), acl = engine::loss_set("acl"), fat = engine::loss_set("fat");
    ASSERT_TRUE(all && acl && fat);
    for (const engine::LossRow &row : engine::kLossTable) {
        const std::string name = row.name;
        EXPECT_EQ(name != "data", all->contains(row.cls)) << name;
        EXPECT_EQ(name.starts_with("acl-"), acl->contains(row.cls)) << name;
        const bool anyFat =
            name == "owner" || name == "group" || name == "mode" || name.starts_with("acl-") || name == "creation-time";
        EXPECT_EQ(anyFat, fat->contains(row.cls)) << name;
        EXPECT_EQ(engine::LossSet().add(row.cls), engine::loss_set(name)) << name;
    }
    EXPECT_FALSE(engine::loss_set("acls"));
    EXPECT_FALSE(engine::loss_set(""));
    EXPECT_EQ("all, acl, fat", engine::loss_group_names());
}

TEST(Losses, WhatIsAcceptedOrCostsRoomAloneFailsNothing) {
    const engine::LossSet owner = *engine::loss_set("owner");
    EXPECT_FALSE(engine::fails({LossClass::owner, ""}, owner));
    EXPECT_TRUE(engine::fails({LossClass::group, ""}, owner));
    EXPECT_TRUE(engine::fails({LossClass::owner, ""}, {}));
    EXPECT_FALSE(engine::fails({LossClass::hole, ""}, {}));
    EXPECT_FALSE(engine::fails({LossClass::data, ""}, *engine::loss_set("data")));
    EXPECT_TRUE(engine::keeps_source({LossClass::data, ""}, *engine::loss_set("data")));
    EXPECT_FALSE(engine::keeps_source({LossClass::owner, ""}, owner));
    EXPECT_FALSE(engine::keeps_source({LossClass::hole, ""}, {}));
    EXPECT_FALSE(engine::fails({LossClass::hard_link, ""}, {}));
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
