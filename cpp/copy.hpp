// Copying and moving files and trees, with options that cannot contradict each other and callbacks that may throw.
//
//  1. Paths are std::filesystem::path; a relative one counts from the working directory. An empty path and one with a
//     NUL inside are refused with Code::invalid_argument before anything is done.
//  2. Callbacks run on the calling thread, between two steps. An exception that leaves one ends the call as a
//     cancellation does, and is then thrown to the caller of the call, whatever that would have given. Where it came
//     after the last block, the file it came from has arrived all the same.
//  3. All calls go through those functions of the C interface whose callbacks carry user data, so that no state is kept
//     beside a call: calls of several threads never meet, and a callback may call again.
//  4. An options object is not changed by a call and may serve many, at the same time too if its callbacks may.
//  5. The process: the umask is 0 while a file or tree is copied, and the effective user root for moments where the
//     process may become it. Callers serialise, as with the C functions.
//
// What each call does step by step, and what it promises when it fails or is killed, is that of the C functions
// (copy.h): a destination that is replaced is gone when the copy of it fails.
#pragma once

#include "copy/copy.h"
#include "cpp/result.hpp"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <type_traits>
#include <utility>

namespace vexofileop {

// How far a call is, after each block.
struct Progress {
    std::int64_t bytes;  // of this step: a block written, a hole skipped, or all of a file that was renamed
    std::int64_t offset; // in this file, behind the block; 0 after a rename
    std::int64_t total;  // the bytes of all steps of this call
};

// A file or directory that was not copied.
struct Failure {
    std::filesystem::path path; // of the source
    Code code;
};

// What an ACL comes to at the destination.
enum class Acl {
    copy,    // that of the source, and its archive ACL
    inherit, // what the destination's directory hands on
    none,    // what the kernel gives a new file
};

// What becomes of Finder Info, named attributes and resource fork.
enum class Store {
    carry, // arrives with the file
    whole, // and with it all that services keep in the file's directory in "@eaDir", whatever the volumes
    leave, // stays where it is; of a move this loses it to the file
};

namespace detail {

struct CallbackSet {
    std::function<void(const Progress &)> progress;
    std::function<bool()> cancel;
    std::function<std::int64_t(std::int64_t, std::int64_t)> readSize;
    std::function<void(const Failure &)> failure;
    std::function<std::optional<std::filesystem::path>(const std::filesystem::path &)> rename;
    std::function<std::optional<std::string>(const std::string &)> entryName;
};

// What every call with data to move can be told.
template <typename Self>
class DataSettings {
  public:
    // Called after each block.
    Self &progress(std::function<void(const Progress &)> function) {
        m_callbacks.progress = std::move(function);
        return self();
    }
    // Asked before each block and each entry: true to stop. Once it has said so it is not asked again.
    Self &cancel(std::function<bool()> function) {
        m_callbacks.cancel = std::move(function);
        return self();
    }
    // How many bytes to read next, of the bytes read last and the offset. Below 1 or above 8 MiB stand for 8 MiB, which
    // is also the size without it.
    Self &read_size(std::function<std::int64_t(std::int64_t lastBytes, std::int64_t offset)> function) {
        m_callbacks.readSize = std::move(function);
        return self();
    }
    const CallbackSet &callbacks() const noexcept { return m_callbacks; }

  protected:
    Self &self() noexcept { return static_cast<Self &>(*this); }
    CallbackSet m_callbacks;
};

// What copies and moves have in common. As made, nothing that exists is touched, and everything arrives: owner, ACL and
// what belongs to a file.
template <typename Self>
class TransferSettings : public DataSettings<Self> {
  public:
    // A destination file that exists: fails with Code::destination_exists and stays (as made), ...
    Self &fail_if_exists() { return existing(kFail); }
    // ... is replaced, at once: it is gone when the copy of it fails, ...
    Self &replace_existing() { return existing(kReplace); }
    // ... or stays, which is a success, and the source of a move stays too.
    Self &keep_existing() { return existing(0); }

