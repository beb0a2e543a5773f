// Which entries are meant.
#include "tools/engine/select/pattern.h"
#include "tools/engine/select/selection.h"
#include "tools/engine/select/wildcard.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using engine::Pattern;
using engine::Selection;

struct Table {
    std::vector<std::string> tree; // a directory ends with a slash
    std::vector<std::pair<std::string, std::string>> rows;

    Table() {
        std::ifstream file(VEXO_PATTERN_TABLE);
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with("tree ")) {
                std::istringstream words(line.substr(5));
                for (std::string path; words >> path;) {
                    tree.push_back(path);
                }
            } else if (!line.starts_with("# ")) {
                const size_t tab = line.find('\t');
                rows.emplace_back(line.substr(0, tab), line.substr(tab + 1));
            }
        }
    }
};

// What is not meant, without what lies below a directory that is not.
template <typename Takes>
std::string left_out(const std::vector<std::string> &tree, const Takes &takes) {
    std::string out;
    std::string above = "//";
    for (const std::string &path : tree) {
        const bool directory = path.ends_with('/');
        if (path.starts_with(above) || takes(std::string_view(path).substr(0, path.size() - directory), directory)) {
            continue;
        }
        out += (out.empty() ? "" : " ") + path;
        above = directory ? path : above;
    }
    return out;
}

bool has_several_rules(const std::string &row) {
    return row.starts_with("- ") || row.starts_with("+ ");
}

// tests/tools/patterns/against_rsync holds the table against rsync.
TEST(Select, PatternsAreThoseOfRsync) {
    const Table table;
    ASSERT_GE(table.rows.size(), 200U);
    ASSERT_FALSE(table.tree.empty());
    for (const auto &[text, expected] : table.rows) {
        if (has_several_rules(text)) {
            continue;
        }
        const Pattern pattern(text);
        EXPECT_EQ(expected, left_out(table.tree, [&](std::string_view path,
                                                     bool directory) { return !pattern.matches(path, directory); }))
            << text;
    }
}

std::string left_out_by(const std::string &rules) {
    Selection selection;
    EXPECT_EQ(std::nullopt, selection.add_rules(rules));
    return left_out(Table().tree,
                    [&](std::string_view path, bool directory) { return selection.takes_name(path, directory); });
}

TEST(Select, SeveralRulesAreThoseOfRsync) {
    int several = 0;
    for (const auto &[text, expected] : Table().rows) {
        if (!has_several_rules(text)) {
            continue;
        }
        ++several;
        std::string rules = text + "\n";
        for (size_t at = 0; (at = rules.find(" | ")) != std::string::npos;) {
            rules.replace(at, 3, "\n");
        }
        EXPECT_EQ(expected, left_out_by(rules)) << text;
    }
    EXPECT_LE(60, several);
}

TEST(Select, FirstRuleThatFitsDecides) {
    EXPECT_EQ("a/a.txt a/b/", left_out_by("+ /a.txt\n- *.txt\n+ c/\n- /a/b\n"));
    EXPECT_EQ("a.txt a/a.txt a/b/c/x.txt", left_out_by("- *.txt\n+ /a.txt\n"));
    EXPECT_EQ("a.txt a/a.txt a/b/c/x.txt", left_out_by("exclude *.txt\n"));
    EXPECT_EQ("", left_out_by("include *\nexclude *\n"));
}

TEST(Select, RulesMayBeTurnedRound) {
    EXPECT_EQ("! \\ ] ^ a*b a-b a/ a\\b ab/ b.o b/ foo.d/ foo/ x[y/", left_out_by("-! *.txt\n"));
    EXPECT_EQ("a.txt a/a.txt a/b/c/x.txt", left_out_by("+,! *.txt\n- *\n"));
}

TEST(Select, CommentsAndEmptyLinesSayNothingAndClearForgets) {
    EXPECT_EQ("a/b.o b.o foo/bar/b.o", left_out_by("# all\n; of these\n\n- *\n!\n- b.o\r\n+ foo/bar/b.o\n"));
    EXPECT_EQ("", left_out_by("- *\nclear\n"));
}

