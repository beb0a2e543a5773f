// The fixture of the tests on the bare platform: the trap is set, and a directory is there for the test.
#pragma once

#include "tests/bare/attribute_trap.h"
#include "tests/bare/bare_platform.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <system_error>

namespace bare {

class BareTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        static const std::string reason = AttributeTrap::install(); // once, for the life of the process
        missing = reason;
    }
    void SetUp() override {
        if (!missing.empty()) {
            GTEST_SKIP() << "system calls cannot be trapped here: " << missing;
        }
        AttributeTrap::reset();
        volumeType = 1;
        calls.clear();
        ASSERT_NE(nullptr, ::mkdtemp(directory.data()));
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(directory, ignored);
    }

    static inline std::string missing; // why there is no trap; empty: there is one
    std::string directory = "/tmp/vexofileop-bare-XXXXXX";
};

} // namespace bare
