#include "tools/engine/archive/arrivals.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/transfer/placement.h"
#include "tools/engine/walk/private_name.h"
#include "tools/engine/workers/record.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr size_t kHeldRecords = 1 << 20; // bytes of records in memory

Arrival read_arrival(RecordReader &from) {
    Arrival arrival;
    arrival.source = from.text();
    arrival.destination = from.text();
    arrival.directory = from.number<bool>();
    if (!arrival.directory) {
        arrival.status = from.number<struct stat>();
        arrival.store = from.number<uint64_t>();
    }
    return arrival;
}

// Visits the whole records at the front, and takes them off it.
void visit(std::string &records, const std::function<void(const Arrival &)> &visitor) {
    size_t done = 0;
    for (uint32_t size = 0; records.size() - done >= sizeof size; done += sizeof size + size) {
        std::memcpy(&size, records.data() + done, sizeof size);
        if (records.size() - done - sizeof size < size) {
            break;
        }
        RecordReader record(std::string_view(records).substr(done + sizeof size, size));
        visitor(read_arrival(record));
    }
    records.erase(0, done);
}

} // namespace

Descriptor unnamed_file(const HeldDirectory &directory, std::string &name) {
    constexpr mode_t mine = 0600;
    constexpr int mostNames = 1000;
    Descriptor file(::open(directory.itself().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, mine));
    if (file.get() >= 0) {
        return file;
    }
    (void)clear_left_overs(directory); // of runs that were stopped
    for (int i = 0; i < mostNames && (i == 0 || errno == EEXIST); ++i) {
        name = next_private_name();
        file = Descriptor(::openat(directory.fd(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, mine));
        if (file.get() >= 0) {
            return file;
        }
    }
    throw_errno_in(directory.fd(), "nothing can be made there");
}

void Arrivals::add(const Arrival &arrival) {
    RecordWriter record;
    record.text(arrival.source).text(arrival.destination).number(arrival.directory);
    if (!arrival.directory) {
        record.number(arrival.status).number(arrival.store);
    }
    RecordWriter size;
    size.number(static_cast<uint32_t>(record.bytes().size()));
    m_records += size.bytes() + record.bytes();
    if (!arrival.directory && arrival.status.st_nlink > 1) {
        ++m_names[{arrival.status.st_dev, arrival.status.st_ino}];
    }
    if (m_records.size() > kHeldRecords) {
        write_out();
    }
}

void Arrivals::write_out() {
    if (m_file.get() < 0) {
        std::string name;
        m_file = unnamed_file(m_beside, name);
        if (!name.empty()) {
            (void)::unlinkat(m_beside.fd(), name.c_str(), 0);
        }
    }
    if (!write_all(m_file.get(), m_records)) {
        throw_errno_in(m_beside.fd(), "what has arrived cannot be noted");
    }
    m_records.clear();
}

int64_t Arrivals::names_of(const FileNumber &file) const {
    const auto found = m_names.find(file);
    return found == m_names.end() ? 0 : found->second;
}

void Arrivals::each(const std::function<void(const Arrival &)> &visitor) const {
    std::string records;
    std::string part(kHeldRecords, '\0');
    for (off_t at = 0; m_file.get() >= 0;) {
        const ssize_t got = ::pread(m_file.get(), part.data(), part.size(), at);
        if (got < 0 && errno != EINTR) {
            throw_errno("what has arrived cannot be read back");
        }
        if (got == 0) {
            break;
        }
        records.append(part, 0, got < 0 ? 0 : static_cast<size_t>(got));
        at += got < 0 ? 0 : got;
        visit(records, visitor);
    }
    records += m_records;
    visit(records, visitor);
}

} // namespace engine
