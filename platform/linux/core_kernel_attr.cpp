// The hooks in place of the appliance kernel's DOS-attribute interface, which a stock kernel has not got.
//
// A record is read, changed and written back in two calls: two processes that change the attributes of one file in the
// same moment may undo each other's change, where the appliance's kernel would make one after the other.
#include "platform/core.h"

#include "platform/linux/core_attribute_store.h"
#include "support/dos_attributes.h"

#include <cerrno>

namespace vexo {
namespace {

// "Locked" is kept as the DOS attribute read-only: SMB clients show such a file as locked, and it survives a restart, a
// move and every copy that takes the extended attributes along.
struct Change {
    int command;
    uint32_t set, clear;
};

constexpr Change kRequests[] = {
    {static_cast<int>(AttributeRequest::clear_archive), 0, kDosArchive},
    {static_cast<int>(AttributeRequest::set_archive), kDosArchive, 0},
    {static_cast<int>(AttributeRequest::set_hidden), kDosHidden, 0},
    {static_cast<int>(AttributeRequest::set_system), kDosSystem, 0},
    {static_cast<int>(AttributeRequest::hide_on_exfat), kDosHidden, 0},
};

constexpr Change kCommands[] = {
    {static_cast<int>(AttributeCommand::set_archive), kDosArchive, 0},
    {static_cast<int>(AttributeCommand::set_hidden), kDosHidden, 0},
    {static_cast<int>(AttributeCommand::clear_hidden), 0, kDosHidden},
    {static_cast<int>(AttributeCommand::unlock), 0, kDosReadOnly},
    {static_cast<int>(AttributeCommand::lock), kDosReadOnly, 0},
};

int run(std::span<const Change> changes, int command, const AttributeFile &file) {
    for (const Change &change : changes) {
        if (change.command == command) {
            return file.change(change.set, change.clear);
        }
    }
    errno = EINVAL;
    return -1;
}

// A volume without attributes locks no file, so that an unlocked one is what it has. The copy of a file's lock, which
// always says one or the other, must not fail there.
int run_command(int command, const AttributeFile &file) {
    const int result = run(kCommands, command, file);
    const bool unlocked = errno == EOPNOTSUPP && command == static_cast<int>(AttributeCommand::unlock);
    return result != 0 && unlocked ? 0 : result;
}

int refuse(int number) {
    errno = number;
    return -1;
}

} // namespace
} // namespace vexo

using namespace vexo;

int VLIBCKernelAttrFcntl(int fd, int command) {
    return fd < 0 ? refuse(EBADF) : run(kRequests, command, AttributeFile::descriptor(fd));
}

int VLIBCKernelAttrCall(const char *path, int command) {
    return path == nullptr ? refuse(EFAULT) : run_command(command, AttributeFile::path(path));
}

int VLIBCKernelAttrFCall(int fd, int command) {
    return fd < 0 ? refuse(EBADF) : run_command(command, AttributeFile::descriptor(fd));
}
