#include "tools/engine/relocate/mounts.h"

#include "tools/engine/report/failure.h"

#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

namespace engine {
namespace {

bool is_octal(const std::string &text, size_t at) {
    return at + 3 < text.size() && text[at] == '\\' && text[at + 1] >= '0' && text[at + 1] <= '3' &&
           text[at + 2] >= '0' && text[at + 2] <= '7' && text[at + 3] >= '0' && text[at + 3] <= '7';
}

// Blanks, line feeds and backslashes stand there as "\040".
std::string unescaped(const std::string &text) {
    std::string out;
    for (size_t at = 0; at < text.size(); ++at) {
        if (is_octal(text, at)) {
            out += static_cast<char>((text[at + 1] - '0') * 64 + (text[at + 2] - '0') * 8 + (text[at + 3] - '0'));
            at += 3;
        } else {
            out += text[at];
        }
    }
    return out;
}

} // namespace

std::optional<std::string> mount_in(const std::string &path, bool itself) {
    const std::unique_ptr<char, decltype(&std::free)> real(::realpath(path.c_str(), nullptr), &std::free);
    const std::string wanted = real == nullptr ? path : real.get();
    std::ifstream table("/proc/self/mountinfo");
    bool any = false;
    for (std::string line; std::getline(table, line);) {
        any = true;
        std::istringstream words(line);
        std::string word;
        for (int count = 0; count < 5; ++count) {
            words >> word;
        }
        const std::string place = unescaped(word);
        if ((itself && place == wanted) || place.starts_with(wanted == "/" ? "/" : wanted + "/")) {
            return place;
        }
    }
    if (!any) {
        throw Failure("the table of mounts cannot be read");
    }
    return std::nullopt;
}

} // namespace engine