TEST(Select, WhatIsNoRuleIsToldWithItsLine) {
    for (const auto &[rules, told] : std::vector<std::pair<std::string, std::string>>{
             {"- a\nP b\n", "line 2: \"P\" begins no rule; \"- PATTERN\" and \"+ PATTERN\" do"},
             {"-\n", "line 1: a pattern is missing"},
             {"- \n", "line 1: a pattern is missing"},
             {". other\n", "line 1: \".\" begins no rule; \"- PATTERN\" and \"+ PATTERN\" do"},
             {"a.txt\n", "line 1: \"a.txt\" begins no rule; \"- PATTERN\" and \"+ PATTERN\" do"},
             {"\n\n! a\n", "line 3: \"clear\" takes no pattern"}}) {
        EXPECT_EQ(told, Selection().add_rules(rules).value_or("taken")) << rules;
    }
}

TEST(Select, OptionsTakePatternsAndRules) {
    Selection selection;
    selection.include("keep.o");
    selection.exclude("*.o");
    selection.exclude("+ *.txt");
    selection.exclude_lines("# not these\n- x.txt\n*.tmp\n");
    EXPECT_TRUE(selection.takes_name("a/keep.o", false));
    EXPECT_FALSE(selection.takes_name("a/other.o", false));
    EXPECT_TRUE(selection.takes_name("x.txt", false));
    EXPECT_FALSE(selection.takes_name("a/x.tmp", false));
    selection.exclude("!");
    EXPECT_TRUE(selection.takes_everything());
}

TEST(Select, SizesAndTimesChooseRegularFiles) {
    Selection selection;
    selection.leastSize = 10;
    selection.mostSize = 20;
    selection.notBefore = timespec{100, 5};
    selection.before = timespec{200, 0};
    const auto takes = [&](mode_t type, int64_t size, timespec time) {
        struct stat entry {};
        entry.st_mode = type;
        entry.st_size = size;
        entry.st_mtim = time;
        return selection.takes(entry);
    };
    EXPECT_TRUE(takes(S_IFREG, 10, {100, 5}));
    EXPECT_TRUE(takes(S_IFREG, 20, {199, 999'999'999}));
    EXPECT_FALSE(takes(S_IFREG, 9, {150, 0}));
    EXPECT_FALSE(takes(S_IFREG, 21, {150, 0}));
    EXPECT_FALSE(takes(S_IFREG, 15, {100, 4}));
    EXPECT_FALSE(takes(S_IFREG, 15, {200, 0}));
    EXPECT_TRUE(takes(S_IFDIR, 0, {0, 0}));
    EXPECT_TRUE(takes(S_IFLNK, 0, {0, 0}));
    EXPECT_FALSE(selection.takes_everything());
}

TEST(Select, WhoIsAskedDecidesOverWhatTheRulesLeave) {
    Selection selection;
    std::vector<std::string> asked;
    selection.exclude("*.bak");
    selection.asked = [&](std::string_view path, bool directory) {
        asked.push_back(std::string(path) + (directory ? "/" : ""));
        return path != "photos/a";
    };
    EXPECT_FALSE(selection.takes_name("photos/a", false));
    EXPECT_TRUE(selection.takes_name("photos/b", true));
    EXPECT_FALSE(selection.takes_name("photos/c.bak", false));
    EXPECT_EQ((std::vector<std::string>{"photos/a", "photos/b/"}), asked);
    selection.exclude("!");
    EXPECT_FALSE(selection.takes_everything());
}

// A pattern that somebody else wrote must not keep the machine busy.
TEST(Select, ManyStarsEnd) {
    const std::string text(2000, 'a');
    std::string pattern;
    for (int star = 0; star < 100; ++star) {
        pattern += "*a";
    }
    EXPECT_FALSE(engine::wildcard_matches(pattern + "b", text));
    EXPECT_FALSE(engine::wildcard_matches("**" + pattern + "**b", text));
    EXPECT_TRUE(engine::wildcard_matches(pattern, text));
}

} // namespace
