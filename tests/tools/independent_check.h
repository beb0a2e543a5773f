// Whether two trees differ, for a program that asks the kernel alone and shares no code with the library or the tool.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

namespace kit {

// The places below the first tree that were told to lack something, each with its class; "*": it did not get there.
using ToldDifferences = std::vector<std::pair<std::string, std::string>>;

// Empty: in nothing but what was told.
inline std::string independent_differences(const std::string &one, const std::string &other,
                                           const ToldDifferences &told = {}) {
    std::FILE *const notes = std::tmpfile();
    if (notes == nullptr) {
        return "no file for the notes can be made";
    }
    std::string text = one + '\0' + other + '\0';
    for (const auto &[path, cls] : told) {
        text += path + '\0' + cls + '\0' + '\0';
    }
    text += std::string(3, '\0');
    (void)!std::fwrite(text.data(), 1, text.size(), notes);
    std::fflush(notes);
    const std::string command =
        std::string(SWEEP_DIFFERENCES) + " /proc/self/fd/" + std::to_string(::fileno(notes)) + " 2>&1";
    std::FILE *const pipe = ::popen(command.c_str(), "r"); // NOLINT(cert-env33-c): a program of the tests
    std::string said;
    char part[4096];
    for (size_t got = 1; pipe != nullptr && got > 0;) {
        got = std::fread(part, 1, sizeof part, pipe);
        said.append(part, got);
    }
    const int status = pipe == nullptr ? -1 : ::pclose(pipe);
    std::fclose(notes);
    return status == 0 ? "" : said + "status " + std::to_string(status);
}

// The same of every so-manieth pair of trees; with VEXO_FULL in the environment of all of them. For sweeps, whose every
// success is compared by the tool as well.
class SeldomIndependent {
  public:
    explicit SeldomIndependent(size_t one_of) : m_oneOf(std::getenv("VEXO_FULL") != nullptr ? 1 : one_of) {}
    std::string operator()(const std::string &one, const std::string &other, const ToldDifferences &told = {}) {
        return m_asked++ % m_oneOf == 0 ? independent_differences(one, other, told) : "";
    }

  private:
    size_t m_oneOf, m_asked = 0;
};

} // namespace kit
