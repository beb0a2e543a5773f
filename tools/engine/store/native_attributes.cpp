#include "tools/engine/store/native_attributes.h"

#include "ea/ea.h"
#include "platform/core.h"
#include "tools/engine/report/failure.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <iterator>
#include <memory>
#include <sys/stat.h>

namespace engine {
namespace {

struct FreeList {
    void operator()(VLIBCSzList *list) const { VLIBCSzListFree(list); }
};

bool means_absent(int number) {
    constexpr int numbers[] = {ENODATA, ENOENT, ENOTDIR, EOPNOTSUPP};
    return std::ranges::find(numbers, number) != std::end(numbers);
}

std::optional<int> absent_or_failed(int result) {
    if (result < 0 && !means_absent(errno)) {
        throw_last_error("cannot read it");
    }
    return result < 0 ? std::nullopt : std::optional(result);
}

bool is_regular(const std::string &path) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode);
}

} // namespace

bool is_of_the_system(std::string_view name) {
    constexpr std::string_view prefixes[] = {"security.", "trusted.", "system.", "osx."};
    return std::ranges::any_of(prefixes, [&](std::string_view prefix) { return name.starts_with(prefix); });
}

std::vector<std::string> native_names(const std::string &path, bool forks) {
    forget_last_error();
    VLIBCSzList *list = VLIBCSzListAlloc(16);
    const int result = list == nullptr ? -1 : VEXOEAXattrEnum(path.c_str(), &list);
    const std::unique_ptr<VLIBCSzList, FreeList> owner(list);
    if (list == nullptr || result < 0) {
        throw_last_error("cannot list the attributes");
    }
    std::vector<std::string> names(list->items, list->items + list->count);
    // No list has the fork; it is asked for by its name.
    if (forks && std::ranges::find(names, kResourceForkName) == names.end() && is_regular(path) &&
        native_size(path, kResourceForkName)) {
        names.emplace_back(kResourceForkName);
    }
    return names;
}

std::optional<uint64_t> native_size(const std::string &path, const std::string &name) {
    forget_last_error();
    return absent_or_failed(VEXOEAXattrGet(path.c_str(), name.c_str(), nullptr, 0));
}

std::optional<std::string> native_value(const std::string &path, const std::string &name) {
    const auto size = native_size(path, name);
    if (!size || *size == 0) {
        return size ? std::optional(std::string()) : std::nullopt;
    }
    std::string value(*size, '\0');
    const auto got =
        absent_or_failed(VEXOEAXattrGet(path.c_str(), name.c_str(), value.data(), static_cast<int>(value.size())));
    value.resize(static_cast<size_t>(got.value_or(0)));
    return got ? std::optional(value) : std::nullopt;
}

void set_native_value(const std::string &path, const std::string &name, const std::string &value, int flags) {
    forget_last_error();
    if (value.size() > INT_MAX) {
        throw Failure("the value is too large");
    }
    check(VEXOEAXattrSet(path.c_str(), name.c_str(), value.c_str(), static_cast<int>(value.size()), flags),
          "cannot write it");
}

void remove_native(const std::string &path, const std::string &name) {
    forget_last_error();
    check(VEXOEAXattrRemove(path.c_str(), name.c_str()), "cannot remove it");
}

} // namespace engine
