#include "tests/model/harness.h"

#include "tests/kit/seeds.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <regex>
#include <set>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <syslog.h>
#include <unistd.h>

namespace model {
namespace {

std::vector<std::string> *events = nullptr;

constexpr int64_t kLongAgo = 1'000'000'000; // times before that were set, later ones came by themselves

std::string hex(uint64_t number) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%llX", static_cast<unsigned long long>(number));
    return text.data();
}

std::string time(const timespec &when) {
    return when.tv_sec < kLongAgo ? std::to_string(when.tv_sec) + "." + std::to_string(when.tv_nsec) : "now";
}

// The data of a file, extent by extent, as a few words.
std::string contentOf(const std::string &path) {
    std::string words;
    std::FILE *const file = std::fopen(path.c_str(), "re");
    if (file == nullptr) {
        return "unreadable";
    }
    for (const kit::Extent &extent : kit::extentsOf(path)) {
        std::string bytes(static_cast<size_t>(extent.length), '\0');
        const ssize_t got = ::pread(::fileno(file), bytes.data(), bytes.size(), extent.offset);
        bytes.resize(got < 0 ? 0 : static_cast<size_t>(got));
        words += " " + std::to_string(extent.offset) + "+" + std::to_string(extent.length) + ":" +
                 hex(std::hash<std::string>()(bytes));
    }
    std::fclose(file);
    return words;
}

// Extended attributes without the record of DOS attributes, which holds the time when the file was made.
std::string attributesOf(const std::string &path) {
    std::array<char, 4096> names{};
    const ssize_t size = ::llistxattr(path.c_str(), names.data(), names.size());
    std::set<std::string> sorted;
    for (ssize_t at = 0; at < size;) {
        const std::string name = names.data() + at;
        at += static_cast<ssize_t>(name.size()) + 1;
        if (name != "user.DOSATTRIB") {
            sorted.insert(name + "=" + hex(std::hash<std::string>()(kit::attribute(path, name))));
        }
    }
    std::string words;
    for (const std::string &one : sorted) {
        words += " " + one;
    }
    return words;
}

std::string describe(const std::string &path) {
    VLIBCStat status = {};
    const struct stat &st = status.st;
    if (VLIBCFileLStat(path.c_str(), VLIBC_STAT_BASIC | VLIBC_STAT_ATTRIBUTES | VLIBC_STAT_CREATE_TIME, &status) != 0) {
        return "unknown";
    }
    std::array<char, 64> mode{};
    std::snprintf(mode.data(), mode.size(), " %07o %u:%u links %u", st.st_mode, st.st_uid, st.st_gid,
                  static_cast<unsigned>(st.st_nlink));
    std::string words = mode.data();
    if (S_ISREG(st.st_mode)) {
        words += " size " + std::to_string(st.st_size) + " modified " + time(st.st_mtim) + " made " +
                 time(status.createTime) + " DOS " + hex(status.attributes) + contentOf(path) + attributesOf(path);
    }
    return words;
}

std::vector<std::string> filesBelow(const std::string &root) {
    std::vector<std::string> lines;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root)) {
        lines.push_back(entry.path().string() + describe(entry.path()));
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// Whether a call is one whose order is promised: those of the platform, and those that change something or decide.
bool isCompared(const std::string &call, bool readsAndWrites) {
    static const std::set<std::string> kPromised = {"rename", "fchown",  "chown",     "fchmod",    "chmod",
                                                    "unlink", "remove",  "ftruncate", "fallocate", "lseek",
                                                    "access", "seteuid", "ioctl"};
    const std::string name = call.substr(0, call.find('('));
    return name.front() == 'V' || kPromised.count(name) != 0 || (readsAndWrites && (name == "read" || name == "write"));
}

std::string firstDifference(const std::string &what, const std::vector<std::string> &expected,
                            const std::vector<std::string> &got) {
    for (size_t at = 0; at < std::max(expected.size(), got.size()); ++at) {
        const std::string one = at < expected.size() ? expected[at] : "(nothing)";
        const std::string other = at < got.size() ? got[at] : "(nothing)";
        if (one != other) {
            return what + " " + std::to_string(at) + "\n  model   " + one + "\n  library " + other + "\n";
        }
    }
    return {};
}

} // namespace

