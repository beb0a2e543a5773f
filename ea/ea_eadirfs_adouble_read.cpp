// Reads the header at the start of a file's resource file.
#include "ea/ea.h"

#include "ea/double/format.h"
#include "ea/double/resource_path.h"
#include "ea/files/store_file.h"
#include "ea/names/entry.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>

using namespace vexo;

int vexo::read_resource_header(const FileRef &file, VEXOEAAdouble *adouble) {
    PathBuffer resource;
    if (!make_resource_path(file, resource, VEXO_HERE)) {
        return -1;
    }
    if (!names_entry(file.path())) {
        return 1;
    }
    const Fd opened = open_store_file(resource.c_str(), O_RDONLY);
    if (!opened) {
        if (errno == ENOENT) {
            return 1;
        }
        VEXO_LOG_ERROR(VEXO_HERE, "Error: open path [%s] %s", resource.c_str(), std::strerror(errno));
        return fail(Error::open, VEXO_HERE);
    }
    std::array<uint8_t, adouble::kResourceHeaderSize> header{};
    const ssize_t size = ::read(opened.get(), header.data(), header.size());
    if (size < 0) {
        VEXO_LOG_ERROR(VEXO_HERE, "Error: read path [%s] %s", resource.c_str(), std::strerror(errno));
        return fail(Error::read, VEXO_HERE);
    }
    if (static_cast<size_t>(size) < header.size()) { // too short to hold metadata, which is no error
        return 1;
    }
    if (VEXOEAAdoubleRead(header.data(), static_cast<int>(header.size()), adouble) != 0) {
        VEXO_LOG_ERROR(VEXO_HERE, "EAAdoubleRead failed");
        return -1;
    }
    return 0;
}

int VEXOEAEADirAdoubleRead(const char *path, VEXOEAAdouble *adouble) {
    if (path == nullptr || adouble == nullptr) {
        return fail(Error::invalid_argument, VEXO_HERE);
    }
    return read_resource_header(path, adouble);
}
