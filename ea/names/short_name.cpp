// Names that are too long for their volume once a stream's name is added, and the limit they must keep.
#include "ea/names/short_name.h"

#include "support/path_buffer.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <sys/vfs.h>

namespace vexo {

namespace {

// Fixed for ever: names on existing volumes were made with it.
constexpr std::string_view kAlphabet = "1234567890abcdefghijklmnopqrstuvwxyz-_=+';[]{}~`.!@#$%^&*() ";
static_assert(kAlphabet.size() == 60);

// The longest extension that is kept, with its ".".
constexpr size_t kLongestExtension = 6;

std::optional<size_t> limit_told_by(const FileRef &file) {
    struct statfs volume {};
    if ((file.is_open() ? ::fstatfs(file.fd(), &volume) : ::statfs(file.path(), &volume)) != 0) {
        return std::nullopt;
    }
    const auto suffix = static_cast<decltype(volume.f_namelen)>(kStreamSuffixLength);
    // A volume that leaves no room at all gets the common limit: the file system then refuses the name, where a name
    // cut to nothing would let all files share one companion.
    return volume.f_namelen > suffix ? static_cast<size_t>(volume.f_namelen - suffix) : kDefaultBaseLimit;
}

// Cuts a path to the directory above it; false when there is none. The root stays "/".
bool to_parent(PathBuffer &path) {
    size_t slash = path.view().rfind('/');
    if (slash == std::string_view::npos) {
        return false;
    }
    while (slash > 0 && path.view()[slash - 1] == '/') {
        --slash;
    }
    if (slash == 0 && path.length() == 1) {
        return false;
    }
    path.cut(slash == 0 ? 1 : slash);
    return true;
}

// The byte that stands for what is cut. Bytes count as signed and the sum as 32 bits wide on every machine, or a volume
// would show other names when it moves.
char stand_in(std::span<const char> cut) {
    uint32_t sum = 0;
    for (const char byte : cut) {
        sum += static_cast<uint32_t>(static_cast<int32_t>(static_cast<int8_t>(byte)));
    }
    const auto count = static_cast<int32_t>(kAlphabet.size());
    const int32_t remainder = static_cast<int32_t>(sum) % count;
    return kAlphabet[static_cast<size_t>(remainder < 0 ? remainder + count : remainder)];
}

// Of the extension with its ".", 0 when there is none or it is too long to be kept.
size_t extension_length(std::string_view name) {
    const std::string_view tail = name.substr(name.size() > kLongestExtension ? name.size() - kLongestExtension : 0);
    const size_t dot = tail.rfind('.');
    return dot == std::string_view::npos ? 0 : tail.size() - dot;
}

} // namespace

size_t base_limit_of(const FileRef &file) {
    if (const auto limit = limit_told_by(file)) {
        return *limit;
    }
    const char *const path = file.path();
    PathBuffer above;
    above.append(*path == '/' ? "" : "./").append(path);
    while (to_parent(above)) {
        if (const auto limit = limit_told_by(above.c_str())) {
            return *limit;
        }
        if (errno != ENOENT) {
            break;
        }
    }
    return kDefaultBaseLimit;
}

size_t shorten_base(std::span<char> name, size_t limit) {
    if (name.size() <= limit) {
        return name.size();
    }
    const char mark = stand_in(name.subspan(limit - 1));
    size_t extension = extension_length({name.data(), name.size()});
    if (extension > limit - 1) {
        extension = 0; // no room for it beside the mark
    }
    const size_t kept = limit - 1 - extension;
    name[kept] = mark;
    if (extension > 0) {
        std::memmove(&name[kept + 1], &name[name.size() - extension], extension);
    }
    return limit;
}

} // namespace vexo
