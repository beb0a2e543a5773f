// What a call comes to: a value, or an Error with code, words, place and errno.
//
// Nothing here throws unless it is asked to: Result::value() throws the Error that Result::error() shows.
#pragma once

#include "platform/core.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <variant>

namespace vexofileop {

// What failed. The numbers are those of the C interface.
enum class Code : std::uint32_t {
    none = 0, // only errno tells
    out_of_memory_store = 0x0100,
    out_of_memory = 0x0200,
    permission = 0x0300,
    locked = 0x0400,
    io = 0x0600,
    source_missing = 0x0700,
    no_free_name = 0x0800,
    open = 0x0900,
    read = 0x0A00,
    write = 0x0B00,
    invalid_argument = 0x0D00,
    storage_gone = 0x1100,
    attribute_missing = 0x2000,
    quota = 0x2400,
    seek = 0x2600,
    stat = 0x2700,
    rename_store = 0x2800,
    no_space = 0x2900,
    file_operation = 0x2A00,
    remove = 0x3900,
    relocation_move = 0x3A00,
    short_write = 0x3B00,
    make_directory = 0x3C00,
    upgrade_format = 0x4000,
    device = 0x6C00,
    other = 0x8000,
    read_only = 0x8400,
    empty_name = 0x9A00,
    not_a_directory = 0xA000,
    is_directory = 0xA200,
    destination_exists = 0xA300,
    too_large_for_fat = 0xA400,
    cancelled = 0xA600,
    too_large = 0xAA00,
    share_missing = 0xBE00,
    value_too_large = 0xBF00,
    name_too_long = 0xC300,
    clones_unsupported = 0xD900,
    owner_not_set = 0xFA00,
};

// A few words for a code, without a full stop; static, never null.
inline const char *reason(Code code) noexcept {
    struct Row {
        Code code;
        const char *words;
    };
    static constexpr Row rows[] = {
        {Code::out_of_memory_store, "out of memory for extended metadata"},
        {Code::out_of_memory, "out of memory"},
        {Code::permission, "permission denied"},
        {Code::locked, "metadata is locked by another program"},
        {Code::io, "path missing or not readable"},
        {Code::source_missing, "no such file"},
        {Code::no_free_name, "no free name beside the existing file"},
        {Code::open, "cannot be opened"},
        {Code::read, "reading failed or the file ended early"},
        {Code::write, "writing failed"},
        {Code::invalid_argument, "invalid argument"},
        {Code::storage_gone, "the storage is gone"},
        {Code::attribute_missing, "no such attribute"},
        {Code::quota, "disk quota exceeded"},
        {Code::seek, "positioning in the file failed"},
        {Code::stat, "file status not readable"},
        {Code::rename_store, "renaming extended metadata failed"},
        {Code::no_space, "no space left on the volume"},
        {Code::file_operation, "a file operation was refused"},
        {Code::remove, "could not be removed"},
        {Code::relocation_move, "the last step of the relocation failed"},
        {Code::short_write, "a write stayed short"},
        {Code::make_directory, "a working directory could not be made"},
        {Code::upgrade_format, "not an Apple metadata file of version 2"},
        {Code::device, "I/O error or no such device"},
        {Code::other, "failed; the system log says why"},
        {Code::read_only, "read-only file system"},
        {Code::empty_name, "the file name is empty"},
        {Code::not_a_directory, "the destination is not a directory"},
        {Code::is_directory, "the destination is a directory"},
        {Code::destination_exists, "destination exists"},
        {Code::too_large_for_fat, "file too large for FAT"},
        {Code::cancelled, "cancelled"},
        {Code::too_large, "file too large for the destination"},
        {Code::share_missing, "no such shared folder"},
        {Code::value_too_large, "attribute value too large"},
        {Code::name_too_long, "name or path too long"},
        {Code::clones_unsupported, "clone copies are not supported here"},
        {Code::owner_not_set, "copied, but the owner could not be kept"},
    };
    for (const Row &row : rows) {
        if (row.code == code) {
            return row.words;
        }
    }
    return code == Code::none ? "failed; the system log may say why"
                              : "failed with a code that this version does not know";
}

namespace detail {

// A path for a message: on one line, whatever bytes are in it.
inline std::string displayed(const std::string &path) {
    std::string out;
    for (const char character : path) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte < 0x20 || byte == 0x7F || character == '\\') {
            char text[8];
            (void)std::snprintf(text, sizeof text, character == '\\' ? "\\\\" : "\\x%02x", byte);
            out += text;
        } else {
            out += character;
        }
    }
    return out;
}

// What a C call leaves behind; made right after it.
struct Left {
    Code code = static_cast<Code>(VLIBCErrGet());
    int number = errno;
    const char *file = code == Code::none ? "" : VLIBCErrorGetFile();
    std::uint32_t line = code == Code::none ? 0 : VLIBCErrorGetLine();
};

// Before a call: one that fails without a code leaves the code that was there. The place is kept, for the text that it
// points to has to live as long as the process, which the text of a plug-in would not.
inline void forget() noexcept {
    if (VLIBCErrGet() != 0) {
        VLIBCErrSetEx(0, VLIBCErrorGetFile(), VLIBCErrorGetLine());
    }
    errno = 0;
}

} // namespace detail

// A failure, as a value or thrown. Copies share their texts and do not throw.
class Error : public std::runtime_error {
  public:
    // A failure that the caller or this interface found, at no place of the library. `doing` is a verb: "copy".
    Error(Code code, int number, const char *doing, const std::filesystem::path &path)
        : Error(detail::Left{code, number, "", 0}, doing, path) {}
    // What the library's last call left. To be made right after it, on the same thread.
    static Error last(const char *doing, const std::filesystem::path &path) { return {detail::Left{}, doing, path}; }

