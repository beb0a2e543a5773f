// What the C++ interface says of codes and kinds of volumes is what the tool says.
#include "cpp/attributes.hpp"
#include "cpp/result.hpp"

#include "tools/engine/report/error_table.h"
#include "tools/engine/volume/volume_traits.h"

#include <gtest/gtest.h>

TEST(ProgramsWords, EveryCodeHasTheReasonThatTheToolGives) {
    for (const engine::ErrorInfo &row : engine::error_table()) {
        EXPECT_EQ(row.reason, vexofileop::reason(static_cast<vexofileop::Code>(row.code)))
            << engine::code_text(row.code);
    }
    EXPECT_EQ(engine::reason_of(0), vexofileop::reason(vexofileop::Code::none));
    EXPECT_EQ(engine::reason_of(0x0042), vexofileop::reason(static_cast<vexofileop::Code>(0x0042)));
}

TEST(ProgramsWords, VolumesKeepStoresAsTheToolKnowsIt) {
    using vexofileop::StoreKind;
    for (int type = -1; type < 64; ++type) {
        const engine::StoreKind kind = engine::store_kind(type);
        const StoreKind expected = kind == engine::StoreKind::apple_double   ? StoreKind::apple_double
                                   : kind == engine::StoreKind::native       ? StoreKind::native
                                   : kind == engine::StoreKind::ea_directory ? StoreKind::ea_directory
                                   : kind == engine::StoreKind::file_ea      ? StoreKind::file_ea
                                                                             : StoreKind::none;
        EXPECT_EQ(expected, vexofileop::store_kind(type)) << type;
    }
}
