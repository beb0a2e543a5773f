// Which kinds of store the two sides of a copy have, where the caller did not say.
#include "ea/carry/job.h"

#include "platform/sdk.h"
#include "support/path_buffer.h"
#include "support/report.h"

#include <cerrno>
#include <cstring>
#include <string_view>

namespace vexo {
namespace {

int type_unknown(const char *path, const char *entry, const char *source) {
    VEXO_LOG_ERROR_IN(VEXO_AT(source), entry, "Failed to get fs type of %s.\n", path);
    return fail(Error::other, VEXO_AT(source));
}

} // namespace

int look_up_source_kind(EaCopyJob &job, const char *entry, const char *source) {
    if (job.srcCode == -1) {
        job.srcCode = VEXOGetFSType(job.src, 1);
    }
    return job.srcCode < 0 ? type_unknown(job.src, entry, source) : 0;
}

int look_up_destination_kind(EaCopyJob &job, const char *entry, const char *source) {
    if (job.dstCode != -1) {
        return 0;
    }
    const std::string_view path = job.dst;
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) {
        VEXO_LOG_ERROR_IN(VEXO_AT(source), entry, "Failed to strrchr '/' of %s, reason=%s.\n", job.dst,
                          ::strerror(errno));
        return fail(Error::other, VEXO_AT(source));
    }
    const PathBuffer parent(path.substr(0, slash == 0 ? 1 : slash));
    if (parent.overflowed()) {
        return fail(Error::name_too_long, VEXO_AT(source));
    }
    job.dstCode = VEXOGetFSType(parent.c_str(), 1);
    return job.dstCode < 0 ? type_unknown(job.dst, entry, source) : 0;
}

} // namespace vexo
