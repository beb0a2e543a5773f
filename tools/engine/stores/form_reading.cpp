#include "tools/engine/stores/form_reading.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/store/native_attributes.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <map>
#include <string_view>
#include <unistd.h>

namespace engine {
namespace {

constexpr uint64_t kHeldPart = uint64_t{1} << 20;

[[noreturn]] void throw_read_otherwise() {
    throw Failure("it does not read twice as the same: somebody has changed it meanwhile");
}

std::string held_bytes(int fd, uint64_t offset, uint64_t size) {
    std::string bytes(size, '\0');
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t got = ::pread(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw_errno("its store cannot be read");
        }
        if (got == 0) {
            throw_read_otherwise();
        }
        done += static_cast<size_t>(got);
    }
    return bytes;
}

using ReadPart = std::function<std::string(uint64_t offset, uint64_t size)>;

void check_part(const FormFile &file, uint64_t offset, uint64_t size, const ReadPart &read) {
    for (uint64_t done = 0; done < size; done += kHeldPart) {
        const uint64_t part = std::min(kHeldPart, size - done);
        if (held_bytes(file.held.file.get(), offset + done, part) != read(done, part)) {
            throw_read_otherwise();
        }
    }
}

// Of a name that is there twice the last one counts.
void check_values(const StoreContents &contents, const FormFile &file) {
    std::map<std::string_view, const StoreBytes::Value *> held;
    for (const StoreBytes::Value &value : file.bytes.values) {
        held[value.name] = &value;
    }
    if (held.size() != contents.attributes().size()) {
        throw_read_otherwise();
    }
    for (const StoreContents::Attribute &one : contents.attributes()) {
        const auto found = held.find(one.name);
        if (found == held.end() || found->second->length != one.size) {
            throw_read_otherwise();
        }
        check_part(file, found->second->offset, one.size,
                   [&](uint64_t offset, uint64_t size) { return contents.value(one, offset, size); });
    }
}

void check_fork(const StoreContents &contents, const FormFile &file) {
    if (file.bytes.forkLength != contents.fork_size()) {
        throw_read_otherwise();
    }
    check_part(file, file.bytes.forkOffset, contents.fork_size(),
               [&](uint64_t offset, uint64_t size) { return contents.fork(offset, size); });
}

void check_finder_info(const StoreContents &contents, const FormFile &file, const std::string &inAttribute) {
    const std::string &bytes = file.bytes.finderInfo;
    const bool none = std::ranges::all_of(bytes, [](char byte) { return byte == '\0'; });
    const std::string &read = contents.finder_info();
    if (read != (none ? inAttribute : bytes) && (inAttribute.empty() || read != inAttribute)) {
        throw_read_otherwise();
    }
}

// Which is none to who reads it.
bool is_zero_info(const std::string &entry) {
    const auto value = native_value(entry, kFinderInfoName);
    return value && std::ranges::all_of(*value, [](char byte) { return byte == '\0'; });
}

} // namespace

void check_read_as_held(const StoreContents &contents, StoreKind kind, EntryForms &forms) {
    if (kind == StoreKind::native) {
        for (const std::string &name : forms.native_names()) {
            const bool read = name == kFinderInfoName
                                  ? !contents.finder_info().empty() || is_zero_info(forms.itself())
                                  : std::ranges::find(contents.attributes(), name, &StoreContents::Attribute::name) !=
                                        contents.attributes().end();
            if (!read) {
                throw_read_otherwise();
            }
        }
        return;
    }
    const bool beside = kind == StoreKind::apple_double;
    const FormFile &resource = beside ? forms.beside() : forms.resource();
    const std::string inAttribute =
        kind == StoreKind::file_ea && forms.metadata() ? metadata_finder_info(*forms.metadata()) : std::string();
    check_values(contents, beside ? forms.beside() : forms.stream());
    check_fork(contents, resource);
    check_finder_info(contents, resource, inAttribute);
}

} // namespace engine
