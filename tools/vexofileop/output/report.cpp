#include "tools/vexofileop/output/report.h"

#include "tools/engine/report/failure.h"
#include "tools/engine/report/names.h"
#include "tools/engine/walk/descriptor.h"
#include "tools/engine/walk/paths.h"
#include "tools/engine/walk/private_name.h"
#include "tools/vexofileop/output/conversion_json.h"
#include "tools/vexofileop/output/entry_text.h"
#include "tools/vexofileop/output/finding_json.h"
#include "tools/vexofileop/output/json.h"
#include "tools/vexofileop/output/loss_json.h"
#include "tools/vexofileop/terminal/progress_bar.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <string_view>
#include <unistd.h>

namespace tool {
namespace {

struct FateRow {
    const char *word, *colour;
};
// In the order of the enumeration. The colours differ in lightness too, for who tells them apart by that.
constexpr std::array<FateRow, 8> kFates = {{{"copied", "#2e7d32"},
                                            {"moved", "#1b5e20"},
                                            {"cloned", "#81c784"},
                                            {"same", "#a5d6a7"},
                                            {"skipped", "#bdbdbd"},
                                            {"different", "#f9a825"},
                                            {"failed", "#b71c1c"},
                                            {"removed", "#4e342e"}}};
constexpr size_t kMostWays = 40; // that the picture shows
constexpr const char *kStyle = "body{font:15px/1.5 system-ui,sans-serif;margin:2em auto;max-width:60em;padding:0 1em;"
                               "color:#222;background:#fff}table{border-collapse:collapse}td,th{padding:.2em .8em;"
                               "text-align:left;border-bottom:1px solid #ddd}td.n{text-align:right}"
                               "code{overflow-wrap:anywhere}details{margin:.5em 0}summary{cursor:pointer}"
                               "svg text{font:13px system-ui,sans-serif;fill:#222}";

std::string escaped(std::string_view text) {
    std::string out;
    for (const char letter : text) {
        switch (letter) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            out += letter;
        }
    }
    return out;
}

std::string name_text(const std::string &path) {
    return escaped(engine::displayed(path));
}

std::string both_text(const std::string &source, const std::string &destination) {
    return fmt::format("<code>{}</code> &rarr; <code>{}</code>", name_text(source), name_text(destination));
}

std::string time_now() {
    const std::time_t now = std::time(nullptr);
    std::tm parts{};
    char text[32] = "";
    ::gmtime_r(&now, &parts);
    std::strftime(text, sizeof text, "%FT%TZ", &parts);
    return text;
}

bool is_json(const std::string &path) {
    return path.ends_with(".json");
}

// The new one under a name of its own, then in the place of the old one.
void replace_file(const std::string &path, const std::string &text) {
    const std::string made = engine::joined(engine::parent_of(path), engine::next_private_name());
    constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    const engine::Descriptor file(::open(made.c_str(), flags, 0666));
    if (file.get() < 0) {
        engine::throw_errno("cannot be written");
    }
    try {
        if (!engine::write_all(file.get(), text) || ::fsync(file.get()) != 0 ||
            ::rename(made.c_str(), path.c_str()) != 0) {
            engine::throw_errno("cannot be written");
        }
    } catch (const engine::Failure &) {
        ::unlink(made.c_str());
        throw;
    }
}

} // namespace

void Report::begin(const std::string &source, const std::string &destination) {
    m_ways.push_back({source, destination});
}

void Report::count(Fate fate, int64_t entries, int64_t bytes) {
    if (!m_ways.empty()) {
        Count &count = m_ways.back().counts[static_cast<size_t>(fate)];
        count.entries += entries;
        count.bytes += bytes;
    }
}

void Report::problem(const std::string &source, const std::string &destination, const std::string &reason) {
    m_problems.push_back({source, destination, reason});
}

void Report::loss(const std::string &source, const std::string &destination, const engine::Loss &loss) {
    m_receipt.add(source, destination, loss);
    m_losses.push_back({source, destination, loss});
}

void Report::replaced(const std::string &source, const engine::Outcome &outcome) {
    if (outcome.inPlace || !outcome.backup.empty() || outcome.oldNames > 0) {
        m_replaced.push_back(
            {source, outcome.destination, outcome.backup, outcome.inPlace, outcome.oldNames, outcome.oldNamesKnown});
    }
}

void Report::kept(const std::string &path, const std::string &backup) {
    m_replaced.push_back({"", path, backup});
}

void Report::conversion(const engine::Conversion &conversion) {
    m_conversions.push_back(conversion);
    for (const engine::Loss &one : conversion.losses) {
        loss(conversion.file, conversion.file, one);
    }
}

Report::Counts Report::totals() const {
    Counts sum = {};
    for (const Way &way : m_ways) {
        for (size_t at = 0; at < sum.size(); ++at) {
            sum[at].entries += way.counts[at].entries;
            sum[at].bytes += way.counts[at].bytes;
        }
    }
    return sum;
}

