// The list of what entries of a directory are called where their volume does not take that: a file in the directory.
// A row is of a name, and no matter what stands there under it by now; one of a name that is not there is for nobody.
//
//     vexofileop names 1
//     a-b.txt<TAB>a:b.txt
//     end 1
//
// Control characters, "%" and bytes that are no UTF-8 are written as "%0A". Nobody believes a list of which anything is
// otherwise: a row that names something outside of the directory, or another name than the one that the first would
// have become, would lead an entry to where somebody else wants it.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

namespace engine {

inline constexpr char kNameList[] = ".vexofileop-names";
// Of another letter case, too, which some volumes take for it.
bool is_name_list(const std::string &name);
inline constexpr char kNameOfList[] = "the name is kept for the list of names; left where it is";

class NameList {
  public:
    NameList() = default;
    // Of an open directory (O_PATH too); one that is not there is empty. Throws Failure for one that cannot be read or
    // believed.
    explicit NameList(int directory);

    bool empty() const { return m_originals.empty(); }
    // Null: there is none.
    const std::string *original_of(const std::string &made) const;
    const std::string *made_of(const std::string &original) const;
    const std::map<std::string, std::string> &originals() const { return m_originals; } // by the name that is there

    // Nothing is known of either of them yet.
    void add(const std::string &made, const std::string &original);
    void remove(const std::string &made);
    // In the place of the old one at once, or none where it is empty. `sync`: it is on the disk. Throws Failure.
    void write(int directory, bool sync) const;
    int64_t bytes() const { return static_cast<int64_t>(text().size()); } // that it takes there

  private:
    void parse(std::string_view text);
    std::string text() const;

    std::map<std::string, std::string> m_originals, m_made;
};

} // namespace engine
