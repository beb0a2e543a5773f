#include "tools/engine/check/tree_comparison.h"

#include "tools/engine/report/outcome.h"
#include "tools/engine/store/mac_attributes.h"
#include "tools/engine/store/store_names.h"
#include "tools/engine/volume/fat_name.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <fmt/format.h>
#include <sys/stat.h>

namespace engine {
namespace {

class Comparison {
  public:
    Comparison(int type, const MissingEntry &missing) : m_type(type), m_missing(missing) {}

    int differences(const std::string &source, const std::string &destination) {
        const auto names = names_in(source);
        if (!names) {
            return missing(source, "cannot be read");
        }
        int count = mac_attributes(source);
        for (const std::string &name : *names) {
            switch (name_kind(source, name, m_type)) {
            case NameKind::ordinary:
                count += difference(joined(source, name), joined(destination, name));
                break;
            case NameKind::stray:
            case NameKind::system:
                count += missing(joined(source, name), "not carried along");
                break;
            default:
                break;
            }
        }
        return count;
    }

  private:
    int difference(const std::string &source, const std::string &wanted) {
        const auto from = look(source);
        if (!from) {
            return 0; // went away meanwhile
        }
        const std::string destination = exists(wanted) ? wanted : fat_name(wanted);
        const auto to = look(destination);
        if (!to) {
            return missing(source, entry_kind(from->st_mode) == EntryKind::other
                                       ? fmt::format("is {}, which cannot be copied", kind_of(from->st_mode))
                                       : "was not copied");
        }
        if ((from->st_mode & S_IFMT) != (to->st_mode & S_IFMT) ||
            (S_ISREG(from->st_mode) && from->st_size != to->st_size)) {
            return missing(source, "differs from its copy");
        }
        return S_ISDIR(from->st_mode) ? differences(source, destination) : mac_attributes(source);
    }
    int mac_attributes(const std::string &path) {
        return keeps_mac_attributes(parent_of(path)) && has_mac_attributes(path)
                   ? missing(path, "has attributes set by a Mac, which were not carried")
                   : 0;
    }
    int missing(const std::string &path, const std::string &why) {
        m_missing(path, why);
        return 1;
    }

    int m_type;
    const MissingEntry &m_missing;
};

} // namespace

int compare_trees(const std::string &source, const std::string &destination, int type, const MissingEntry &missing) {
    return Comparison(type, missing).differences(source, destination);
}

} // namespace engine