    // The copy gets owner and group of the source (as made). This needs root; a process that is not root makes files
    // of its own, which with_own_rights() makes a failure.
    Self &owner_of_source() {
        m_keepsOwner = true;
        return this->self();
    }
    // The copy gets these. Throws std::invalid_argument for 0, which the records cannot say (to them it means the users
    // of the appliance's services), and for the highest number, which stands for "none".
    Self &owner(uid_t user, gid_t group) {
        if (user == 0 || group == 0 || user == static_cast<uid_t>(-1) || group == static_cast<gid_t>(-1)) {
            throw std::invalid_argument("no owner that a copy can be given");
        }
        m_keepsOwner = false;
        m_user = user;
        m_group = group;
        return this->self();
    }
    // The times are set without becoming root, and an owner that cannot be set is a failure: Code::owner_not_set,
    // with the file copied.
    Self &with_own_rights(bool on = true) { return flag(kOwnRights, on); }

    // As made Acl::copy. In trees Acl::inherit leaves each entry what the kernel gives it.
    Self &acl(Acl what) {
        flag(kCopyAcl, what == Acl::copy);
        return flag(kInheritAcl, what == Acl::inherit);
    }
    // As made Store::carry.
    Self &store(Store what) {
        flag(kLeaveStore, what == Store::leave);
        return flag(kWholeStore, what == Store::whole);
    }
    // After a success the source's archive bit is cleared, as a backup does.
    Self &clear_archive(bool on = true) {
        m_clearsArchive = on;
        return this->self();
    }
    // Called for each file or directory that was not copied.
    Self &on_failure(std::function<void(const Failure &)> function) {
        this->m_callbacks.failure = std::move(function);
        return this->self();
    }

    // The flag word and the record of the C interface that say the same.
    std::uint32_t flags() const noexcept { return m_flags | (m_keepsOwner ? kKeepOwner : 0U); }
    VEXOCopyArgs record() const noexcept {
        VEXOCopyArgs args{};
        args.fsTypeSrc = args.fsTypeDst = -1;
        args.uid = m_user;
        args.gid = m_group;
        args.cleanArchive = m_clearsArchive ? 1 : 0;
        return args;
    }

  protected:
    static constexpr std::uint32_t kFail = 1, kReplace = 2, kKeepOwner = 8, kOwnRights = 16, kCopyAcl = 32,
                                   kInheritAcl = 64, kStopOnError = 128, kLeaveStore = 256, kWholeStore = 512,
                                   kClone = 1024;
    Self &flag(std::uint32_t bit, bool on) {
        m_flags = on ? m_flags | bit : m_flags & ~bit;
        return this->self();
    }
    Self &existing(std::uint32_t policy) {
        m_flags = (m_flags & ~(kFail | kReplace)) | policy;
        this->m_callbacks.rename = nullptr;
        return this->self();
    }

