// The routines from volumes that keep Apple's metadata in the file's own attributes.
#include "ea/carry/routines.h"

#include "ea/carry/attributes.h"
#include "ea/carry/stream_files.h"
#include "ea/carry/sync.h"
#include "ea/carry/two_entries.h"
#include "ea/ea.h"
#include "ea/files/positioned.h"
#include "ea/stream/handle.h"
#include "support/big_endian.h"
#include "support/fd.h"
#include "support/guards.h"
#include "support/heap.h"
#include "support/report.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <string_view>

namespace vexo {
namespace {

// What a source's attributes become at the destination.
struct Destination {
    const EaCopyJob &job;
    int companion;

    Fd open(const char *stream, int flags) const {
        return Fd(VEXOEAOpen(kCurrentLayout, job.dst, stream, flags, companion));
    }
};

int write_resource_file(const Destination &destination, const std::array<uint8_t, kFinderInfoSize> &finderInfo,
                        const HeapBuffer &fork, int forkSize) {
    std::array<uint8_t, kForkOffset> head{};
    BigEndianWriter writer(head);
    writer.u32(adouble::kMagic);
    writer.u32(adouble::kVersion);
    writer.bytes("VEXOWARE        ", 16);
    writer.u16(2);
    writer.u32(kFinderInfoEntry);
    writer.u32(kFinderInfoOffset);
    writer.u32(kFinderInfoSize);
    writer.u32(kResourceForkEntry);
    writer.u32(kForkOffset);
    writer.u32(static_cast<uint32_t>(forkSize));

    const Fd file = destination.open(kResourceStream, O_RDWR | O_CREAT | O_TRUNC);
    if (!file) {
        const KeepErrno keep;
        set_error(Error::open, VEXO_EA_COPY_HERE);
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Fail to open vexoresource(%s). %m", destination.job.dst);
        return -1;
    }
    if (!write_at(file.get(), head.data(), head.size(), 0) ||
        !write_at(file.get(), finderInfo.data(), finderInfo.size(), kFinderInfoOffset) ||
        !write_at(file.get(), fork.data(), static_cast<size_t>(forkSize), kForkOffset)) {
        return fail(Error::write, VEXO_EA_COPY_HERE);
    }
    return 0;
}

bool is_apple_metadata(std::string_view name) {
    return name == kFinderInfoName || name == kResourceForkName;
}

// Finder Info and fork, where the source has either.
int carry_apple_metadata(const Destination &destination, const NameList &names) {
    const EaCopyJob &job = destination.job;
    HeapBuffer value;
    std::array<uint8_t, kFinderInfoSize> finderInfo{};
    bool found = false;
    for (int at = 0; at < names.count(); ++at) {
        if (std::string_view(names.at(at)) != kFinderInfoName) {
            continue;
        }
        const int size = get_attribute_or_log(job, kFinderInfoName, value);
        if (size < 0) {
            return -1;
        }
        const size_t taken =
            static_cast<size_t>(size) < finderInfo.size() ? static_cast<size_t>(size) : finderInfo.size();
        if (taken > 0) {
            std::memcpy(finderInfo.data(), value.data(), taken);
        }
        found = true;
    }
    HeapBuffer fork;
    const int forkSize = get_fork(job, fork);
    if (forkSize < 0) {
        return -1;
    }
    return found || forkSize > 0 ? write_resource_file(destination, finderInfo, fork, forkSize) : 0;
}

int write_entry(const EaCopyJob &job, VEXOEAS *stream, const char *name, HeapBuffer &value) {
    const int size = get_attribute_or_log(job, name, value);
    if (size < 0) {
        return -1;
    }
    constexpr int kOverwrite = 1;
    // A value of no bytes still needs a place to point at.
    if (remove_longer(stream, name, static_cast<uint32_t>(size)) < 0 ||
        VEXOEASWrite(stream, name, value.data(), static_cast<uint32_t>(size), 0, kOverwrite) < 0) {
        const KeepErrno keep;
        set_error(Error::write, VEXO_EA_COPY_HERE);
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Fail to write eastream(%s). %m", job.dst);
        return -1;
    }
    return 0;
}

int stream_not_opened(const EaCopyJob &job) {
    const KeepErrno keep;
    set_error(Error::open, VEXO_EA_COPY_HERE);
    VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Fail to open eastream(%s). %m", job.dst);
    return -1;
}

// Every other attribute, as an entry of the destination's attribute stream.
int carry_other_attributes(const Destination &destination, const NameList &names) {
    bool any = false;
    for (int at = 0; at < names.count(); ++at) {
        any = any || !is_apple_metadata(names.at(at));
    }
    if (!any) {
        return 0;
    }
    const Fd file = destination.open(kEaStream, O_RDWR | O_CREAT);
    if (!file) {
        return stream_not_opened(destination.job);
    }
    const StreamHandle stream(file.get(), F_WRLCK);
    if (!stream) {
        return stream_not_opened(destination.job);
    }
    HeapBuffer value;
    for (int at = 0; at < names.count(); ++at) {
        if (!is_apple_metadata(names.at(at)) && write_entry(destination.job, stream.get(), names.at(at), value) < 0) {
            return -1;
        }
    }
    return 0;
}

int carry_attributes_to_streams(const EaCopyJob &job, int companion) {
    NameList names;
    if (list_attributes(job.source(), names) < 0) {
        const KeepErrno keep;
        VEXO_LOG_LAST_ERROR(VEXO_EA_COPY_HERE, "Fail to get EA(%s). %m", job.src);
        return -1;
    }
    const Destination destination{job, companion};
    return carry_apple_metadata(destination, names) < 0 ? -1 : carry_other_attributes(destination, names);
}

} // namespace

int copy_xattrs_to_adfs(const EaCopyJob &job) {
    const int result = carry_attributes_to_streams(job, kAppleDoubleCompanion);
    return result < 0 ? result : remove_source_resource(job);
}

int copy_xattrs_to_xattrs(const EaCopyJob &job) {
    if (copy_attributes(job.src, job.dst, "") < 0) {
        return -1;
    }
    HeapBuffer fork;
    const int size = get_fork(job, fork);
    if (size < 0 || (size > 0 && set_attribute(job.dst, kResourceForkName, fork.data(), size) < 0)) {
        return -1;
    }
    return remove_source_resource(job);
}

int copy_xattrs_to_ea_directory(const EaCopyJob &job) {
    const int result = carry_attributes_to_streams(job, kStreamCompanion);
    return result < 0 ? result : remove_source_resource(job);
}

int copy_xattrs_to_file_ea(const EaCopyJob &job) {
    const int result = copy_xattrs_to_ea_directory(job);
    return result < 0 ? result : sync_destination(job);
}

} // namespace vexo
