// Tells tests/kit/batch which test is running and how each one ended, line by line, so that nothing is missing where a
// program ends in the middle. Without VEXO_CASES in the environment it tells nothing. Whoever hears it or not, a test
// that leaves the environment changed has failed, for it changes what those behind it run. Needs nothing but
// GoogleTest.
#include "tests/kit/process_state.h"

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <string>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

class CaseLog : public testing::EmptyTestEventListener {
  public:
    // Held open: a test may end as another user or in another root.
    explicit CaseLog(const char *path) {
        const int fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
        m_fd = ::fcntl(fd, F_DUPFD_CLOEXEC, kit::kLeastUncountedDescriptor);
        ::close(fd);
    }
    void OnTestStart(const testing::TestInfo &test) override { tell("run", test, ""); }
    void OnTestEnd(const testing::TestInfo &test) override {
        const testing::TestResult &result = *test.result();
        std::string reason;
        for (int i = 0; i < result.total_part_count(); ++i) {
            if (result.GetTestPartResult(i).skipped()) {
                reason = result.GetTestPartResult(i).message();
            }
        }
        std::replace(reason.begin(), reason.end(), '\n', ' ');
        tell(result.Failed() ? "failed" : result.Skipped() ? "skipped" : "passed", test, reason);
    }

  private:
    // Past every function that a test may have told to fail.
    void tell(const char *what, const testing::TestInfo &test, const std::string &reason) const {
        std::string line = std::string(what) + "\t" + test.test_suite_name() + "." + test.name();
        line += "\t" + reason + "\n";
        (void)::syscall(SYS_write, m_fd, line.data(), line.size());
    }

    int m_fd = -1;
};

class EnvironmentGuard : public testing::EmptyTestEventListener {
  public:
    void OnTestStart(const testing::TestInfo &) override { m_before = variables(); }
    void OnTestEnd(const testing::TestInfo &) override {
        const std::set<std::string> after = variables();
        std::set<std::string> changed;
        std::set_symmetric_difference(m_before.begin(), m_before.end(), after.begin(), after.end(),
                                      std::inserter(changed, changed.end()));
        EXPECT_EQ(std::set<std::string>(), changed) << "variables that it leaves changed";
    }

  private:
    static std::set<std::string> variables() {
        std::set<std::string> all;
        for (char **one = environ; *one != nullptr; ++one) {
            all.insert(*one);
        }
        return all;
    }

    std::set<std::string> m_before;
};

const bool isTold = [] {
    const char *path = std::getenv("VEXO_CASES"); // NOLINT(concurrency-mt-unsafe): before main()
    if (path != nullptr && *path != '\0') {
        testing::UnitTest::GetInstance()->listeners().Append(new CaseLog(path));
    }
    ::unsetenv("VEXO_CASES"); // NOLINT(concurrency-mt-unsafe): programs that tests start have nothing to tell
    // Behind the log, since of the end of a test the last listener hears first: what it says is in the log then.
    testing::UnitTest::GetInstance()->listeners().Append(new EnvironmentGuard);
    return true;
}();

} // namespace
