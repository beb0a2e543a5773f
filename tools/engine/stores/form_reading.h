// Whether what was read of a store by names is what the files hold that were opened and locked: somebody may have put
// others in their place for a moment, or the volume may have told once that there is nothing.
#pragma once

#include "tools/engine/store/store_contents.h"
#include "tools/engine/stores/entry_forms.h"

namespace engine {

// Of a store that was read as that of a volume of `kind`. Throws Failure where it is not.
void check_read_as_held(const StoreContents &contents, StoreKind kind, EntryForms &forms);

} // namespace engine
