// The appliance kernel's DOS-attribute interface. Where the platform defines the hooks of platform/core.h they are
// called in place of the kernel. Nothing here reports: results and errno are the kernel's.
#pragma once

#include "platform/core.h"
#include "support/file_ref.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#pragma weak VLIBCKernelAttrFcntl
#pragma weak VLIBCKernelAttrCall
#pragma weak VLIBCKernelAttrFCall

namespace vexo {

// Commands on a descriptor.
enum class AttributeRequest : int {
    clear_archive = 0x201,
    set_archive = 0x202,
    set_hidden = 0x203,
    set_system = 0x204,
    hide_on_exfat = 515,
};

// Commands on a file.
enum class AttributeCommand : int {
    set_archive = 514,
    set_hidden = 515,
    clear_hidden = 518,
    unlock = 521,
    lock = 522,
};

inline int request_attribute(int fd, AttributeRequest request) {
    const int command = static_cast<int>(request);
    return VLIBCKernelAttrFcntl != nullptr ? VLIBCKernelAttrFcntl(fd, command) : ::fcntl(fd, command);
}

inline int command_attribute(const FileRef &file, AttributeCommand command) {
    constexpr long kAttributeCall = 803;
    const int number = static_cast<int>(command);
    const char *const path = file.path();
    if (file.is_open() && VLIBCKernelAttrFCall != nullptr) {
        return VLIBCKernelAttrFCall(file.fd(), number);
    }
    return VLIBCKernelAttrCall != nullptr ? VLIBCKernelAttrCall(path, number)
                                          : static_cast<int>(::syscall(kAttributeCall, path, number));
}

} // namespace vexo
