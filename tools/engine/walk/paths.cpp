#include "tools/engine/walk/paths.h"

#include "tools/engine/report/invalid_request.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <unistd.h>

namespace engine {
namespace {

std::string working_directory() {
    const std::unique_ptr<char, decltype(&std::free)> directory(::getcwd(nullptr, 0), &std::free);
    if (directory == nullptr) {
        throw InvalidRequest(fmt::format("the working directory cannot be told: {}", std::strerror(errno)));
    }
    return directory.get();
}

} // namespace

std::string absolute_path(std::string_view path) {
    if (path.empty()) {
        throw InvalidRequest("an empty path was given");
    }
    const std::string whole = path.front() == '/' ? std::string(path) : working_directory() + "/" + std::string(path);
    std::string out;
    for (std::string_view rest = whole; !rest.empty();) {
        const size_t slash = rest.find('/');
        const std::string_view component = rest.substr(0, slash);
        if (!component.empty() && component != ".") {
            out += '/';
            out += component;
        }
        rest.remove_prefix(slash == std::string_view::npos ? rest.size() : slash + 1);
    }
    return out.empty() ? "/" : out;
}

std::string base_name(std::string_view path) {
    return std::string(path.substr(path.rfind('/') + 1));
}

std::string parent_of(std::string_view path) {
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : std::string(path.substr(0, slash));
}

std::string joined(const std::string &directory, const std::string &name) {
    return directory == "/" ? "/" + name : directory + "/" + name;
}

std::vector<std::string> names_in_path(std::string_view path) {
    std::vector<std::string> names;
    while (!path.empty()) {
        const size_t length = std::min(path.find('/'), path.size());
        if (length > 0) {
            names.emplace_back(path.substr(0, length));
        }
        path.remove_prefix(std::min(path.size(), length + 1));
    }
    return names;
}

} // namespace engine
