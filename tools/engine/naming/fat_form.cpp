#include "tools/engine/naming/fat_form.h"

#include "tools/engine/report/names.h"
#include "tools/engine/volume/fat_name.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <iterator>
#include <string_view>
#include <strings.h>

namespace engine {
namespace {

constexpr char kStandIn = '-';
constexpr size_t kLongest = 253;         // a "._" before it is taken, too
constexpr size_t kLongestExtension = 32; // what is longer is no extension

// Also what the library leaves as it is, and volumes or other systems refuse.
std::string with_taken_letters(const std::string &name) {
    constexpr char32_t firstPrinted = 0x20, erase = 0x7f;
    std::string made = base_name(fat_name("/" + name));
    for (size_t at = 0; at < made.size();) {
        const Utf8Character letter = first_character(std::string_view(made).substr(at));
        if (!letter.valid || letter.point < firstPrinted || letter.point == erase) {
            made[at] = kStandIn;
        }
        at += letter.length;
    }
    return made;
}

// How long that is in front of a name which stands for a device, in any directory and with any extension; 0: for none.
size_t device_in(const std::string &name) {
    size_t length = std::min(name.find('.'), name.size());
    while (length > 0 && name[length - 1] == ' ') {
        --length;
    }
    const std::string stem = name.substr(0, length);
    const auto is = [&](const char *device) { return ::strcasecmp(stem.c_str(), device) == 0; };
    constexpr const char *devices[] = {"con", "prn", "aux", "nul", "conin$", "conout$", "clock$"};
    const bool port = ::strncasecmp(stem.c_str(), "com", 3) == 0 || ::strncasecmp(stem.c_str(), "lpt", 3) == 0;
    const std::string_view number = port ? std::string_view(stem).substr(3) : std::string_view();
    const bool digit = number.size() == 1 && number.front() >= '0' && number.front() <= '9';
    const bool raised = number == "\u00b9" || number == "\u00b2" || number == "\u00b3"; // which are digits there, too
    return digit || raised || std::any_of(std::begin(devices), std::end(devices), is) ? length : 0;
}

void close_end(std::string &name) {
    if (!name.empty() && (name.back() == '.' || name.back() == ' ')) {
        name.back() = kStandIn;
    }
}

} // namespace

std::string fat_form(const std::string &name, int number) {
    std::string made = with_taken_letters(name);
    if (const size_t device = device_in(made); device > 0) {
        made.insert(device, 1, kStandIn);
    }
    close_end(made);
    if (is_private_name(made) && !is_private_name(name)) {
        made.front() = kStandIn; // it would be taken for what a command has left
    }
    const size_t dot = made.rfind('.');
    const bool extension = dot != std::string::npos && dot != 0 && made.size() - dot <= kLongestExtension;
    const std::string tail =
        (number > 0 ? fmt::format(" ({})", number) : "") + (extension ? made.substr(dot) : std::string());
    std::string stem = extension ? made.substr(0, dot) : made;
    if (stem.size() + tail.size() > kLongest) {
        constexpr unsigned char kind = 0xc0, inside = 0x80;
        size_t end = kLongest - tail.size();
        while (end > 0 && (static_cast<unsigned char>(stem[end]) & kind) == inside) {
            --end;
        }
        stem.resize(end);
    }
    stem += tail;
    close_end(stem);
    return stem;
}

bool is_fat_form(const std::string &made, const std::string &name) {
    if (made == fat_form(name)) {
        return true;
    }
    // What stands in brackets may be the name's own.
    for (size_t at = made.find(" ("); at != std::string::npos; at = made.find(" (", at + 1)) {
        int number = 0;
        const char *const end = made.data() + made.size();
        const auto [behind, error] = std::from_chars(made.data() + at + 2, end, number);
        if (error == std::errc() && behind != end && *behind == ')' && number > 0 && made == fat_form(name, number)) {
            return true;
        }
    }
    return false;
}

} // namespace engine
