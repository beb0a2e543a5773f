#include "tools/vexofileop/arguments/quantity.h"

#include "tools/engine/report/names.h"
#include "tools/vexofileop/arguments/usage_error.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>

namespace tool {
namespace {

struct Unit {
    std::string_view name;
    double size;
};

// A number, with decimals or not, and a unit behind it.
std::optional<double> measured(std::string_view text, const Unit *units, size_t count) {
    // By hand: the standard library's reading of decimals would need one more library at each start.
    const char *const last = text.data() + text.size();
    uint64_t whole = 0;
    auto [end, error] = std::from_chars(text.data(), last, whole);
    if (error != std::errc()) {
        return std::nullopt;
    }
    auto number = static_cast<double>(whole);
    if (end != last && *end == '.') {
        double part = 1;
        for (++end; end != last && *end >= '0' && *end <= '9'; ++end) {
            part /= 10;
            number += part * (*end - '0');
        }
    }
    const std::string_view name(end, static_cast<size_t>(last - end));
    for (size_t at = 0; at < count; ++at) {
        if (name.size() == units[at].name.size() &&
            ::strncasecmp(name.data(), units[at].name.data(), name.size()) == 0) {
            return number * units[at].size;
        }
    }
    return std::nullopt;
}

std::optional<time_t> date(const std::string &text) {
    for (const char *const format :
         {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M", "%Y-%m-%dT%H:%M:%S"}) {
        struct tm parts {};
        parts.tm_isdst = -1;
        const char *const end = ::strptime(text.c_str(), format, &parts);
        if (end != nullptr && *end == '\0') {
            const struct tm asked = parts;
            const time_t when = ::mktime(&parts);
            // The 30th of February is no day.
            return parts.tm_mday == asked.tm_mday ? std::optional(when) : std::nullopt;
        }
    }
    return std::nullopt;
}

// `what`: what the text is none of.
int64_t parse_bytes(const char *option, const std::string &text, const char *what) {
    constexpr double kilo = 1024, thousand = 1000;
    static constexpr std::array<Unit, 17> units = {{{"", 1},
                                                    {"B", 1},
                                                    {"K", kilo},
                                                    {"KiB", kilo},
                                                    {"KB", thousand},
                                                    {"M", kilo * kilo},
                                                    {"MiB", kilo * kilo},
                                                    {"MB", thousand * thousand},
                                                    {"G", kilo * kilo * kilo},
                                                    {"GiB", kilo * kilo * kilo},
                                                    {"GB", thousand * thousand * thousand},
                                                    {"T", kilo * kilo * kilo * kilo},
                                                    {"TiB", kilo * kilo * kilo * kilo},
                                                    {"TB", thousand * thousand * thousand * thousand},
                                                    {"P", kilo * kilo * kilo * kilo * kilo},
                                                    {"PiB", kilo * kilo * kilo * kilo * kilo},
                                                    {"PB", thousand * thousand * thousand * thousand * thousand}}};
    constexpr double most = 9e18; // below 2^63
    const auto size = measured(text, units.data(), units.size());
    if (!size || *size > most) {
        throw UsageError(fmt::format("{}: {} is no {}", option, engine::displayed(text), what));
    }
    return static_cast<int64_t>(*size);
}

} // namespace

int64_t parse_size(const char *option, const std::string &text) {
    return parse_bytes(option, text, "size, as \"10K\" or \"1.5G\"");
}

int64_t parse_rate(const char *option, const std::string &text) {
    const bool plain =
        !text.empty() && (std::isdigit(static_cast<unsigned char>(text.back())) != 0 || text.back() == '.');
    const int64_t rate = parse_bytes(option, plain ? text + "K" : text, "rate, as \"500\" (KiB a second) or \"1.5M\"");
    if (rate == 0 && text.find_first_of("123456789") != std::string::npos) {
        throw UsageError(fmt::format("{}: {} is less than a byte a second", option, engine::displayed(text)));
    }
    return rate;
}

int parse_count(const char *option, const std::string &text, int least) {
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < least) {
        throw UsageError(fmt::format("{} {}: give a number, {} or more", option, engine::displayed(text), least));
    }
    return number;
}

timespec parse_moment(const char *option, const std::string &text, const timespec &now) {
    static constexpr std::array<Unit, 5> units = {
        {{"s", 1}, {"m", 60}, {"h", 3600}, {"d", 24 * 3600}, {"w", 7 * 24 * 3600}}};
    if (text.find('/') != std::string::npos) {
        struct stat found {};
        if (::stat(text.c_str(), &found) != 0) {
            throw UsageError(fmt::format("{}: {}: {}", option, engine::displayed(text), std::strerror(errno)));
        }
        return found.st_mtim;
    }
    if (const auto day = date(text)) {
        return {*day, 0};
    }
    const auto seconds = text.starts_with('@')
                             ? measured(std::string_view(text).substr(1), std::array<Unit, 1>{{{"", 1}}}.data(), 1)
                             : measured(text, units.data(), units.size());
    constexpr double most = 1e15;
    if (!seconds || *seconds > most) {
        throw UsageError(
            fmt::format("{}: {} is no time, as \"2026-01-31\", \"7d\" or \"./FILE\"", option, engine::displayed(text)));
    }
    const double whole = static_cast<double>(static_cast<time_t>(*seconds));
    const auto parts = static_cast<long>((*seconds - whole) * 1e9);
    if (text.starts_with('@')) {
        return {static_cast<time_t>(whole), parts};
    }
    timespec then = {now.tv_sec - static_cast<time_t>(whole), now.tv_nsec - parts};
    if (then.tv_nsec < 0) {
        then.tv_nsec += 1'000'000'000;
        --then.tv_sec;
    }
    return then;
}

} // namespace tool
