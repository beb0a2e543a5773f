// What a caller asks for, in the engine's terms.
#pragma once

#include "tools/binding/binding.h"
#include "tools/engine/mirror/mirror_pair.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/select/selection.h"
#include "tools/engine/transfer/transfer_options.h"
#include "tools/engine/workers/hands.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace binding {

// The callbacks outlive what these return. All throw engine::InvalidRequest for what makes no sense.
engine::TransferOptions options_of(const VexoTransferOptions &given, const VexoCallbacks &callbacks);
engine::Selection selection_of(const VexoSelection *given, const VexoCallbacks &callbacks);
// The same for two directories of which one is brought up to date by the other, and those.
engine::TransferOptions pair_options(const VexoTransferOptions &options, const VexoCallbacks &callbacks);
engine::MirrorPair pair_of(const char *source, const char *destination, const engine::TransferOptions &transfer);
engine::Hands hands_of(int32_t jobs, const VexoCallbacks &callbacks);

template <typename Value, size_t N>
Value row_of(const std::array<Value, N> &values, int32_t index) {
    if (index < 0 || static_cast<size_t>(index) >= N) {
        throw engine::InvalidRequest("an option has a value that there is none of");
    }
    return values[static_cast<size_t>(index)];
}

} // namespace binding
