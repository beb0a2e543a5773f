#include "tools/engine/transfer/name_refusal.h"

#include "tools/engine/compare/side.h"
#include "tools/engine/losses/wording.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <iterator>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace engine {
namespace {

// A name that every volume takes.
bool is_plain_name(const std::string &name) {
    constexpr size_t commonLength = 255;
    return name.size() < commonLength && name.back() != '.' && name.back() != ' ' &&
           std::ranges::all_of(name, [](unsigned char letter) {
               return letter > 0x20 && letter < 0x7f && std::strchr("\"*/:<>?\\|", letter) == nullptr;
           });
}

// Whether all volumes that take the name list it as it is, but for those that keep letters in another form.
bool is_common_name(const std::string &name, uint32_t magic) {
    constexpr uint32_t hfs[] = {0x482b, 0x4858};
    const bool ascii = std::ranges::all_of(name, [](unsigned char letter) { return letter < 0x80; });
    const bool text = ascii || (std::ranges::find(hfs, magic) == std::end(hfs) && is_utf8(name));
    return text && name.back() != '.' && name.back() != ' ';
}

// What in a directory of our own can only be due to the name. Some drivers do not find a name that they do not take.
bool is_of_name(int number) {
    constexpr int numbers[] = {EINVAL, EILSEQ, ENAMETOOLONG, ENOENT, EOVERFLOW, EPERM};
    return std::ranges::find(numbers, number) != std::end(numbers);
}

} // namespace

std::optional<std::string> name_kept(int directory, const std::string &name) {
    struct statfs volume {};
    if (is_common_name(name, 0x482b) || ::fstatfs(directory, &volume) != 0 ||
        takes_every_name(static_cast<uint32_t>(volume.f_type)) ||
        is_common_name(name, static_cast<uint32_t>(volume.f_type))) {
        return std::nullopt;
    }
    const std::string place = next_private_name();
    if (::mkdirat(directory, place.c_str(), 0700) != 0) {
        return std::nullopt;
    }
    std::optional<std::string> kept;
    {
        const Descriptor opened = open_directory(directory, place);
        const Descriptor made(::openat(opened.get(), name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
        const auto names = made.get() < 0 ? std::nullopt : names_in(opened.get());
        if (names && names->size() == 1 && names->front() != name) {
            kept = names->front();
        }
    }
    (void)remove_left_over(directory, place);
    return kept;
}

bool takes_every_name(uint32_t magic) {
    // ext4, XFS, btrfs, tmpfs, ramfs, overlay
    constexpr uint32_t own[] = {0xef53, 0x58465342, 0x9123683e, 0x01021994, 0x858458f6, 0x794c7630};
    return std::ranges::find(own, magic) != std::end(own);
}

bool keeps_names_apart(const char *directory) {
    const Descriptor opened(::open(directory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    int flags = 0;
    return opened.get() >= 0 && (::ioctl(opened.get(), FS_IOC_GETFLAGS, &flags) != 0 || // a volume without flags
                                 (flags & FS_CASEFOLD_FL) == 0);
}

void add_kept_name(int directory, const std::string &name, std::vector<Loss> &losses) {
    if (const auto kept = name_kept(directory, name)) {
        std::erase_if(losses, [](const Loss &loss) { return loss.cls == LossClass::name_changed; });
        losses.push_back({LossClass::name_changed, fmt::format("is {} in the copy", displayed(*kept))});
    }
}

std::optional<Loss> refusal_in_private(int directory, const std::string &name, mode_t type) {
    if (is_plain_name(name)) {
        return std::nullopt;
    }
    const Descriptor made(::openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (made.get() >= 0 || !is_of_name(errno)) {
        return std::nullopt;
    }
    if (errno == ENAMETOOLONG) {
        return Loss{LossClass::name_too_long, too_long_text(name.size())};
    }
    return Loss{S_ISLNK(type)                    ? LossClass::symbolic_link
                : S_ISREG(type) || S_ISDIR(type) ? LossClass::data
                                                 : LossClass::special_file,
                fmt::format("the volume refuses the name: {}", std::strerror(errno))};
}

std::optional<Loss> refusal_of_link(int directory) {
    if (::symlinkat("nowhere", directory, "link") == 0 || (errno != ENOSYS && errno != EPERM && errno != EOPNOTSUPP)) {
        return std::nullopt;
    }
    return Loss{LossClass::symbolic_link, link_refused_text(errno)};
}

std::optional<Loss> refusal_of_entry(int directory, const std::string &name, mode_t type) {
    if (is_plain_name(name) && !S_ISLNK(type)) {
        return std::nullopt;
    }
    const std::string place = next_private_name();
    if (::mkdirat(directory, place.c_str(), 0700) != 0) {
        return std::nullopt;
    }
    std::optional<Loss> refusal;
    if (const Descriptor opened = open_directory(directory, place); opened.get() >= 0) {
        refusal = refusal_in_private(opened.get(), name, type);
        if (!refusal && S_ISLNK(type)) {
            refusal = refusal_of_link(opened.get());
        }
    }
    (void)remove_left_over(directory, place);
    return refusal;
}

std::optional<Loss> refusal_of_size(int directory, off_t size) {
    const std::string name = next_private_name();
    std::optional<Loss> refusal;
    {
        const Descriptor made(::openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        if (made.get() < 0) {
            return std::nullopt;
        }
        if (::ftruncate(made.get(), size) != 0 && errno == EFBIG) {
            refusal = Loss{LossClass::file_too_large,
                           too_large_text(static_cast<uint64_t>(size), volume_facts(directory).largestFile)};
        }
    }
    (void)remove_left_over(directory, name);
    return refusal;
}

} // namespace engine
