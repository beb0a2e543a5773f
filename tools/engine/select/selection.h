// Which entries of a tree are meant: by the rules of rsync for names, and by size, time and archive bit.
#pragma once

#include "tools/engine/select/pattern.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <vector>

namespace engine {

class Selection {
  public:
    // The value of --exclude and --include: a pattern, or "- PATTERN" and "+ PATTERN", which say themselves what they
    // do; "!" forgets all rules before it.
    void exclude(std::string_view text);
    void include(std::string_view text);
    // A rule: "- PATTERN", "+ PATTERN", "exclude PATTERN", "include PATTERN", "!" or "clear". "-!" and "+!" turn it
    // round: what is not like the pattern. Nothing where it was taken, else what is wrong with it.
    std::optional<std::string> add_rule(std::string_view text);
    // Lines of a file, of which empty ones and those that begin with "#" or ";" say nothing. Of rules, or with
    // `exclude` of patterns as exclude() takes them. Nothing, or what is wrong with which line.
    std::optional<std::string> add_rules(std::string_view lines);
    void exclude_lines(std::string_view lines);

    // Regular files alone are chosen by these; directories are always gone through.
    std::optional<int64_t> leastSize = {}, mostSize = {}; // bytes, both included
    std::optional<timespec> notBefore = {};               // modified then or later
    std::optional<timespec> before = {};                  // modified before
    bool archivedAlone = false;                           // those with the archive bit
    bool oneFileSystem = false;                           // nothing of other volumes that are mounted in the tree
    // Asked of each name that the rules leave, as takes_name() is; nothing: all of them are meant. Of processes that
    // share a tree each asks a copy of its own.
    std::function<bool(std::string_view path, bool directory)> asked = {};

    bool takes_everything() const;
    // Whether the name is meant. `path` goes down from where the tree begins, without a slash at either end, and holds
    // the name of the operand: "photos/2024/a.jpg" for "copy photos DST", "2024/a.jpg" for "copy photos/. DST". Nothing
    // in a directory that is not meant is looked at.
    bool takes_name(std::string_view path, bool directory) const;
    // Whether an entry of a name that is meant is by what lstat says of it. The archive bit is for the caller to ask.
    bool takes(const struct stat &entry) const;

  private:
    struct Rule {
        Pattern pattern;
        bool include;
        bool inverted;
    };
    void add_prefixed(std::string_view text, bool include);

    std::vector<Rule> m_rules;
};

} // namespace engine
