#include "tools/binding/binding.h"
#include "tools/binding/guard.h"
#include "tools/engine/remove/tree_removal.h"
#include "tools/engine/report/codes.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/transfer/held_directory.h"
#include "tools/engine/transfer/placement.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <array>
#include <cerrno>
#include <sys/stat.h>

namespace binding {
namespace {

[[noreturn]] void throw_number(int number) {
    const engine::Problem problem = engine::problem_of_placing(number);
    throw engine::Failure(problem.reason, problem.code, number);
}

engine::HeldDirectory held(const std::string &directory) {
    engine::HeldDirectory opened(directory);
    if (!opened.is_open()) {
        engine::throw_errno();
    }
    return opened;
}

// False: there is nothing to do, since it has the name already.
bool check_names(const engine::HeldDirectory &from, const std::string &before, const engine::HeldDirectory &to,
                 const std::string &name, bool replace) {
    const auto entry = from.look(before);
    if (!entry) {
        engine::throw_errno();
    }
    if (from.device() != to.device() || from.type() != to.type()) {
        throw_number(EXDEV);
    }
    const auto there = to.look(name);
    if (!there) {
        return true;
    }
    const bool one = engine::same(entry, there);
    if (one && before == name && from.inode() == to.inode()) {
        return false;
    }
    if (one) { // the kernel would call it a success and leave both
        throw engine::Failure("the two are names of one file", engine::kExists, EEXIST);
    }
    if (!replace) {
        throw_number(EEXIST);
    }
    return true;
}

// A slash behind a name asks for a directory.
void check_slashes(const char *source, const char *destination) {
    const auto entry = engine::look(path_of(source));
    if (entry && !S_ISDIR(entry->st_mode) &&
        (operand_of(source).ends_with('/') || operand_of(destination).ends_with('/'))) {
        throw engine::Failure(engine::problem_of_slash(entry->st_mode).reason, engine::kNotADirectory, ENOTDIR);
    }
}

void rename_entry(const std::string &source, const std::string &destination, bool replace,
                  const VexoCallbacks &callbacks) {
    const engine::HeldDirectory from = held(engine::parent_of(source));
    const engine::HeldDirectory to = held(engine::parent_of(destination));
    const std::string before = engine::base_name(source), name = engine::base_name(destination);
    // What a renaming that was stopped has begun is finished first.
    (void)engine::clear_left_overs(to);
    (void)engine::clear_left_overs(from);
    if (!check_names(from, before, to, name, replace)) {
        return;
    }
    const auto entry = from.look(before);
    // A link only with a store of its own: the renaming marks the file that it leads to as changed.
    const bool withStore = !entry || !S_ISLNK(entry->st_mode) || engine::has_store(from, before);
    const auto left = engine::rename_with_store(
        {.from = from, .before = before, .to = to, .name = name, .replace = replace, .withStore = withStore});
    if (!left) {
        throw_number(errno);
    }
    if (!left->reason.empty() && callbacks.failed != nullptr) {
        const VexoProblem problem = problem_of(*left);
        callbacks.failed(callbacks.data, destination.c_str(), &problem);
    }
}

class Removed : public engine::RemovalObserver {
  public:
    explicit Removed(const VexoCallbacks &callbacks) : m_callbacks(callbacks), m_stop(callbacks) {}

  private:
    bool stopped() const override { return m_stop.asked(); }
    void entry(const std::string &path, mode_t, engine::Status status, const engine::Problem *problem) override {
        constexpr std::array statuses{VEXO_DONE, VEXO_SKIPPED, VEXO_FAILED, VEXO_CANCELLED};
        if (m_callbacks.removed != nullptr) {
            const VexoProblem told = problem != nullptr ? problem_of(*problem) : VexoProblem{};
            m_callbacks.removed(m_callbacks.data, path.c_str(), statuses[static_cast<size_t>(status)],
                                problem != nullptr ? &told : nullptr);
        }
    }
    bool may_remove(const std::string &, engine::RemovalQuestion) override { return true; }

    const VexoCallbacks &m_callbacks;
    Stop m_stop;
};

} // namespace
} // namespace binding

extern "C" {

int vexo_rename(const char *source, const char *destination, int replace, const VexoCallbacks *callbacks,
                VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        const std::string from = binding::leaving_path_of(source), to = binding::leaving_path_of(destination);
        binding::check_slashes(source, destination);
        binding::rename_entry(from, to, replace != 0, *callbacks);
    });
}

int vexo_remove(const char *path, uint32_t flags, const VexoCallbacks *callbacks, VexoFailure *failure) {
    return binding::guarded(failure, [&] {
        (void)binding::leaving_path_of(path);
        binding::Removed observer(*callbacks);
        engine::TreeRemoval removal({.recursive = (flags & VEXO_REMOVE_TREE) != 0,
                                     .emptyDirectories = (flags & VEXO_REMOVE_EMPTY) != 0,
                                     .force = (flags & VEXO_REMOVE_MISSING) != 0},
                                    observer);
        removal.run(binding::operand_of(path));
    });
}

} // extern "C"
