// Shared folders: which one holds a path, the record of one, and whether a path is in a recycle bin.
//
// Last errors: 0x0D00 for a bad argument, 0x0700 when there is no such share, 0xBE00 when the configuration cannot be
// read, so that nobody can tell, 0xC300 when a name or path is too long for the caller's buffer, 0x0200 out of memory.
#include "platform/sdk.h"

#include "platform/linux/sdk_smb_conf.h"
#include "platform/linux/share_status.h"
#include "platform/linux/text_file.h"
#include "support/heap.h"
#include "support/report.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace vexo {
namespace {

// The share with the longest path that holds a path.
struct Search {
    std::string_view path;
    ShareSection found;
    PathBuffer foundPath;
    bool any = false;

    static bool visit(void *data, const ShareSection &share) {
        auto &search = *static_cast<Search *>(data);
        PathBuffer sharePath;
        if (!share.is_homes() && share_holds(share, search.path, sharePath) &&
            (!search.any || sharePath.length() > search.foundPath.length())) {
            search.found = share;
            search.foundPath = sharePath;
            search.any = true;
        }
        return true;
    }
};

// 1 found, 0 there is none, -1 nobody can tell.
int find_share(Search &search) {
    return visit_shares({Search::visit, &search}) == SmbConf::broken ? -1 : search.any ? 1 : 0;
}

std::string_view take_component(std::string_view &path) {
    while (path.starts_with('/')) {
        path.remove_prefix(1);
    }
    const std::string_view component = path.substr(0, path.find('/'));
    path.remove_prefix(component.size());
    return component;
}

// Whether a path below a share is the bin or in it. A component with a substitution ("%U") stands for any name that
// begins as it does.
bool is_in_bin(std::string_view below, std::string_view repository) {
    std::string_view pattern = take_component(repository);
    if (pattern.empty()) {
        return false;
    }
    for (; !pattern.empty(); pattern = take_component(repository)) {
        const std::string_view component = take_component(below);
        const size_t percent = pattern.find('%');
        const bool same = percent == std::string_view::npos
                              ? component == pattern
                              : component.size() > percent && component.starts_with(pattern.substr(0, percent));
        if (!same) {
            return false;
        }
    }
    return true;
}

struct Lookup {
    const char *name;
    VEXOShare *record = nullptr;
    bool outOfMemory = false;

    static bool visit(void *data, const ShareSection &share) {
        auto &lookup = *static_cast<Lookup *>(data);
        if (!same_share(share.name_view(), lookup.name) || !share.is_folder()) {
            return true;
        }
        lookup.record = make(share);
        lookup.outOfMemory = lookup.record == nullptr;
        return false;
    }

    static VEXOShare *make(const ShareSection &share) {
        auto *record = static_cast<VEXOShare *>(std::calloc(1, sizeof(VEXOShare)));
        if (record == nullptr) {
            return nullptr;
        }
        record->name = ::strdup(share.name);
        record->path = ::strdup(share.path.c_str());
        record->status = (share.indexed ? kShareIndexed : 0) | (share.encrypted ? kShareEncrypted : 0);
        if (record->name == nullptr || record->path == nullptr) {
            VEXOShareFree(record);
            return nullptr;
        }
        return record;
    }
};

} // namespace
} // namespace vexo

using namespace vexo;

int VEXOShareNamePathGet(const char *path, char *name, int nameSize, char *sharePath, int sharePathSize) {
    if (path == nullptr || *path != '/' || name == nullptr || nameSize <= 0 || sharePath == nullptr ||
        sharePathSize <= 0) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    Search search{.path = path, .found = {}, .foundPath = {}};
    if (const int found = find_share(search); found <= 0) {
        return fail(found == 0 ? Error::source_missing : Error::share_missing, VEXO_HERE);
    }
    if (search.found.name_view().size() >= static_cast<size_t>(nameSize) ||
        search.foundPath.length() >= static_cast<size_t>(sharePathSize)) {
        return fail(Error::name_too_long, VEXO_HERE);
    }
    return put_text(search.found.name_view(), name, nameSize) &&
                   put_text(search.foundPath.view(), sharePath, sharePathSize)
               ? 0
               : -1;
}

int VEXOShareGet(const char *name, VEXOShare **share) {
    if (name == nullptr || *name == '\0' || share == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    Lookup lookup{.name = name};
    if (visit_shares({Lookup::visit, &lookup}) == SmbConf::broken) {
        VEXOShareFree(lookup.record);
        return fail(Error::share_missing, VEXO_HERE);
    }
    if (lookup.record == nullptr) {
        return fail(lookup.outOfMemory ? Error::out_of_memory : Error::source_missing, VEXO_HERE);
    }
    *share = lookup.record;
    return 0;
}

void VEXOShareFree(VEXOShare *share) {
    if (share != nullptr) {
        std::free(share->name);
        std::free(share->path);
        std::free(share);
    }
}

int VEXOShareIsShareRecycle(const char *path) {
    if (path == nullptr || *path != '/') {
        return 0;
    }
    Search search{.path = path, .found = {}, .foundPath = {}};
    if (find_share(search) != 1) {
        return 0;
    }
    return is_in_bin(tail(search.path, search.foundPath.length()), search.found.repository.view()) ? 1 : 0;
}
