// The type code of a volume: what the administrator says it is, else what the kernel says.
//
// The environment variable VEXOFILEOP_FSTYPES ("PATH=CODE:PATH=CODE…") is asked first, but not in a program that runs
// with more rights than its user; then the file /etc/vexofileop/fstypes (lines "PATH CODE", "#" begins a comment). In
// each the longest path counts that holds the one asked for, by the text of both; a path that says ".." somewhere, or
// that does not begin at the root, is resolved for that, as the kernel takes it.
//
// This is called for every file of a tree that is copied. Where there is no override it costs a statfs and an open that
// finds nothing; the file is short where there is one, and reading it each time spares the callers a cache to share
// between threads and to keep in step with the file.
#include "platform/sdk.h"

#include "platform/linux/text_file.h"
#include "support/fs_type.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <linux/magic.h>
#include <optional>
#include <string_view>
#include <sys/vfs.h>

namespace vexo {
namespace {

constexpr char kOverrideFile[] = "/etc/vexofileop/fstypes";
constexpr char kOverrideVariable[] = "VEXOFILEOP_FSTYPES";

// Magic numbers that the kernel's header leaves to the file systems' own sources.
constexpr uint32_t kMagicXfs = 0x58465342;
constexpr uint32_t kMagicNtfs = 0x5346544e;
constexpr uint32_t kMagicNtfs3 = 0x7366746e;

struct TypeRow {
    uint32_t magic;
    FsType type;
};
// HFS+ is not here: a stock kernel refuses Apple's names of attributes and shows no resource forks, so that as a volume
// of native attributes it would lose both. As any other volume it keeps them in "@eaDir".
constexpr TypeRow kTypes[] = {
    {EXT4_SUPER_MAGIC, FsType::extended}, // ext2, ext3 and ext4 share it
    {kMagicXfs, FsType::extended},        {BTRFS_SUPER_MAGIC, FsType::btrfs}, {MSDOS_SUPER_MAGIC, FsType::fat},
    {EXFAT_SUPER_MAGIC, FsType::exfat},   {kMagicNtfs, FsType::ntfs},         {kMagicNtfs3, FsType::ntfs},
};

FsType type_of(uint32_t magic) {
    for (const TypeRow &row : kTypes) {
        if (row.magic == magic) {
            return row.type;
        }
    }
    return FsType::generic;
}

std::optional<int> code_in(std::string_view text) {
    int code = 0;
    if (text.empty() || text.size() > 4) {
        return std::nullopt;
    }
    for (const char digit : text) {
        if (digit < '0' || digit > '9') {
            return std::nullopt;
        }
        code = code * 10 + (digit - '0');
    }
    return code;
}

// The path that was asked for, in the words of overrides. Nothing is resolved where there are none.
class AskedPath {
  public:
    explicit AskedPath(const char *path) : m_text(path) {}

    std::string_view text() {
        if (!m_resolved && needs_resolving(m_text)) {
            const char *const real = ::realpath(m_text, m_buffer);
            m_text = real == nullptr ? m_text : real; // one that is too long stays as it is
        }
        m_resolved = true;
        return m_text;
    }

  private:
    // Whether it does not tell where it leads.
    static bool needs_resolving(std::string_view path) {
        return !path.starts_with('/') || path.ends_with("/..") || path.find("/../") != std::string_view::npos ||
               path.starts_with("/proc/self/fd/"); // of a directory that somebody holds open
    }

    const char *m_text;
    bool m_resolved = false;
    char m_buffer[PATH_MAX];
};

// The override with the longest path so far.
class Choice {
  public:
    explicit Choice(std::string_view path) : m_path(path) {}

    // Rows without a path from the root or without a number are passed over.
    void consider(std::string_view directory, std::string_view code) {
        while (directory.size() > 1 && directory.ends_with('/')) {
            directory.remove_suffix(1);
        }
        const auto number = code_in(code);
        if (number && directory.starts_with('/') && directory.size() >= m_length && path_is_in(m_path, directory)) {
            m_length = directory.size();
            m_code = number;
        }
    }
    std::optional<int> code() const { return m_code; }

  private:
    std::string_view m_path;
    size_t m_length = 0;
    std::optional<int> m_code;
};

std::optional<int> from_environment(AskedPath &path) {
    const char *setting = ::secure_getenv(kOverrideVariable);
    if (setting == nullptr) {
        return std::nullopt;
    }
    Choice choice(path.text());
    std::string_view rest = setting;
    while (!rest.empty()) {
        const std::string_view row = rest.substr(0, rest.find(':'));
        rest.remove_prefix(row.size() < rest.size() ? row.size() + 1 : row.size());
        if (const size_t equals = row.rfind('='); equals != std::string_view::npos) {
            choice.consider(row.substr(0, equals), tail(row, equals + 1));
        }
    }
    return choice.code();
}

// The code is what follows the last blank of the line, so that paths may hold blanks. A file that cannot be read
// overrides nothing.
std::optional<int> from_file(AskedPath &path) {
    const HeapBuffer text = read_text_file(kOverrideFile);
    if (!text) {
        return std::nullopt;
    }
    Choice choice(path.text());
    std::string_view rest = view_of(text);
    while (!rest.empty()) {
        const std::string_view line = trim(take_line(rest));
        const size_t blank = line.find_last_of(" \t");
        if (!line.empty() && line.front() != '#' && blank != std::string_view::npos) {
            choice.consider(trim(line.substr(0, blank)), tail(line, blank + 1));
        }
    }
    return choice.code();
}

} // namespace
} // namespace vexo

using namespace vexo;

int VEXOGetFSType(const char *path, int flag) {
    (void)flag;
    if (path == nullptr) {
        errno = EFAULT;
        return -1;
    }
    // First, so that a path that is not there fails, overridden or not.
    struct statfs volume {};
    if (::statfs(path, &volume) != 0) {
        return -1;
    }
    AskedPath asked(path);
    if (const auto code = from_environment(asked)) {
        return *code;
    }
    if (const auto code = from_file(asked)) {
        return *code;
    }
    return static_cast<int>(type_of(static_cast<uint32_t>(volume.f_type)));
}
