#include "tools/engine/transfer/system_attributes.h"

#include "platform/core.h"
#include "tools/engine/store/store.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>
#include <sys/xattr.h>

#pragma weak VLIBCFileIsRecord

namespace engine {
namespace {

constexpr std::array<std::string_view, 4> kOfTheSystem = {"security.selinux", "security.SMACK64", "security.ima",
                                                          "security.evm"};

bool is_carried(std::string_view name) {
    return (name.starts_with("security.") || name.starts_with("trusted.")) &&
           std::ranges::none_of(kOfTheSystem, [&](std::string_view label) { return name.starts_with(label); });
}

// Grows with what is asked for: most files have a few short names, or none.
template <typename Ask>
bool read_all(std::string &buffer, const Ask &ask) {
    for (buffer.resize(1024);;) {
        const ssize_t size = ask(buffer.data(), buffer.size());
        if (size >= 0) {
            buffer.resize(static_cast<size_t>(size));
            return true;
        }
        const ssize_t needed = errno == ERANGE ? ask(nullptr, 0) : -1;
        if (needed < 0) {
            return false;
        }
        buffer.resize(static_cast<size_t>(needed) + 64);
    }
}

bool read_attribute(const std::string &path, const char *name, std::string &value) {
    return read_all(value, [&](char *at, size_t size) { return ::getxattr(path.c_str(), name, at, size); });
}

void copy_attribute(const std::string &source, const std::string &destination, const char *name,
                    RefusedAttributes &refused) {
    std::string value;
    if (read_attribute(source, name, value) &&
        ::setxattr(destination.c_str(), name, value.data(), value.size(), 0) != 0) {
        refused.emplace_back(name, errno);
    }
}

bool is_users(std::string_view name) {
    return name.starts_with("user.") && name != kMetadataName && !name.starts_with("user.vexo.") &&
           (VLIBCFileIsRecord == nullptr || VLIBCFileIsRecord(name.data()) == 0);
}

RefusedAttributes copy_those(const std::string &source, const std::string &destination,
                             bool (*meant)(std::string_view)) {
    std::string names;
    RefusedAttributes refused;
    if (!read_all(names, [&](char *at, size_t size) { return ::listxattr(source.c_str(), at, size); })) {
        return refused;
    }
    for (size_t at = 0; at < names.size(); at += std::string_view(&names[at]).size() + 1) {
        if (meant(&names[at])) {
            copy_attribute(source, destination, &names[at], refused);
        }
    }
    return refused;
}

} // namespace

RefusedAttributes copy_system_attributes(const std::string &source, const std::string &destination) {
    return copy_those(source, destination, is_carried);
}

RefusedAttributes copy_user_attributes(const std::string &source, const std::string &destination) {
    return copy_those(source, destination, is_users);
}

} // namespace engine