  private:
    std::uint32_t m_flags = kFail | kCopyAcl;
    bool m_keepsOwner = true, m_clearsArchive = false;
    uid_t m_user = 0;
    gid_t m_group = 0;
};

} // namespace detail

// For copy_data: progress(), cancel(), read_size().
class DataOptions : public detail::DataSettings<DataOptions> {};

// For copies.
class CopyOptions : public detail::TransferSettings<CopyOptions> {
  public:
    // A destination file that exists stays, and the copy gets the path that `function` gives for it: nothing, or one
    // that exists too, fails with Code::no_free_name. There is no such thing for a move, which would leave the source
    // in silence. Throws std::invalid_argument for no function.
    CopyOptions &
    rename_if_exists(std::function<std::optional<std::filesystem::path>(const std::filesystem::path &)> function) {
        if (!function) {
            throw std::invalid_argument("no function that gives a name");
        }
        existing(0);
        m_callbacks.rename = std::move(function);
        return *this;
    }
    // Shares the data with the source where both are on btrfs and the kernel can; they are copied where not.
    CopyOptions &clone(bool on = true) { return flag(kClone, on); }
    // Of a tree: ends at the first entry that fails (as made: it is passed over, and told).
    CopyOptions &stop_on_error(bool on = true) { return flag(kStopOnError, on); }
    // Of a tree: the name that an entry gets at the destination; nothing: its own. A name that is empty, ".", ".." or
    // has a "/" or NUL in it ends the call with std::invalid_argument.
    CopyOptions &entry_names(std::function<std::optional<std::string>(const std::string &)> function) {
        m_callbacks.entryName = std::move(function);
        return *this;
    }
};

// For moves.
class MoveOptions : public detail::TransferSettings<MoveOptions> {
  public:
    // As for CopyOptions.
    MoveOptions &stop_on_error(bool on = true) { return flag(kStopOnError, on); }
};

// What a copy or move of one file came to.
struct Copied {
    // Stopped on request: of a copy nothing is left at the destination, of a move the source is there (and the copy
    // too, where it was complete by then).
    bool cancelled = false;
};

// What a copy or move of a tree came to.
struct TreeCopied {
    bool cancelled = false;       // stopped on request: what was copied by then is there
    std::size_t failed = 0;       // so many entries were not copied and were told to on_failure
    std::optional<Failure> first; // the first of them
    // Everything arrived that such a copy carries. Devices, pipes and sockets are none of it, nor is what does not
    // arrive although its file does (an owner or ACL that the volume does not take): that is in the system log.
    bool complete() const noexcept { return !cancelled && failed == 0; }
};

namespace detail {

// One call: the record that it gets, and what its callbacks come to. A callback is in the record only where the caller
// gave one, but for the question whether to stop, which an exception needs as well.
class Session {
  public:
    Session(const CallbackSet &callbacks, VEXOCopyArgs record, bool countsFailures)
        : m_callbacks(callbacks), m_record(record) {
        const bool mayThrow =
            callbacks.progress || callbacks.readSize || callbacks.failure || callbacks.rename || callbacks.entryName;
        set(bool(callbacks.progress), m_record.progress, m_record.progressArg, on_progress);
        set(callbacks.cancel || mayThrow, m_record.isCancel, m_record.isCancelArg, on_poll);
        set(bool(callbacks.readSize), m_record.getReadSize, m_record.getReadSizeArg, on_read_size);
        set(callbacks.failure || countsFailures, m_record.errReport, m_record.errReportArg, on_failure);
        set(bool(callbacks.rename), m_record.rename, m_record.renameArg, on_rename);
        set(bool(callbacks.entryName), m_record.getDstFileName, m_record.getDstFileNameArg, on_name);
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    VEXOCopyArgs *record() noexcept { return &m_record; }
    bool cancelled() const noexcept { return m_cancelled; }
    TreeCopied &outcome() noexcept { return m_outcome; }
    // After the call: throws what a callback threw.
    void rethrow() const {
        if (m_thrown) {
            std::rethrow_exception(m_thrown);
        }
    }

  private:
    template <typename Function>
    void set(bool wanted, Function &slot, void *&data, std::common_type_t<Function> function) {
        if (wanted) {
            slot = function;
            data = this;
        }
    }
    // Runs what is the caller's, unless it has thrown already. False: it has.
    template <typename Task>
    bool guarded(Task &&task) noexcept {
        if (!m_thrown) {
            try {
                task();
            } catch (...) {
                m_thrown = std::current_exception();
            }
        }
        return !m_thrown;
    }
    static Session &of(void *data) noexcept { return *static_cast<Session *>(data); }
    // A text into a buffer of the library; false where it does not fit.
    static bool store(const std::string &text, char *out, int size) noexcept {
        if (size <= 0 || text.size() >= static_cast<std::size_t>(size)) {
            return false;
        }
        std::memcpy(out, text.c_str(), text.size() + 1);
        return true;
    }

    static void on_progress(void *data, std::int64_t bytes, std::int64_t offset) noexcept {
        Session &session = of(data);
        session.m_total += bytes;
        (void)session.guarded([&] { session.m_callbacks.progress(Progress{bytes, offset, session.m_total}); });
    }
    static int on_poll(void *data) noexcept {
        Session &session = of(data);
        if (!session.m_cancelled && session.m_callbacks.cancel) {
            (void)session.guarded([&] { session.m_cancelled = session.m_callbacks.cancel(); });
        }
        return session.m_cancelled || session.m_thrown ? 1 : 0;
    }
    static std::int64_t on_read_size(void *data, std::int64_t lastBytes, std::int64_t offset) noexcept {
        Session &session = of(data);
        std::int64_t size = 0;
        // After an exception as little as there is, for the question whether to stop comes before the next block.
        return session.guarded([&] { size = session.m_callbacks.readSize(lastBytes, offset); }) ? size : 1;
    }
    static void on_failure(void *data, const char *path, std::uint32_t code) noexcept {
        Session &session = of(data);
        ++session.m_outcome.failed;
        (void)session.guarded([&] {
            Failure failure{path == nullptr ? "" : path, static_cast<Code>(code)};
            if (!session.m_outcome.first) {
                session.m_outcome.first = failure;
            }
            if (session.m_callbacks.failure) {
                session.m_callbacks.failure(failure);
            }
        });
    }
    static int on_rename(void *data, const char *destination, char *out, int size) noexcept {
        Session &session = of(data);
        bool given = false;
        (void)session.guarded([&] {
            const auto other = session.m_callbacks.rename(destination);
            given = other && !other->empty() && other->native().find('\0') == std::string::npos &&
                    store(std::filesystem::absolute(*other).native(), out, size);
        });
        return given ? 0 : -1;
    }
    static int on_name(void *data, const char *name, char *out, int size) noexcept {
        Session &session = of(data);
        bool given = false;
        (void)session.guarded([&] {
            const auto other = session.m_callbacks.entryName(name);
            if (!other) {
                return;
            }
            if (other->empty() || *other == "." || *other == ".." ||
                other->find_first_of(std::string("/\0", 2)) != std::string::npos) {
                throw std::invalid_argument("no name of an entry: \"" + displayed(*other) + "\"");
            }
            given = store(*other, out, size);
            if (!given) {
                throw std::invalid_argument("a name of an entry that is too long");
            }
        });
        return given ? 0 : -1;
    }

    const CallbackSet &m_callbacks;
    VEXOCopyArgs m_record;
    std::exception_ptr m_thrown;
    std::int64_t m_total = 0;
    bool m_cancelled = false;
    TreeCopied m_outcome;
};

// The C functions of files and trees have one form.
using TransferFunction = int (*)(const char *, const char *, std::uint32_t, VEXOCopyArgs *);

constexpr std::uint32_t kMove = 4, kRelocate = 0x800;

template <typename Options>
Result<TreeCopied> transfer(TransferFunction function, const char *doing, const std::filesystem::path &source,
                            const std::filesystem::path &destination, const Options &options, std::uint32_t flags,
                            bool countsFailures) {
    const PathArgument from(source);
    const PathArgument to(destination);
    if (!from || !to) {
        return bad_path(doing, from ? destination : source);
    }
    Session session(options.callbacks(), options.record(), countsFailures);
    forget();
    const int result = function(from.c_str(), to.c_str(), options.flags() | flags, session.record());
    const bool stopped =
        session.cancelled() && (result == 0 || VLIBCErrGet() == static_cast<std::uint32_t>(Code::cancelled));
    if (result != 0 && !stopped) {
        Error error = Error::last(doing, source);
        session.rethrow();
        return error;
    }
    session.rethrow();
    session.outcome().cancelled = stopped;
    return std::move(session.outcome());
}

inline Result<Copied> of_one_file(const Result<TreeCopied> &result) {
    return result ? Result<Copied>(Copied{result->cancelled}) : Result<Copied>(result.error());
}

} // namespace detail

// Copies the regular file `source` to the path `destination`, which is that of the new file and not of a directory to
// put it into: data, mode, owner, times, DOS attributes, ACL, and what belongs to it, as far as the destination takes
// it (what it does not take is in the system log).
//
// Errors: those of VEXOFileOpCopyFile in copy.h; Code::destination_exists and Code::no_free_name as the options say.
// After a failure or a cancellation there is nothing at the destination.
inline Result<Copied> copy_file(const std::filesystem::path &source, const std::filesystem::path &destination,
                                const CopyOptions &options = {}) {
    return detail::of_one_file(detail::transfer(VEXOFileOpCopyFile, "copy", source, destination, options, 0, false));
}

// Moves a regular file: renames it where both paths are on one volume, else copies it and then removes the source. A
// source that cannot be removed then is in the system log, and the move a success. Errors: as copy_file.
inline Result<Copied> move_file(const std::filesystem::path &source, const std::filesystem::path &destination,
                                const MoveOptions &options = {}) {
    return detail::of_one_file(
        detail::transfer(VEXOFileOpCopyFile, "move", source, destination, options, detail::kMove, false));
}

// Copies the directory `source` with everything in it to the path `destination`, into which it is merged where it
// exists. An entry that fails is passed over: ask complete(). Errors: those of VEXOFileOpCopyDir in copy.h, for what
// ended the whole tree.
inline Result<TreeCopied> copy_tree(const std::filesystem::path &source, const std::filesystem::path &destination,
                                    const CopyOptions &options = {}) {
    return detail::transfer(VEXOFileOpCopyDir, "copy", source, destination, options, 0, true);
}

// Moves a directory: renames it where that is possible, else removes each entry from the source as it has arrived.
// Errors: as copy_tree.
inline Result<TreeCopied> move_tree(const std::filesystem::path &source, const std::filesystem::path &destination,
                                    const MoveOptions &options = {}) {
    return detail::transfer(VEXOFileOpCopyDir, "move", source, destination, options, detail::kMove, true);
}

// What becomes of the source of relocate_tree.
enum class SourceAfter { keep, remove };

// Puts a copy of the directory `source` in the place of the directory `destination`, everything in which is removed:
// the copy is staged in "@tmp" beside it first. With SourceAfter::remove the source goes too, and with it what such a
// copy passes over: keep it and compare where that matters. What the options say of existing files means nothing here.
//
// Errors: those of a relocation in copy.h. A cancelled one leaves source and destination as they were.
inline Result<TreeCopied> relocate_tree(const std::filesystem::path &source, const std::filesystem::path &destination,
                                        SourceAfter then, const CopyOptions &options = {}) {
    return detail::transfer(VEXOFileOpCopyDir, "relocate", source, destination, options,
                            detail::kRelocate | (then == SourceAfter::keep ? detail::kMove : 0U), true);
}

// Copies `size` bytes from one open descriptor, which stands at its start, to where the other stands. Both stay the
// caller's and open. Holes are skipped where the destination can have them. Errors: those of VEXOFileOpCopyFileFd in
// copy.h. What was written before a failure or a cancellation stays.
inline Result<Copied> copy_data(int from, int to, std::int64_t size, const DataOptions &options = {}) {
    VEXOCopyArgs record{};
    record.fsTypeSrc = record.fsTypeDst = -1;
    detail::Session session(options.callbacks(), record, false);
    detail::forget();
    const int result = VEXOFileOpCopyFileFd(from, to, size, session.record());
    const bool stopped = session.cancelled() && VLIBCErrGet() == static_cast<std::uint32_t>(Code::cancelled);
    if (result < 0 && !stopped) {
        Error error = Error::last("copy", {});
        session.rethrow();
        return error;
    }
    session.rethrow();
    return Copied{stopped};
}

// Whether the appliance's switch for clone copies is on.
inline bool clones_are_enabled() {
    return VEXOFileCopyReflinkIsEnabled() == 1;
}

// Turns the switch on or off. Errors: Code::clones_unsupported on a machine without btrfs; Code::write where the
// setting was not stored.
inline Result<void> enable_clones(bool on) {
    constexpr char doing[] = "switch clones in";
    constexpr char settings[] = "/etc/vexoinfo.conf";
    detail::forget();
    // The function answers 0 too where nothing was done.
    if (VEXOFileCopyReflinkEnable(on ? 1 : 0) != 0 || VLIBCErrGet() != 0) {
        return Error::last(doing, settings);
    }
    return clones_are_enabled() == on ? Result<void>() : Result<void>(Error(Code::write, 0, doing, settings));
}

// The path with "-" in place of what a FAT volume does not take in the last component. Errors: Code::invalid_argument
// for "/", Code::out_of_memory, Code::name_too_long.
inline Result<std::filesystem::path> fat_path(const std::filesystem::path &path) {
    const detail::PathArgument given(path);
    if (!given) {
        return detail::bad_path("name", path);
    }
    char fixed[4096] = "";
    detail::forget();
    if (std::strlen(given.c_str()) >= sizeof fixed) { // which would be cut to the path of another file
        return Error(Code::name_too_long, ENAMETOOLONG, "name", path);
    }
    if (VEXOStrReplaceFATReservedChar(given.c_str(), fixed, sizeof fixed) != 0) {
        return Error::last("name", path);
    }
    return std::filesystem::path(fixed);
}

} // namespace vexofileop