    // What failed; Code::none where only errno tells.
    Code code() const noexcept { return m_code; }
    // errno as the call left it, 0 where it set none. It may tell of a step before the one that failed, unless code()
    // is Code::none or Code::other.
    int system_errno() const noexcept { return m_errno; }
    // The source file of the library that raised the code, and the line; "" and 0 where there is no code.
    const char *source_file() const noexcept { return m_file; }
    std::uint32_t source_line() const noexcept { return m_line; }
    // The path that the call was about, byte for byte.
    const std::filesystem::path &path() const noexcept { return *m_path; }
    // Whether something was not there.
    bool is_missing() const noexcept {
        return m_code == Code::source_missing || m_code == Code::attribute_missing ||
               (m_code == Code::none && (m_errno == ENOENT || m_errno == ENODATA));
    }
    // what(): "copy /volume1/a: destination exists (0xA300)", on one line; control characters of the path as "\x0a".

  private:
    Error(const detail::Left &left, const char *doing, const std::filesystem::path &path)
        : std::runtime_error(text(left, doing, path)), m_code(left.code), m_errno(left.number), m_file(left.file),
          m_line(left.line), m_path(std::make_shared<const std::filesystem::path>(path)) {}

    static std::string text(const detail::Left &left, const char *doing, const std::filesystem::path &path) {
        std::string out = doing;
        out += (path.empty() ? "" : " " + detail::displayed(path.native())) + ": ";
        const bool errnoTells = left.number != 0 && (left.code == Code::none || left.code == Code::other);
        if (left.code == Code::none) {
            return out + (errnoTells ? std::generic_category().message(left.number) : reason(left.code));
        }
        char number[16];
        (void)std::snprintf(number, sizeof number, " (0x%04X)", static_cast<unsigned>(left.code));
        out += reason(left.code);
        return out + (errnoTells ? ": " + std::generic_category().message(left.number) : "") + number;
    }

    Code m_code;
    int m_errno;
    const char *m_file;
    std::uint32_t m_line;
    std::shared_ptr<const std::filesystem::path> m_path;
};

// A value or an Error. To ask for the one that is not there: value() throws the Error; error(), * and -> must not be
// asked then.
template <typename T>
class [[nodiscard]] Result {
  public:
    Result(T value) : m_held(std::in_place_index<0>, std::move(value)) {}     // NOLINT(google-explicit-constructor)
    Result(Error error) : m_held(std::in_place_index<1>, std::move(error)) {} // NOLINT(google-explicit-constructor)

    bool has_value() const noexcept { return m_held.index() == 0; }
    explicit operator bool() const noexcept { return has_value(); }
    const Error &error() const noexcept { return *std::get_if<1>(&m_held); }

    // The value; throws Error where there is none.
    T &value() & {
        check();
        return **this;
    }
    const T &value() const & {
        check();
        return **this;
    }
    // Of a result that ends here, by value: `for (auto &name : attributes.names().value())` walks over what is there.
    T value() && {
        check();
        return std::move(**this);
    }
    // The value, or `other`.
    template <typename Other>
    T value_or(Other &&other) const & {
        return has_value() ? **this : static_cast<T>(std::forward<Other>(other));
    }
    template <typename Other>
    T value_or(Other &&other) && {
        return has_value() ? std::move(**this) : static_cast<T>(std::forward<Other>(other));
    }
    T &operator*() &noexcept { return *std::get_if<0>(&m_held); }
    const T &operator*() const &noexcept { return *std::get_if<0>(&m_held); }
    T &&operator*() &&noexcept { return std::move(*std::get_if<0>(&m_held)); }
    T *operator->() noexcept { return std::get_if<0>(&m_held); }
    const T *operator->() const noexcept { return std::get_if<0>(&m_held); }

  private:
    void check() const {
        if (!has_value()) {
            throw error();
        }
    }
    std::variant<T, Error> m_held;
};

// The same for a call that gives nothing.
template <>
class [[nodiscard]] Result<void> {
  public:
    Result() = default;
    Result(Error error) : m_error(std::move(error)) {} // NOLINT(google-explicit-constructor)

    bool has_value() const noexcept { return !m_error; }
    explicit operator bool() const noexcept { return has_value(); }
    const Error &error() const noexcept { return *m_error; }
    // Throws Error after a failure.
    void value() const {
        if (m_error) {
            throw *m_error;
        }
    }

  private:
    std::optional<Error> m_error;
};

namespace detail {

// A path as the C interface takes it: absolute (a relative one counts from the working directory of the call) and
// without a NUL inside, behind which it would name another file. An absolute path is not copied.
class PathArgument {
  public:
    explicit PathArgument(const std::filesystem::path &path) {
        if (path.empty() || path.native().find('\0') != std::string::npos) {
            return;
        }
        if (path.native().front() == '/') {
            m_text = path.c_str();
            return;
        }
        std::error_code failed;
        m_made = std::filesystem::absolute(path, failed);
        m_text = failed ? nullptr : m_made.c_str();
    }
    PathArgument(const PathArgument &) = delete;
    PathArgument &operator=(const PathArgument &) = delete;

    // Null for a path that names nothing.
    const char *c_str() const noexcept { return m_text; }
    explicit operator bool() const noexcept { return m_text != nullptr; }

  private:
    std::filesystem::path m_made;
    const char *m_text = nullptr;
};

inline Error bad_path(const char *doing, const std::filesystem::path &path) {
    return {Code::invalid_argument, EINVAL, doing, path};
}

// The result of a C call that answers 0, or -1 with the last error.
inline Result<void> checked(int result, const char *doing, const std::filesystem::path &path) {
    return result == 0 ? Result<void>() : Result<void>(Error::last(doing, path));
}

} // namespace detail
} // namespace vexofileop
