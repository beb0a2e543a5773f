// Makes a path absolute, and resolves it where it is under the homes of the users.
#include "index/index.h"

#include "support/heap.h"
#include "support/path_buffer.h"

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <unistd.h>

using namespace vexo;

namespace {

constexpr std::string_view kHomesRoot = "/var/services/homes/";

// The one place that writes to the caller's buffer: nothing beyond its size, and a NUL always.
void store(const char *path, char *out, int outSize) {
    std::snprintf(out, static_cast<size_t>(outSize), "%s", path);
}

// Replaces `out` by the resolved path where the path is under the homes and can be resolved.
bool store_resolved(const char *path, char *out, int outSize) {
    PathBuffer resolved;
    if (!std::string_view(path).starts_with(kHomesRoot) || ::realpath(path, resolved.fill()) == nullptr) {
        return false;
    }
    store(resolved.c_str(), out, outSize);
    return true;
}

// "./name" is "name" in the working directory; "./" alone and names such as ".." or ".name" stay as they are.
const char *without_dot(const char *path) {
    const std::string_view text = path;
    return text.starts_with("./") && text.size() >= 3 ? path + 2 : path;
}

// The whole path, of any length: what is looked up must not depend on how much of it the caller's buffer holds. Empty,
// with errno, when there is no working directory or no memory.
HeapBuffer in_working_directory(const char *name) {
    PathBuffer directory;
    if (::getcwd(directory.fill(), PathBuffer::kSize) == nullptr) {
        return {};
    }
    const size_t size = std::strlen(directory.c_str()) + 1 + std::strlen(name) + 1;
    HeapBuffer whole = HeapBuffer::uninitialised(size);
    if (whole) {
        std::snprintf(reinterpret_cast<char *>(whole.data()), size, "%s/%s", directory.c_str(), name);
    }
    return whole;
}

} // namespace

const char *VEXOPathResolve(const char *path, char *out, int outSize) {
    if (out == nullptr || outSize < 1 || path == nullptr) {
        return nullptr;
    }
    if (*path == '/') {
        store(path, out, outSize);
        return store_resolved(path, out, outSize) ? out : path;
    }
    const HeapBuffer whole = in_working_directory(without_dot(path));
    if (!whole) {
        return nullptr;
    }
    const auto *text = reinterpret_cast<const char *>(whole.data());
    store(text, out, outSize);
    (void)store_resolved(text, out, outSize);
    return out;
}
