#include "tools/vexofileop/terminal/progress_bar.h"

#include <algorithm>
#include <fmt/format.h>
#include <vector>

namespace tool {
namespace {

constexpr double kMeasuredSeconds = 5;
constexpr int kSmallestBar = 10;
constexpr int kLargestBar = 60;
constexpr const char *kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};

struct Scaled {
    std::string number;
    size_t unit;
};

// Rounds down what is not negative. std::floor would do, but it, std::ceil and std::pow would make libm one library
// more that every start of the tool loads.
int64_t whole_of(double value) {
    return static_cast<int64_t>(value);
}

Scaled scaled(double bytes, size_t unit) {
    double value = bytes;
    for (size_t step = 0; step < unit; ++step) {
        value /= 1024;
    }
    return {unit > 0 && value < 10 ? fmt::format("{:.1f}", static_cast<double>(whole_of(value * 10)) / 10)
                                   : fmt::format("{}", whole_of(value)),
            unit};
}

Scaled scaled(double bytes) {
    size_t unit = 0;
    for (double value = bytes; value >= 1000 && unit + 1 < std::size(kUnits); value /= 1024) {
        ++unit;
    }
    return scaled(bytes, unit);
}

std::string text(const Scaled &size) {
    return size.number + " " + kUnits[size.unit];
}

std::string time_text(double seconds) {
    constexpr double longest = 99 * 3600;
    const double shown = std::min(seconds, longest);
    const int64_t whole = whole_of(shown) + (static_cast<double>(whole_of(shown)) < shown ? 1 : 0);
    return whole >= 3600 ? fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60)
                         : fmt::format("{}:{:02}", whole / 60, whole % 60);
}

double fraction_of(const ProgressView &view) {
    return std::clamp(static_cast<double>(view.done) / static_cast<double>(view.total), 0.0, 1.0);
}

std::string amount_text(const ProgressView &view) {
    if (view.total <= 0) {
        return text(scaled(static_cast<double>(view.done)));
    }
    const Scaled total = scaled(static_cast<double>(view.total));
    return fmt::format("{} of {}", scaled(static_cast<double>(view.done), total.unit).number, text(total));
}

// The parts in the order in which a narrow line keeps them, which is the order on the line too.
std::vector<std::string> parts_of(const ProgressView &view) {
    std::vector<std::string> parts;
    if (view.total > 0) {
        parts.push_back(fmt::format("{:3}%", whole_of(fraction_of(view) * 100)));
    }
    parts.push_back(amount_text(view));
    if (view.rate) {
        parts.push_back(size_text(static_cast<int64_t>(*view.rate)) + "/s");
        const double left = static_cast<double>(view.total - view.done);
        if (view.left) {
            parts.push_back(time_text(*view.left) + " left");
        } else if (*view.rate > 0 && left >= 0 && view.total > 0) {
            parts.push_back(time_text(left / *view.rate) + " left");
        }
    }
    if (view.totalFiles > 0) {
        parts.push_back(fmt::format("{}/{} files", view.files, view.totalFiles));
    }
    return parts;
}

std::string bar(double fraction, int columns) {
    const int inside = columns - 2;
    const auto filled = static_cast<size_t>(whole_of(fraction * inside));
    std::string line(filled, '=');
    if (filled < static_cast<size_t>(inside)) {
        line += '>';
        line.resize(static_cast<size_t>(inside), ' ');
    }
    return "[" + line + "]";
}

} // namespace

std::string render_progress(const ProgressView &view) {
    const int room = view.width - 1;
    std::string line;
    for (const std::string &part : parts_of(view)) {
        const size_t before = line.size();
        line += (line.empty() ? "" : "  ") + part;
        if (static_cast<int>(line.size()) > room) {
            line.resize(before);
            return line;
        }
    }
    const int columns = std::min(room - static_cast<int>(line.size()) - 1, kLargestBar);
    return view.total > 0 && columns >= kSmallestBar ? bar(fraction_of(view), columns) + " " + line : line;
}

std::string size_text(int64_t bytes) {
    return text(scaled(static_cast<double>(bytes)));
}

void RateMeter::add(double moment, int64_t done) {
    m_samples.push_back({moment, done});
    while (m_samples.size() > 2 && moment - m_samples[1].moment >= kMeasuredSeconds) {
        m_samples.pop_front();
    }
}

std::optional<double> RateMeter::rate() const {
    if (m_samples.size() < 2 || m_samples.back().moment <= m_samples.front().moment) {
        return std::nullopt;
    }
    return static_cast<double>(m_samples.back().done - m_samples.front().done) /
           (m_samples.back().moment - m_samples.front().moment);
}

} // namespace tool
