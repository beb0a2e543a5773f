// Patterns of names, with the rules of rsync: whoever knows those knows these.
//
//   *      any bytes but a slash; `**`: slashes too
//   ?      one byte but a slash
//   [a-z]  one of a set; [!a-z] and [^a-z] one that is not, [:alpha:] and its like by name
//   \      takes the special meaning from the next one, where the pattern has a wildcard at all
//
// A pattern with a slash at its start holds for the whole path; one with a slash elsewhere for the end of a path, from
// a slash on; one without any for the last name. A slash at the end asks for a directory. `dir/***` is the directory
// and all in it.
#pragma once

#include <string>
#include <string_view>

namespace engine {

class Pattern {
  public:
    explicit Pattern(std::string_view text);

    // `path` goes down from where the transfer begins, without a slash at either end: "photos/2024/a.jpg".
    bool matches(std::string_view path, bool directory) const;

  private:
    bool matches_end(std::string_view path, std::string_view pattern) const;

    std::string m_text;           // without the slashes at its ends
    bool m_anchored = false;      // there was one at the start
    bool m_directories = false;   // and at the end
    bool m_wild = false;          // has a wildcard
    bool m_everything = false;    // has "**"
    bool m_withDirectory = false; // ends with "***"
    int m_slashes = 0;            // between its names
};

} // namespace engine