// A bar for each way, as long as its share of the entries, in the colours of what became of them.
std::string Report::picture() const {
    constexpr int width = 860, rowHeight = 44;
    int64_t most = 1;
    for (const Way &way : m_ways) {
        int64_t entries = 0;
        for (const Count &count : way.counts) {
            entries += count.entries;
        }
        most = std::max(most, entries);
    }
    const size_t shown = std::min(m_ways.size(), kMostWays);
    std::string svg = fmt::format("<svg role=\"img\" aria-label=\"What went where, and how\" width=\"{0}\" "
                                  "height=\"{1}\" viewBox=\"0 0 {0} {1}\">\n",
                                  width, static_cast<int>(shown) * rowHeight + 30);
    for (size_t row = 0; row < shown; ++row) {
        const Way &way = m_ways[row];
        const int top = static_cast<int>(row) * rowHeight;
        svg += fmt::format("<text x=\"0\" y=\"{}\">{} &#8594; {}</text>\n", top + 14, name_text(way.source),
                           name_text(way.destination));
        double left = 0;
        for (size_t at = 0; at < kFates.size(); ++at) {
            const int64_t entries = way.counts[at].entries;
            if (entries == 0) {
                continue;
            }
            const double length = std::max(2.0, double(entries) * width / double(most));
            svg += fmt::format("<rect x=\"{:.1f}\" y=\"{}\" width=\"{:.1f}\" height=\"16\" fill=\"{}\"><title>{} {}, "
                               "{}</title></rect>\n",
                               left, top + 20, length, kFates[at].colour, entries, kFates[at].word,
                               size_text(way.counts[at].bytes));
            left += length;
        }
    }
    if (shown < m_ways.size()) {
        svg += fmt::format("<text x=\"0\" y=\"{}\">and {} more</text>\n", static_cast<int>(shown) * rowHeight + 18,
                           m_ways.size() - shown);
    }
    return svg + "</svg>\n";
}

std::string Report::totals_table() const {
    const Counts sum = totals();
    std::string table = "<table><tr><th></th><th>Entries</th><th>Data</th></tr>\n";
    for (size_t at = 0; at < kFates.size(); ++at) {
        if (sum[at].entries == 0) {
            continue;
        }
        table += fmt::format("<tr><td><svg width=\"12\" height=\"12\"><rect width=\"12\" height=\"12\" "
                             "fill=\"{}\"/></svg> {}</td><td class=\"n\">{}</td><td class=\"n\">{}</td></tr>\n",
                             kFates[at].colour, kFates[at].word, sum[at].entries, size_text(sum[at].bytes));
    }
    return table + "</table>\n";
}

std::string Report::losses_lists() const {
    std::string text;
    for (const engine::LossRow &row : engine::kLossTable) {
        const int64_t number = m_receipt.count(row.cls);
        if (number == 0) {
            continue;
        }
        text += fmt::format("<details open><summary><b>{} {}</b> ({}, {}{})</summary>\n<p>{} {}</p>\n<ul>\n", number,
                            number == 1 ? row.one : row.several, row.name, engine::severity_name(row.severity),
                            m_accepted.contains(row.cls) ? ", accepted" : "", escaped(row.meaning), escaped(row.help));
        for (const Lost &lost : m_losses) {
            if (lost.loss.cls == row.cls) {
                text += fmt::format("<li>{}: {}</li>\n", both_text(lost.source, lost.destination),
                                    escaped(engine::as_utf8(lost.loss.text())));
            }
        }
        text += "</ul></details>\n";
    }
    return text.empty() ? "<p>Nothing.</p>\n" : text;
}

std::string Report::problems_list() const {
    std::string text = "<ul>\n";
    for (const Told &told : m_problems) {
        text += fmt::format("<li>{}: {}</li>\n", both_text(told.source, told.destination),
                            escaped(engine::as_utf8(told.reason)));
    }
    return text + "</ul>\n";
}

// The same run may have replaced other names of an old file, too.
std::string Report::replaced_list() const {
    std::string text = "<ul>\n";
    for (const Replaced &one : m_replaced) {
        std::string names;
        for (const std::string &name : one.oldNamesKnown) {
            names += fmt::format("{}<code>{}</code>", names.empty() ? ": " : ", ", name_text(name));
        }
        text += fmt::format(
            "<li><code>{}</code>{}{}{}</li>\n", name_text(one.destination),
            one.inPlace ? ": written in place; its other names, if it has any, have changed with it" : "",
            one.backup.empty() ? "" : fmt::format(": the old one is kept as <code>{}</code>", name_text(one.backup)),
            one.oldNames == 0 ? ""
                              : fmt::format(": the old one had {} {}, which kept its content then{}", one.oldNames,
                                            one.oldNames == 1 ? "other name" : "other names", names));
    }
    return text + "</ul>\n";
}

