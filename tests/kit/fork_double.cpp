#include "tests/kit/fork_double.h"

#include "tests/kit/scratch.h"

#include <cerrno>
#include <cstring>
#include <set>
#include <stdexcept>

namespace kit {
namespace {

std::set<std::string> &doubles() {
    static auto *instance = new std::set<std::string>;
    return *instance;
}

} // namespace

void ForkDouble::make(const std::string &path, std::string_view fork, mode_t mode) {
    if (::mkdir(path.c_str(), 0755) != 0) {
        throw std::runtime_error("mkdir " + path + ": " + std::strerror(errno));
    }
    writeFile(forkOf(path), fork, 0666);
    if (::chmod(path.c_str(), mode) != 0) {
        throw std::runtime_error("chmod " + path + ": " + std::strerror(errno));
    }
    doubles().insert(path);
}

std::string ForkDouble::read(const std::string &path) {
    return readFile(forkOf(path));
}

void ForkDouble::reset() {
    doubles().clear();
}

void shapeAsFile(const char *path, struct stat *found) {
    if (!doubles().empty() && doubles().contains(path)) {
        found->st_mode = (found->st_mode & ~static_cast<mode_t>(S_IFMT)) | S_IFREG;
    }
}

} // namespace kit
