// vexofileop store convert.
#include "tools/engine/report/names.h"
#include "tools/engine/stores/conversion.h"
#include "tools/vexofileop/arguments/loss_classes.h"
#include "tools/vexofileop/arguments/path_operands.h"
#include "tools/vexofileop/arguments/report_path.h"
#include "tools/vexofileop/arguments/usage_error.h"
#include "tools/vexofileop/commands/exit_status.h"
#include "tools/vexofileop/commands/store/store_commands.h"
#include "tools/vexofileop/commands/store/store_telling.h"
#include "tools/vexofileop/output/conversion_json.h"
#include "tools/vexofileop/output/entry_text.h"
#include "tools/vexofileop/output/loss_json.h"
#include "tools/vexofileop/output/receipt.h"
#include "tools/vexofileop/output/report.h"
#include "tools/vexofileop/terminal/console.h"
#include "tools/vexofileop/terminal/signals.h"
#include "tools/vexofileop/terminal/status_note.h"

#include <cstdint>
#include <fmt/format.h>
#include <memory>

namespace tool {
namespace {

constexpr char kConvert[] = "store convert";

struct ConvertRunOptions {
    engine::ConversionOptions conversion;
    bool json = false, quiet = false;
    std::string report = {};
};

class ConvertRun : private engine::ConversionWatcher {
  public:
    explicit ConvertRun(const ConvertRunOptions &options)
        : m_options(options), m_receipt(options.conversion.accepted), m_report(kConvert, options.conversion.accepted) {}

    int run(const std::vector<std::string> &paths) {
        for_each_path(
            paths,
            [this](const engine::HeldEntry &entry) {
                engine::convert_stores(entry, m_options.conversion, *this, m_totals);
            },
            [this](const std::string &path, const std::string &reason) { trouble(path, reason); });
        return finish();
    }

  private:
    bool stopped() const override { return stop_signal() != 0; }

    void store(const engine::Conversion &conversion) override {
        using State = engine::Conversion::State;
        note_path(conversion.file);
        (conversion.state == State::converted     ? m_converted
         : conversion.state == State::convertible ? m_convertible
                                                  : m_left) += 1;
        for (const engine::Loss &loss : conversion.losses) {
            m_receipt.add(conversion.file, conversion.file, loss);
            if (loss.cls != engine::LossClass::name_too_long) { // which nobody can give up: the store has no place
                m_losing.add(loss.cls);
            }
        }
        if (!m_options.report.empty()) {
            m_report.conversion(conversion);
        }
        if (m_options.json) {
            m_console.line(conversion_event(conversion).line());
            for (const engine::Loss &loss : conversion.losses) {
                m_console.line(loss_event(conversion.file, conversion.file, loss).line());
            }
        } else if (!m_options.quiet) {
            m_console.line(text_of_conversion(conversion));
        }
    }

    void trouble(const std::string &path, const std::string &reason) override {
        ++m_troubles;
        m_report.problem(path, path, reason);
        tell_trouble(m_console, kConvert, path, reason, m_options.json);
    }

    int finish() {
        int status = (m_left > 0 ? exitStoreLeft : 0) | (m_troubles > 0 ? exitStoreTrouble : 0);
        if (stopped()) {
            m_console.message(fmt::format("stopped; {} converted", amount_text(m_converted, "store", "stores")));
            status = exitSignal + stop_signal();
        }
        status = write_store_report(m_console, m_report, m_options.report, status);
        if (m_options.json) {
            m_console.line(summary_line(status));
        } else if (!m_options.quiet) {
            m_console.line(fmt::format("{} in {}: {} {}, {} left", amount_text(m_totals.entries, "store", "stores"),
                                       amount_text(m_totals.directories, "directory", "directories"),
                                       m_options.conversion.dryRun ? m_convertible : m_converted,
                                       m_options.conversion.dryRun ? "would be converted" : "converted", m_left));
        }
        const std::string classes = m_receipt.failing(m_losing);
        if (!classes.empty()) {
            m_console.message(
                fmt::format("what the new form cannot hold keeps the old one; --accept {} gives it up", classes));
        }
        return m_console.check_output() ? status : status | exitStoreTrouble;
    }

    std::string summary_line(int status) const {
        Json summary;
        summary.add_text("event", "summary");
        summary.add_text("operation", kConvert);
        summary.add_number("directories", m_totals.directories);
        summary.add_number("stores", m_totals.entries);
        summary.add_number("converted", m_converted);
        summary.add_number("convertible", m_convertible);
        summary.add_number("left", m_left);
        summary.add_number("troubles", m_troubles);
        m_receipt.add_to(summary);
        summary.add_flag("cancelled", stopped());
        summary.add_number("exit_status", status);
        return summary.line();
    }

    const ConvertRunOptions &m_options;
    Console m_console;
    Receipt m_receipt;
    Report m_report;
    engine::ConversionTotals m_totals;
    engine::LossSet m_losing;
    int64_t m_converted = 0, m_convertible = 0, m_left = 0, m_troubles = 0;
};

engine::StoreKind form_given(const Option &to) {
    const std::string name = to.given() ? to.values().back() : "";
    const engine::StoreKind form = engine::form_of(name);
    if (!to.given()) {
        throw UsageError("--to is missing: native, eadir, double or fileea");
    }
    if (form == engine::StoreKind::none) {
        throw UsageError(fmt::format("--to: \"{}\" is no form of a store; they are native, eadir, double and fileea",
                                     engine::displayed(name)));
    }
    return form;
}

} // namespace

void add_store_convert_command(const Command &store, int &status) {
    const Command command = store.add_command("convert", "Bring stores into another form, in place");
    const auto options = std::make_shared<ConvertRunOptions>();
    const Option to = command.add_value("--to", "FORM", "native, eadir, double or fileea");
    command.add_flag("-n,--dry-run", options->conversion.dryRun, "only tell what would be done, and lost");
    command.add_flag("-r,--recursive", options->conversion.survey.recursive, "every directory of a tree");
    command.add_flag("-x,--one-file-system", options->conversion.survey.oneVolume,
                     "pass over other volumes that are mounted there");
    command.add_flag("-q,--quiet", options->quiet, "no line for a store; the status tells");
    command.add_flag("--json", options->json, "one JSON object per line: each store, a summary");
    const Option accept = add_accept_option(command);
    const Option report = add_report_option(command);
    const PathOperands paths(command, "PATH", "PATH...");
    command.set_footer("\nFor a volume whose kind changes. The old form of a store goes when the new one\n"
                       "reads the same. What the new form cannot hold, unless --accept names it, what\n"
                       "differs in two forms, is damaged or locked is left as it is. Run it again after\n"
                       "a stop. Exit status, added up: 0 all converted, 4 something left, 8 something\n"
                       "could not be looked into; 16 usage.\n"
                       "Example:\n  vexofileop store convert -r --to eadir /volume1/photos");
    command.set_work([&status, options, to, accept, report, paths] {
        options->conversion.to = form_given(to);
        options->conversion.accepted = loss_set_of(accept, "--accept");
        options->report = report_path_of(report);
        status = ConvertRun(*options).run(paths.all());
    });
}

} // namespace tool