std::string Report::findings_lists() const {
    std::string text;
    for (const engine::FindingRow &row : engine::kFindingTable) {
        const auto number =
            std::ranges::count_if(m_findings, [&](const engine::Finding &one) { return one.kind == row.kind; });
        if (number == 0) {
            continue;
        }
        text += fmt::format("<details open><summary><b>{} &times; {}</b> ({})</summary>\n<p>{} {}</p>\n<ul>\n", number,
                            row.text, row.name, escaped(row.meaning), escaped(row.help));
        for (const engine::Finding &one : m_findings) {
            if (one.kind == row.kind) {
                text += fmt::format("<li><code>{}</code>: {}; {}</li>\n", name_text(one.place),
                                    escaped(engine::as_utf8(one.detail)), engine::state_name(one.state));
            }
        }
        text += "</ul></details>\n";
    }
    return text.empty() ? "<p>Nothing.</p>\n" : text;
}

std::string Report::conversions_list() const {
    std::string text = "<ul>\n";
    for (const engine::Conversion &one : m_conversions) {
        text += fmt::format("<li>{}</li>\n", escaped(engine::as_utf8(text_of_conversion(one))));
    }
    return text + "</ul>\n";
}

std::string Report::html(int exitStatus) const {
    const std::string title = fmt::format("vexofileop {}", escaped(m_command));
    std::string page = fmt::format("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
                                   "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
                                   "style-src 'unsafe-inline'\">\n<title>{0}</title><style>{1}</style></head>\n"
                                   "<body><h1>{0}</h1>\n<p>Ended at {2} with exit status {3}.</p>\n",
                                   title, kStyle, time_now(), exitStatus);
    const bool carries = !m_ways.empty(); // what only looks at stores takes nothing anywhere
    const bool converts = m_command == "store convert";
    page += carries    ? "<h2>What went where, and how</h2>\n" + totals_table() + picture()
            : converts ? "<h2>What was converted</h2>\n" + conversions_list()
                       : "<h2>What was found</h2>\n" + findings_lists();
    if (!m_problems.empty()) {
        page += "<h2>Failed</h2>\n" + problems_list();
    }
    if (!m_replaced.empty()) {
        page += "<h2>What is left of the replaced and removed</h2>\n" + replaced_list();
    }
    if (!carries && !converts) {
        return page + "</body></html>\n";
    }
    return page + "<h2>What was not carried</h2>\n" + losses_lists() + "</body></html>\n";
}

std::string Report::json(int exitStatus) const {
    const auto add_counts = [](Json &object, const Counts &counts) {
        for (size_t at = 0; at < kFates.size(); ++at) {
            Json count;
            count.add_number("entries", counts[at].entries);
            count.add_number("bytes", counts[at].bytes);
            object.add_object(kFates[at].word, std::move(count));
        }
    };
    const auto add_way = [](Json &object, const std::string &source, const std::string &destination) {
        object.add_name("source", source);
        object.add_name("destination", destination);
    };
    Json report, sums;
    report.add_number("version", 1);
    report.add_text("command", m_command);
    report.add_text("ended", time_now());
    report.add_number("exit_status", exitStatus);
    add_counts(sums, totals());
    report.add_object("totals", std::move(sums));
    for (const Way &way : m_ways) {
        Json object, counts;
        add_way(object, way.source, way.destination);
        add_counts(counts, way.counts);
        object.add_object("counts", std::move(counts));
        report.add_to_list("ways", std::move(object));
    }
    for (const Told &told : m_problems) {
        Json object;
        add_way(object, told.source, told.destination);
        object.add_text("reason", engine::as_utf8(told.reason));
        report.add_to_list("problems", std::move(object));
    }
    for (const Replaced &one : m_replaced) {
        Json object;
        if (!one.source.empty()) {
            object.add_name("source", one.source);
        }
        object.add_name("destination", one.destination);
        add_replaced(object, one.inPlace, one.backup, one.oldNames, one.oldNamesKnown);
        report.add_to_list("replaced", std::move(object));
    }
    m_receipt.add_to(report, "receipt");
    for (const Lost &lost : m_losses) {
        report.add_to_list("losses", loss_event(lost.source, lost.destination, lost.loss));
    }
    for (const engine::Conversion &conversion : m_conversions) {
        report.add_to_list("conversions", conversion_event(conversion));
    }
    for (const engine::Finding &finding : m_findings) {
        report.add_to_list("findings", finding_event(m_command, finding));
    }
    return report.line() + "\n";
}

void Report::write(const std::string &path, int exitStatus) const {
    try {
        replace_file(path, is_json(path) ? json(exitStatus) : html(exitStatus));
    } catch (const engine::Failure &failure) {
        throw engine::Failure(fmt::format("{}: the report {}", engine::displayed(path), failure.what()));
    }
}

} // namespace tool
