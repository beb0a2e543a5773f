// The fixture of the behaviour tests: a scratch directory, the double, faults and log lines as new, and at the end the
// process as it was at the start.
#pragma once

#include "platform/core.h"
#include "tests/kit/fat_double.h"
#include "tests/kit/faults.h"
#include "tests/kit/fork_double.h"
#include "tests/kit/log_capture.h"
#include "tests/kit/native_double.h"
#include "tests/kit/platform_double.h"
#include "tests/kit/process_state.h"
#include "tests/kit/scratch.h"
#include "tests/kit/volumes.h"

#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <unistd.h>

namespace kit {

class Behaviour : public ::testing::Test {
  protected:
    void SetUp() override {
        Faults::reset();
        FatDouble::reset();
        ForkDouble::reset();
        NativeDouble::reset();
        PlatformDouble::reset();
        Log::reset();
        VLIBCErrSetEx(0, "", 0);
        m_before = ProcessState::now();
    }
    void TearDown() override {
        Faults::reset();
        if (m_checksProcess) {
            EXPECT_EQ(ProcessState::now(), m_before);
        }
    }
    // For a test that changes the process itself (another user, another directory).
    void processMayChange() { m_checksProcess = false; }
    // After a volume of its own was mounted: the process as it is now.
    void processAsNow() { m_before = ProcessState::now(); }

    ScratchDirectory scratch;

  private:
    ProcessState m_before{};
    bool m_checksProcess = true;
};

} // namespace kit

// Skips a test that only root can pass, with what root is needed for.
#define KIT_NEEDS_ROOT(reason)                                                                                         \
    do {                                                                                                               \
        if (::geteuid() != 0) {                                                                                        \
            GTEST_SKIP() << "needs root " << (reason);                                                                 \
        }                                                                                                              \
    } while (false)

// The library makes "@eaDir" as root or not at all, so that everybody may write in it.
#define KIT_NEEDS_TO_MAKE_STORES() KIT_NEEDS_ROOT("to make \"@eaDir\"")

// A call failed and left this last error.
#define EXPECT_FAILS(call, code)                                                                                       \
    do {                                                                                                               \
        EXPECT_EQ(-1, (call));                                                                                         \
        EXPECT_EQ(static_cast<uint32_t>(code), VLIBCErrGet());                                                         \
    } while (false)