void note(const std::string &event) {
    const kit::FaultsOff quiet;
    if (events != nullptr) {
        events->push_back(event);
    }
}

Outcome observe(const Observation &how, const std::function<int64_t()> &call) {
    Outcome seen;
    kit::Log::reset();
    kit::Faults::reset();
    for (const kit::FaultRule &rule : how.rules) {
        kit::Faults::add(rule);
    }
    kit::Faults::record(true);
    VLIBCErrSetEx(kUnsetError, "before", 0);
    events = &seen.events;
    const kit::ProcessState before = kit::ProcessState::now();
    {
        const kit::FaultsOff quiet;
        if (how.user != 0) {
            EXPECT_EQ(0, ::seteuid(how.user));
        }
    }
    seen.result = call();
    const std::vector<std::string> calls = kit::Faults::recorded();
    kit::Faults::reset();
    EXPECT_EQ(how.user, ::geteuid());
    EXPECT_EQ(0, ::seteuid(0));
    EXPECT_EQ(before, kit::ProcessState::now());
    events = nullptr;
    seen.code = VLIBCErrGet();
    seen.codeFile = VLIBCErrorGetFile();
    for (const kit::LogLine &line : kit::Log::lines()) {
        seen.log.push_back(std::to_string(line.priority) + " " + line.source + " " + line.body);
    }
    for (const std::string &one : calls) {
        if (isCompared(one, how.readsAndWrites)) {
            seen.calls.push_back(one);
        }
    }
    seen.files = filesBelow(how.root);
    static const std::regex kLineNumber("(\\.c):[0-9]+");
    for (auto *const list : {&seen.events, &seen.log, &seen.calls, &seen.files}) {
        for (std::string &text : *list) {
            for (size_t at = text.find(how.root); at != std::string::npos; at = text.find(how.root, at)) {
                text.replace(at, how.root.size(), "ROOT");
            }
        }
    }
    for (std::string &text : seen.log) {
        text = std::regex_replace(text, kLineNumber, "$1:LINE");
    }
    return seen;
}

std::string difference(const Outcome &expected, const Outcome &got) {
    std::string text;
    if (expected.result != got.result) {
        text += "result: model " + std::to_string(expected.result) + ", library " + std::to_string(got.result) + "\n";
    }
    if (expected.code != got.code || expected.codeFile != got.codeFile) {
        text += "last error: model 0x" + hex(expected.code) + " " + expected.codeFile + ", library 0x" + hex(got.code) +
                " " + got.codeFile + "\n";
    }
    return text + firstDifference("event", expected.events, got.events) +
           firstDifference("log line", expected.log, got.log) + firstDifference("call", expected.calls, got.calls) +
           firstDifference("file", expected.files, got.files);
}

void forEachSeed(uint32_t few, uint32_t many, const std::function<std::string(uint32_t seed)> &run) {
    for (const uint32_t seed : kit::seeds(few, many)) {
        if (const std::string text = run(seed); !text.empty()) {
            ADD_FAILURE() << kit::repeat(seed) << "\n" << text;
            return;
        }
    }
}

void setError(uint32_t code, const std::string &source) {
    static auto *const names = new std::set<std::string>; // the platform keeps the pointer
    VLIBCErrSetEx(code, names->insert(source).first->c_str(), 1);
}

void logLine(int priority, const std::string &source, const char *format, ...) {
    const int number = errno;
    std::array<char, 16384> text{};
    va_list arguments;
    va_start(arguments, format);
    errno = number; // for %m
    std::vsnprintf(text.data(), text.size(), format, arguments);
    va_end(arguments);
    ::syslog(priority, "%s:%d %s", source.c_str(), 1, text.data());
    errno = number;
}

} // namespace model
