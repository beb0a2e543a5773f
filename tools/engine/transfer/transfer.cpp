#include "tools/engine/transfer/transfer.h"

#include "tools/engine/select/tree_selection.h"
#include "tools/engine/transfer/special_file.h"
#include "tools/engine/walk/paths.h"

#include <sys/stat.h>

namespace engine {
namespace {

// Of the entry itself: a symbolic link is a link. 0: there is none.
mode_t mode_at(const std::string &path) {
    struct stat found {};
    return ::lstat(path.c_str(), &found) == 0 ? found.st_mode : 0;
}

// "photos/." without its dot: what cannot be entered is told by the directory's name.
std::string without_dot(const std::string &source) {
    return source.ends_with("/.") ? source.substr(0, source.size() - 2) : source;
}

} // namespace

Transfer::Transfer(const TransferOptions &options, TransferObserver &observer)
    : m_options(options), m_observer(observer), m_files(options, observer), m_trees(options, m_files, observer) {}

void Transfer::share(const Hands &hands) {
    if (hands.number > 1 && can_share()) {
        m_shared = std::make_unique<SharedTransfer>(m_options, hands, m_files, m_trees, m_observer);
        m_trees.share(*m_shared);
    }
}

bool Transfer::is_tree(const std::string &source) const {
    return m_options.trees && S_ISDIR(mode_at(source));
}

void Transfer::run(const std::string &source, const std::string &destination) {
    m_files.goes_below(source.ends_with("/.") ? destination : parent_of(destination));
    TreeSelection selection(m_options.selection);
    selection.begin(source, true);
    // What cannot be looked at is for the transfer to tell; what a directory holds is not that directory.
    struct stat found {};
    if (!selection.takes_everything() && !source.ends_with("/.") && ::lstat(source.c_str(), &found) == 0 &&
        !selection.takes(source, source, found)) {
        return;
    }
    if (is_tree(source)) {
        m_observer.tree(source);
        m_trees.run(source, destination);
        return;
    }
    const bool asItIs = m_options.links || m_options.operation == Operation::move;
    const mode_t mode = mode_at(source);
    const EntryKind kind = asItIs && S_ISLNK(mode)                  ? EntryKind::link
                           : m_options.specials && is_special(mode) ? EntryKind::other
                                                                    : EntryKind::file;
    const std::string name = without_dot(source);
    GivenName given = m_trees.named(name, destination);
    if (given.problem) {
        m_observer.entry(kind, name, failure(destination, std::move(*given.problem)));
        return;
    }
    Surroundings around;
    around.known = std::move(given.losses);
    m_observer.entry(kind, name, m_files.run(name, given.name, {}, around));
}

void Transfer::leave() {
    m_trees.leave();
    m_files.finish_names();
    m_files.write_out_volumes();
}

void Transfer::run_below(const std::string &base, const std::string &top, const std::string &name,
                         const NamesBelow &how) {
    m_files.goes_below(top);
    if (const std::string source = joined(base, name); how.alone || is_tree(source)) {
        m_observer.tree(source);
    }
    m_trees.run_below(base, top, name, how);
}

} // namespace engine
