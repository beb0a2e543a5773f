#include "copy/copy.h"
#include "tools/binding/binding.h"
#include "tools/engine/losses/loss.h"
#include "tools/engine/report/error_table.h"

#include <array>
#include <vector>

extern "C" {

int vexo_binding_version() {
    return VEXO_BINDING_VERSION;
}

const uint32_t *vexo_binding_sizes() {
    static constexpr std::array<uint32_t, 17> sizes{sizeof(VexoFailure),
                                                    sizeof(VexoProblem),
                                                    sizeof(VexoLoss),
                                                    sizeof(VexoEntry),
                                                    sizeof(VexoRoom),
                                                    sizeof(VexoCallbacks),
                                                    sizeof(VexoSelection),
                                                    sizeof(VexoTransferOptions),
                                                    sizeof(VexoComparisonOptions),
                                                    sizeof(VexoRelocation),
                                                    sizeof(VexoMirrored),
                                                    sizeof(VexoBackedUp),
                                                    sizeof(VexoFinding),
                                                    sizeof(VexoConversion),
                                                    sizeof(VexoSurveyed),
                                                    sizeof(VEXOCopyArgs),
                                                    0};
    return sizes.data();
}

// The texts of both tables are literals, which end with a NUL.
const VexoErrorRow *vexo_errors() {
    static const std::vector<VexoErrorRow> rows = [] {
        std::vector<VexoErrorRow> made;
        made.reserve(engine::error_table().size() + 1);
        for (const engine::ErrorInfo &row : engine::error_table()) {
            made.push_back({row.code, row.reason.data(), row.cause.data(), row.fix.data()});
        }
        made.push_back({});
        return made;
    }();
    return rows.data();
}

const VexoLossClass *vexo_loss_classes() {
    static const std::vector<VexoLossClass> rows = [] {
        std::vector<VexoLossClass> made;
        made.reserve(engine::kLossTable.size() + 1);
        for (const engine::LossRow &row : engine::kLossTable) {
            made.push_back(
                {row.name, engine::severity_name(row.severity), row.meaning, row.help, row.one, row.several});
        }
        made.push_back({});
        return made;
    }();
    return rows.data();
}

uint64_t vexo_loss_set(const char *name) {
    uint64_t bits = 0;
    const auto set = engine::loss_set(name);
    for (const engine::LossRow &row : engine::kLossTable) {
        bits |= set && set->contains(row.cls) ? uint64_t{1} << static_cast<unsigned>(row.cls) : 0;
    }
    return bits;
}

} // extern "C"
