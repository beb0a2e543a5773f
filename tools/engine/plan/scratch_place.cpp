#include "tools/engine/plan/scratch_place.h"

#include "tools/engine/walk/private_name.h"
#include "tools/engine/walk/units.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace engine {

std::unique_ptr<ScratchPlace> ScratchPlace::in(int directory) {
    Descriptor above(::openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat before {};
    if (above.get() < 0 || ::fstat(above.get(), &before) != 0 ||
        ::faccessat(above.get(), ".", W_OK | X_OK, AT_EACCESS) != 0 ||
        (::geteuid() != 0 && ::geteuid() != before.st_uid)) {
        return nullptr;
    }
    // Whether the times can be put back shows before anything was made.
    const timespec times[] = {before.st_atim, before.st_mtim};
    if (::futimens(above.get(), times) != 0) {
        return nullptr;
    }
    // Who was killed could not remove it.
    for (const std::string &left : left_overs_in(above.get()).gone) {
        if (is_trial_left_over(above.get(), left)) {
            (void)remove_left_over(above.get(), left);
        }
    }
    constexpr int most = 100;
    for (int i = 0; i < most; ++i) {
        const std::string name = next_private_name() + std::string(kTrialSuffix);
        if (::mkdirat(above.get(), name.c_str(), 0700) == 0) {
            std::unique_ptr<ScratchPlace> made(new ScratchPlace(std::move(above), before, name));
            return made->fd() < 0 ? nullptr : std::move(made);
        }
        if (errno != EEXIST) {
            break;
        }
    }
    return nullptr;
}

ScratchPlace::ScratchPlace(Descriptor above, const struct stat &before, std::string name)
    : m_above(std::move(above)), m_before(before), m_name(std::move(name)),
      m_place(open_directory(m_above.get(), m_name)) {
    (void)::fstat(m_above.get(), &m_made);
}

ScratchPlace::~ScratchPlace() {
    struct stat now {};
    // Whoever has made something there meanwhile has changed the times for a reason.
    const bool ours = ::fstat(m_above.get(), &now) == 0 && same_time(now.st_mtim, m_made.st_mtim);
    m_place = Descriptor(-1);
    (void)remove_left_over(m_above.get(), m_name);
    if (ours) {
        const timespec times[] = {m_before.st_atim, m_before.st_mtim};
        (void)::futimens(m_above.get(), times);
    }
}

} // namespace engine
