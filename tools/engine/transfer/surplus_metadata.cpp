#include "tools/engine/transfer/surplus_metadata.h"

#include "ea/ea.h"
#include "tools/engine/compare/entry_comparison.h"
#include "tools/engine/compare/entry_view.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/store/store_directory.h"

#include <algorithm>
#include <sys/xattr.h>
#include <vector>

namespace engine {
namespace {

bool is_of_the_store(const Loss &loss) {
    return loss.cls == LossClass::stream || loss.cls == LossClass::finder_info ||
           loss.cls == LossClass::resource_fork || loss.cls == LossClass::unreadable;
}

// What cannot be looked at has no names.
std::vector<std::string> names_of(const Side &side) {
    try {
        EntryView view(side);
        view.list();
        return view.names();
    } catch (const Failure &) {
        return {};
    }
}

} // namespace

bool drop_surplus(const Side &source, const Side &copy, const HeldDirectory &directory, const std::string &held) {
    const std::vector<std::string> wanted = names_of(source);
    bool dropped = false;
    for (const std::string &name : names_of(copy)) {
        if (!std::ranges::binary_search(wanted, name)) {
            dropped = ::removexattr(directory.itself().c_str(), name.c_str()) == 0 || dropped;
        }
    }
    const std::vector<Loss> losses = compare_entries(source, copy);
    if (std::ranges::any_of(losses, [](const Loss &loss) { return loss.cls == LossClass::dos_attributes; })) {
        // Where they are kept in it. The bits of a volume that has them nobody can take away again.
        dropped = ::removexattr(directory.itself().c_str(), "user.DOSATTRIB") == 0 || dropped;
    }
    if (std::ranges::any_of(losses, is_of_the_store)) {
        dropped = remove_beside(held, directory.type()) == 0 || dropped;
    }
    return dropped;
}

} // namespace engine
