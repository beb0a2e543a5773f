#include "tools/engine/archive/arrival_list.h"

#include "tools/engine/archive/arrivals.h"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/transfer/write_out.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/rename.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr size_t kHeldText = 1 << 16; // bytes of text in memory
constexpr int kMostOfASecond = 999;

// In UTC. FAT takes no colon in a name.
std::string arrival_time(std::time_t now, char between) {
    std::tm parts{};
    ::gmtime_r(&now, &parts);
    return fmt::format("{:04}-{:02}-{:02}T{:02}{}{:02}{}{:02}Z", parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday,
                       parts.tm_hour, between, parts.tm_min, between, parts.tm_sec);
}

// In the order of their numbers, and behind the first, also by their names.
std::string list_name(const std::string &base, int number) {
    return number == 1 ? base + ".list" : fmt::format("{}{:03}.list", base, number);
}

} // namespace

ArrivalList::ArrivalList(const std::string &source, const std::string &destination, std::time_t now,
                         std::string_view kind)
    : m_directory(parent_of(destination)), m_base(base_name(destination) + '.' + arrival_time(now, '-')) {
    if (!m_directory.is_open()) {
        throw_errno("the directory cannot be opened");
    }
    if (list_name(m_base, kMostOfASecond).size() > NAME_MAX) {
        throw Failure("its name would be too long");
    }
    m_file = unnamed_file(m_directory, m_made);
    m_text = fmt::format("# backup of {} to {}, {}, {}\n", displayed(source), displayed(destination),
                         arrival_time(now, ':'), kind);
}

ArrivalList::~ArrivalList() {
    if (!m_made.empty()) {
        (void)::unlinkat(m_directory.fd(), m_made.c_str(), 0);
    }
}

void ArrivalList::add(std::string_view what, int64_t bytes, const std::string &path) {
    m_text += fmt::format("{}\t{}\t{}\n", what, bytes, displayed(path));
    ++m_entries;
    m_bytes += bytes;
    if (m_text.size() > kHeldText) {
        write_out();
    }
}

void ArrivalList::write_out() {
    if (!write_all(m_file.get(), m_text)) {
        throw_errno_in(m_directory.fd(), "cannot be written");
    }
    m_text.clear();
}

std::string ArrivalList::put_in_place(int64_t failed) {
    m_text +=
        fmt::format("# {} {}, {} bytes, {} failed\n", m_entries, m_entries == 1 ? "entry" : "entries", m_bytes, failed);
    write_out();
    if (::fsync(m_file.get()) != 0) {
        throw_errno_in(m_directory.fd(), "cannot be written out");
    }
    for (int number = 1; number <= kMostOfASecond; ++number) {
        const std::string name = list_name(m_base, number);
        if (named(name)) {
            m_made.clear();
            if (const auto problem = write_out_directory(m_directory)) {
                throw Failure(problem->reason);
            }
            return joined(m_directory.path(), name);
        }
        if (errno != EEXIST) {
            break;
        }
    }
    throw_errno_in(m_directory.fd(), "cannot be given its name");
}

// What stands under a name stays.
bool ArrivalList::named(const std::string &name) const {
    if (!m_made.empty()) {
        return rename_without_replacing(m_directory.fd(), m_made, m_directory.fd(), name);
    }
    const std::string opened = fmt::format("/proc/self/fd/{}", m_file.get());
    return ::linkat(AT_FDCWD, opened.c_str(), m_directory.fd(), name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

} // namespace engine
