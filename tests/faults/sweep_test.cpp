// Every public operation with every one of its system calls failing in turn, in every way that call can plausibly fail,
// and with every one of its allocations failing; and killed before every one of its calls. The calls fail once more on
// XFS, and for a user without rights.
//
// Without VEXO_FULL in the environment each test takes a sample that is spread evenly over the points; with it all of
// them. Totals are printed at the end of the program.
#include "platform/core.h"
#include "tests/faults/live_memory.h"
#include "tests/faults/scene.h"
#include "tests/faults/system_calls.h"
#include "tests/kit/behaviour.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <grp.h>
#include <gtest/gtest.h>
#include <optional>
#include <sstream>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <tuple>

namespace faults {
namespace {

#ifdef FAULTS_SANITIZED
constexpr size_t kSample = 8; // looking for leaks takes most of the time
#else
constexpr size_t kSample = 24;
#endif
constexpr size_t kShownFindings = 25;
constexpr uid_t kNobody = 65534;
constexpr uint64_t kXfsSize = 320 << 20; // about the least that mkfs.xfs takes

bool isFull() {
    return std::getenv("VEXO_FULL") != nullptr;
}

void watchMemory(bool on) {
#ifdef FAULTS_SANITIZED
    on ? LiveMemory::watch() : LiveMemory::stop();
#else
    (void)on;
#endif
}

int hasLeaked() {
#ifdef FAULTS_SANITIZED
    return LiveMemory::hasLeaked() ? 1 : 0;
#else
    return 0;
#endif
}

struct Totals {
    size_t operations = 0, points = 0, runs = 0, violations = 0;
    std::map<std::string, size_t> kept;
};
std::map<std::string, Totals> &totals() {
    static auto *all = new std::map<std::string, Totals>;
    return *all;
}

class TotalsPrinter : public testing::Environment {
  public:
    void TearDown() override {
        for (const auto &[sweep, sum] : totals()) {
            std::printf("%s: %zu operations, %zu points, %zu runs, %zu violations\n", sweep.c_str(), sum.operations,
                        sum.points, sum.runs, sum.violations);
            for (const auto &[name, count] : sum.kept) {
                std::printf("  kept: %s: %zu runs\n", name.c_str(), count);
            }
        }
    }
};
[[maybe_unused]] testing::Environment *const printer = testing::AddGlobalTestEnvironment(new TotalsPrinter);

// Modes and owners of everything below a path, by path.
std::map<std::string, std::tuple<mode_t, uid_t, gid_t>> modesBelow(const std::string &path) {
    std::map<std::string, std::tuple<mode_t, uid_t, gid_t>> modes;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(path)) {
        const struct stat status = kit::statOf(entry.path());
        modes[entry.path()] = {status.st_mode, status.st_uid, status.st_gid};
    }
    return modes;
}

bool holds(const std::string &all, const Piece &piece) {
    return all.find(piece.bytes) != std::string::npos;
}

// What one run did to its scene and its process.
class Inspection {
  public:
    Inspection(const Operation &operation, const Scene &scene, const Outcome &outcome, const Report &report)
        : m_operation(operation), m_scene(scene), m_outcome(outcome), m_report(report),
          m_below(everythingBelow(scene.from())), m_above(everythingBelow(scene.to())) {}

    std::vector<Finding> findings(const std::map<std::string, std::tuple<mode_t, uid_t, gid_t>> &modesBefore) {
        if (m_outcome.hung || m_report.finished == 0) {
            add("process lives", m_outcome.hung ? "it hangs" : "ended with status " + std::to_string(m_outcome.status));
            return std::move(m_findings);
        }
        checkProcess();
        checkModes(modesBefore);
        checkResult();
        checkPieces();
        return std::move(m_findings);
    }

    // After a kill: nothing is asked of the process, and half a destination is fine beside a whole source.
    std::vector<Finding> findingsOfFiles() {
        checkPieces();
        std::erase_if(m_findings, [](const Finding &finding) { return finding.check == "no partial destination"; });
        return std::move(m_findings);
    }

  private:
    void add(const std::string &check, const std::string &detail) { m_findings.push_back({check, detail}); }

    void checkProcess() {
        if (m_report.stateKept == 0) {
            add("process state", m_report.state);
        }
        if (m_report.leaked != 0) {
            add("memory", "a leak");
        }
        if (m_report.reports > m_operation.mostReports) {
            add("one report", std::to_string(m_report.reports) + " reports");
        }
    }

    void checkModes(const std::map<std::string, std::tuple<mode_t, uid_t, gid_t>> &before) {
        if (m_operation.changesModes) {
            return;
        }
        for (const auto &[path, mode] : modesBelow(m_scene.from())) {
            const auto found = before.find(path);
            if (found != before.end() && found->second != mode) {
                add("modes", path);
            }
        }
    }

    void checkResult() {
        if (m_report.result < 0 && !m_operation.codes.contains(m_report.lastError)) {
            std::array<char, 32> text{};
            std::snprintf(text.data(), text.size(), "0x%04X", m_report.lastError);
            add("last error", text.data());
        }
    }

    void checkPieces() {
        const bool succeeded = m_report.finished != 0 && m_report.result >= 0;
        for (const Piece &piece : m_scene.pieces()) {
            if (piece.isFile) {
                checkFile(piece, succeeded);
            } else {
                checkMetadata(piece, succeeded);
            }
        }
    }

    void checkFile(const Piece &piece, bool succeeded) {
        const bool there = kit::exists(piece.source) && kit::readFile(piece.source) == piece.bytes;
        const bool lands = !piece.destination.empty() && kit::exists(piece.destination);
        const std::string content = lands ? kit::readFile(piece.destination) : std::string();
        const bool arrived = lands && content == piece.bytes;
        const std::string *old = m_scene.oldAt(piece.destination);
        if (m_operation.keeps == Keeps::source && !there) {
            add("source complete", piece.source);
        }
        if (m_operation.keeps == Keeps::either && !there && !arrived) {
            add(holds(m_above, piece) || holds(m_below, piece) ? "data elsewhere" : "data lost", piece.source);
        }
        if (lands && !arrived && (old == nullptr || content != *old)) {
            add("no partial destination", piece.destination + " has " + std::to_string(content.size()) + " bytes");
        }
        if (succeeded && m_operation.carriesFiles && !piece.destination.empty() && !arrived) {
            add("success is complete", piece.destination);
        }
    }

    void checkMetadata(const Piece &piece, bool succeeded) {
        const bool there = holds(m_below, piece);
        const bool arrived = holds(m_above, piece);
        if ((m_operation.keeps == Keeps::source && !there) ||
            (m_operation.keeps == Keeps::either && !there && !arrived)) {
            add("metadata lost", piece.name);
        }
        if (succeeded && m_operation.carriesMetadata && !arrived) {
            add("success carries metadata", piece.name);
        }
    }

    const Operation &m_operation;
    const Scene &m_scene;
    const Outcome &m_outcome;
    const Report &m_report;
    std::string m_below, m_above;
    std::vector<Finding> m_findings;
};

// For good, in a child. A process that changed its user may not be traced any more, which a leak check needs.
void become(uid_t user) {
    if (user != 0) {
        const bool done = ::setgroups(0, nullptr) == 0 && ::setresgid(user, user, user) == 0 &&
                          ::setresuid(user, user, user) == 0 && ::prctl(PR_SET_DUMPABLE, 1) == 0;
        if (!done) {
            ::_exit(98);
        }
    }
}

struct Point {
    Plan plan;
    Fault fault;
};

// The n-th call, and what it is to fail with; 0: the process is killed before it.
Point pointAt(const std::vector<SystemCall> &calls, size_t at, int error) {
    const SystemCall &call = calls[at];
    const std::string name = nameOf(call);
    const std::string text = "call " + std::to_string(at) + " " + name + "(" + call.path + ")";
    if (error == 0) {
        return {planAt(Plan::Action::kill, calls, at), {"kill", call.path, 0, "killed before " + text}};
    }
    return {planAt(Plan::Action::fail, calls, at, error),
            {name, call.path, error, text + " with " + std::generic_category().message(error)}};
}

class Sweep : public testing::TestWithParam<Operation> {
  protected:
    void SetUp() override {
        if (const std::string reason = unavailable(); !reason.empty()) {
            GTEST_SKIP() << reason;
        }
        try {
            if (GetParam().volume) {
                (void)GetParam().volume();
            }
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
        m_report = static_cast<Report *>(
            ::mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    }
    void TearDown() override {
        if (m_report != nullptr) {
            ::munmap(m_report, sizeof(Report));
        }
    }

    static void reset() {
        kit::Faults::reset();
        kit::FatDouble::reset();
        kit::ForkDouble::reset();
        kit::NativeDouble::reset();
        kit::PlatformDouble::reset();
        kit::Log::reset();
        VLIBCErrSetEx(0, "", 0);
    }

    static void prepare(Scene &scene) {
        GetParam().prepare(scene);
        if (GetParam().user != 0) {
            scene.giveTo(GetParam().user);
        }
    }

    // Runs the operation on the scene; `allocation` not 0: that one fails; `closing` not 0: that close() does.
    Outcome run(Scene &scene, const Plan &plan, int allocation = 0, int closing = 0) {
        *m_report = {};
        return supervise(plan, [&](Window &window) {
            become(GetParam().user);
            const kit::ProcessState before = kit::ProcessState::now();
            reportsHeard = 0;
            VLIBCErrSetEx(0, "", 0);
            if (closing != 0) {
                kit::Faults::fail("close", EIO, {}, closing - 1);
            }
            kit::Faults::failAllocation(allocation);
            watchMemory(true);
            window.open();
            const int result = GetParam().run(scene);
            const uint32_t lastError = VLIBCErrGet();
            window.close();
            watchMemory(false);
            m_report->allocationReached = allocation != 0 && !kit::Faults::allocationPending() ? 1 : 0;
            kit::Faults::failAllocation(0);
            m_report->closeReached = closing != 0 && kit::Faults::count("close") >= closing ? 1 : 0;
            kit::Faults::reset();
            m_report->result = result;
            m_report->lastError = lastError;
            m_report->reports = reportsHeard;
            const kit::ProcessState after = kit::ProcessState::now();
            m_report->stateKept = after == before ? 1 : 0;
            std::ostringstream text;
            text << after;
            std::strncpy(m_report->state, text.str().c_str(), sizeof m_report->state - 1);
            m_report->leaked = hasLeaked();
            m_report->finished = 1;
        });
    }

    std::vector<SystemCall> watch() {
        reset();
        Scene scene;
        prepare(scene);
        const auto modes = modesBelow(scene.from());
        const Outcome outcome = run(scene, {});
        judge({"none", {}, 0, "without a fault"}, Inspection(GetParam(), scene, outcome, *m_report).findings(modes));
        EXPECT_GE(m_report->result, 0) << std::hex << m_report->lastError;
        return outcome.calls;
    }

    void failAt(const Point &point, int allocation = 0, int closing = 0) {
        reset();
        Scene scene;
        prepare(scene);
        const auto modes = modesBelow(scene.from());
        const Outcome outcome = run(scene, point.plan, allocation, closing);
        m_runs += allocation != 0 || closing != 0 || outcome.reached ? 1 : 0;
        judge(point.fault, Inspection(GetParam(), scene, outcome, *m_report).findings(modes));
    }

    // What no operation can help, whichever it is.
    static std::string keptByAll(const Finding &finding) {
        static const std::set<std::string> losses = {"data lost", "metadata lost", "success carries metadata",
                                                     "success is complete"};
        const Fault &fault = finding.fault;
        if (fault.error == ENOENT && losses.contains(finding.check) &&
            isCall(fault, {"openat", "access", "newfstatat", "statx", "getdents"})) {
            return "the-kernel-says-it-is-gone";
        }
        // Only what looks for a resource fork changes the mode of a source.
        const bool reachesFork =
            GetParam().name.starts_with("Fork") || GetParam().name.find("Native") != std::string::npos;
        if (finding.check == "modes" && isCall(fault, {"fchmod"}) && reachesFork) {
            return "mode-cannot-be-set-back";
        }
        // A move of a tree that becomes a copy; only root makes the "@eaDir" that it needs.
        if (GetParam().user != 0 && finding.check == "metadata lost" && isCall(fault, {"rename"}) &&
            fault.error == EXDEV) {
            return "only-root-makes-stores";
        }
        return {};
    }

    void judge(const Fault &fault, std::vector<Finding> findings) {
        for (Finding &finding : findings) {
            finding.fault = fault;
            std::string name = keptByAll(finding);
            if (name.empty() && GetParam().kept) {
                name = GetParam().kept(finding, *m_report);
            }
            if (!name.empty()) {
                ++m_kept[name];
                continue;
            }
            std::array<char, 64> result{};
            std::snprintf(result.data(), result.size(), " (result %d, 0x%04X)", m_report->result, m_report->lastError);
            m_violations.push_back(fault.text + ": " + finding.check + ": " + finding.detail + result.data());
        }
    }

    void finish(const std::string &sweep, size_t points) {
        Totals &sum = totals()[sweep];
        ++sum.operations;
        sum.points += points;
        sum.runs += m_runs;
        sum.violations += m_violations.size();
        for (const auto &[name, count] : m_kept) {
            sum.kept[name] += count;
        }
        std::printf("%s: %zu points, %zu runs, %zu violations\n", GetParam().name.c_str(), points, m_runs,
                    m_violations.size());
        std::string text;
        for (size_t at = 0; at < std::min(kShownFindings, m_violations.size()); ++at) {
            text += m_violations[at] + "\n";
        }
        EXPECT_TRUE(m_violations.empty()) << text;
#ifdef FAULTS_SANITIZED
        // A sample may meet calls of the sanitizer's only, which come and go; an operation may have nothing to close.
        EXPECT_GT(points + m_runs, 0U);
#else
        EXPECT_GT(m_runs, 0U);
#endif
    }

    // All of them, or an even sample.
    static std::vector<Point> chosen(std::vector<Point> points) {
        if (isFull() || points.size() <= kSample) {
            return points;
        }
        std::vector<Point> some;
        for (size_t at = 0; at < kSample; ++at) {
            some.push_back(points[at * points.size() / kSample]);
        }
        return some;
    }

    static bool sourceIsThere(const Scene &scene) {
        const std::string below = everythingBelow(scene.from());
        return std::all_of(scene.pieces().begin(), scene.pieces().end(),
                           [&](const Piece &piece) { return holds(below, piece); });
    }

    Report *m_report = nullptr;
    size_t m_runs = 0;
    std::vector<std::string> m_violations;
    std::map<std::string, size_t> m_kept;
};

class FaultSweep : public Sweep {
  protected:
    void failEveryCall(const std::string &sweep) {
        const std::vector<SystemCall> calls = watch();
        std::vector<Point> points;
        for (size_t at = 0; at < calls.size(); ++at) {
            for (const int error : plausibleErrors(calls[at])) {
                points.push_back(pointAt(calls, at, error));
            }
        }
        for (const Point &point : chosen(points)) {
            failAt(point);
        }
        finish(sweep, points.size());
    }
};

// Scenes lie on XFS.
class XfsSweep : public FaultSweep {
  protected:
    void SetUp() override {
        try {
            static const kit::Volume xfs = kit::Volume::loop("xfs", kXfsSize);
            if (const char *const before = std::getenv("TMPDIR")) {
                m_before = before;
            }
            ::setenv("TMPDIR", xfs.path().c_str(), 1);
        } catch (const kit::Unavailable &missing) {
            GTEST_SKIP() << missing.reason;
        }
        FaultSweep::SetUp();
    }
    void TearDown() override {
        FaultSweep::TearDown();
        ::unsetenv("TMPDIR");
        if (m_before) {
            ::setenv("TMPDIR", m_before->c_str(), 1);
        }
    }

  private:
    std::optional<std::string> m_before;
};

class UserSweep : public FaultSweep {
  protected:
    void SetUp() override {
        if (::geteuid() != 0) {
            GTEST_SKIP() << "needs root to become another user";
        }
        FaultSweep::SetUp();
    }
};

class AllocationSweep : public Sweep {};
class CloseSweep : public Sweep {};
class KillSweep : public Sweep {};

TEST_P(FaultSweep, LosesNothing) {
    failEveryCall("system calls");
}

TEST_P(XfsSweep, LosesNothing) {
    failEveryCall("system calls on XFS");
}

TEST_P(UserSweep, LosesNothing) {
    failEveryCall("system calls of a user without rights");
}

TEST_P(AllocationSweep, LosesNothing) {
    if (!kit::Faults::failAllocation(0)) {
        GTEST_SKIP() << "a sanitizer or memcheck owns the allocator";
    }
    int allocation = 1;
    for (; allocation == 1 || m_report->allocationReached != 0; ++allocation) {
        failAt({unwatched(), {"allocation", {}, 0, "allocation " + std::to_string(allocation)}}, allocation);
    }
    finish("allocations", static_cast<size_t>(allocation - 2));
}

// A close that fails has closed all the same, so that only the library's own can be made to.
TEST_P(CloseSweep, LosesNothing) {
    int closing = 1;
    for (; closing == 1 || m_report->closeReached != 0; ++closing) {
        failAt({unwatched(), {"close", {}, 0, "close " + std::to_string(closing)}}, 0, closing);
    }
    finish("closes", static_cast<size_t>(closing - 2));
}

TEST_P(KillSweep, SourceOrDestinationIsWholeAndAgainSucceeds) {
    const std::vector<SystemCall> calls = watch();
    std::vector<Point> points;
    for (size_t at = 0; at < calls.size(); ++at) {
        points.push_back(pointAt(calls, at, 0));
    }
    for (const Point &point : chosen(points)) {
        reset();
        Scene scene;
        prepare(scene);
        const Outcome outcome = run(scene, point.plan);
        ++m_runs;
        if (!outcome.reached || !WIFSIGNALED(outcome.status)) {
            m_violations.push_back(point.fault.text + ": not killed");
            continue;
        }
        judge(point.fault, Inspection(GetParam(), scene, outcome, *m_report).findingsOfFiles());
        if (!sourceIsThere(scene)) {
            continue; // done, and nothing to do again
        }
        const auto modes = modesBelow(scene.from());
        const Outcome again = run(scene, unwatched());
        Fault before = point.fault;
        before.text += ", again";
        judge(before, Inspection(GetParam(), scene, again, *m_report).findings(modes));
        if (m_report->result < 0) {
            judge(before, {{"again succeeds", "it fails"}});
        }
    }
    finish("kills", points.size());
}

// Those whose death in the middle a caller has to live with.
std::vector<Operation> killedOperations() {
    return operationsNamed({"OverwriteEx",
                            "OverwriteReentrant",
                            "OverwriteFileOp",
                            "MoveOverwriteAcrossEx",
                            "MoveOverwriteAcrossReentrant",
                            "MoveOverwriteAcrossFileOp",
                            "MoveEx",
                            "MoveFileOp",
                            "TreeMoveOverwriteAcross",
                            "StreamWriteNew",
                            "StreamGrow",
                            "StreamOverwrite",
                            "StreamRemove",
                            "RenameFileEa",
                            "RenameEaDirectory",
                            "RenameFat",
                            "StoreMoveWithDirectory",
                            "UpgradeAttributes",
                            "UpgradeResource",
                            "UpgradeOther",
                            "RelocationFileOp",
                            "Relocation"});
}

// Another file system fails in the same places of the code, so that a sanitizer need not see all of it again.
std::vector<Operation> operationsOnXfs() {
#ifndef FAULTS_SANITIZED
    if (isFull()) {
        return allOperations();
    }
#endif
    return operationsNamed({"CopyEx", "OverwriteReentrant", "MoveFileOp", "MoveOverwriteAcrossEx", "TreeCopy",
                            "TreeMove", "Relocation", "StoreCopyFileEaToEaDirectory", "StoreMoveEaDirectoryToFat",
                            "RenameFileEa", "UpgradeAttributes", "StreamGrow"});
}

// What a user without rights can do at all: all that needs no new "@eaDir", which only root makes.
std::vector<Operation> operationsOfAUser() {
    std::set<std::string> names = {"CopyEx", "MoveEx", "MoveAcrossReentrant", "TreeMove", "StreamGrow", "XattrSet"};
    if (isFull()) {
        names.insert({"CopyReentrant",
                      "CopyFileOp",
                      "CopyAcrossEx",
                      "CopyAcrossReentrant",
                      "CopyAcrossFileOp",
                      "OverwriteEx",
                      "OverwriteReentrant",
                      "OverwriteFileOp",
                      "MoveReentrant",
                      "MoveFileOp",
                      "MoveAcrossEx",
                      "MoveAcrossFileOp",
                      "CopyToFat",
                      "TreeCopy",
                      "TreeCopyStopsOnError",
                      "TreeCopyFileOp",
                      "TreeClone",
                      "StoreCopyFatToFat",
                      "StoreMoveFatToFat",
                      "RenameFat",
                      "RemoveFileEa",
                      "RemoveFat",
                      "RemoveStreams",
                      "UpgradeOther",
                      "StreamWriteNew",
                      "StreamOverwrite",
                      "StreamRemove",
                      "StreamRead",
                      "XattrGet",
                      "XattrRemove",
                      "XattrEnum",
                      "ForkGet",
                      "ForkSet",
                      "ForkRemove",
                      "MetadataRead",
                      "CleanFileArchiveBit",
                      "CleanDirectoryArchiveBit"});
    }
    std::vector<Operation> all = operationsNamed(names);
    for (Operation &operation : all) {
        operation.user = kNobody;
    }
    return all;
}

std::string nameOf(const testing::TestParamInfo<Operation> &info) {
    return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Files, FaultSweep, testing::ValuesIn(fileOperations()), nameOf);
INSTANTIATE_TEST_SUITE_P(Trees, FaultSweep, testing::ValuesIn(treeOperations()), nameOf);
INSTANTIATE_TEST_SUITE_P(Store, FaultSweep, testing::ValuesIn(storeOperations()), nameOf);
INSTANTIATE_TEST_SUITE_P(Files, AllocationSweep, testing::ValuesIn(fileOperations()), nameOf);
INSTANTIATE_TEST_SUITE_P(Trees, AllocationSweep, testing::ValuesIn(treeOperations()), nameOf);
INSTANTIATE_TEST_SUITE_P(Store, AllocationSweep, testing::ValuesIn(storeOperations()), nameOf);

INSTANTIATE_TEST_SUITE_P(Files, CloseSweep, testing::ValuesIn(fileOperations()), nameOf);
INSTANTIATE_TEST_SUITE_P(Trees, CloseSweep, testing::ValuesIn(treeOperations()), nameOf);
INSTANTIATE_TEST_SUITE_P(Store, CloseSweep, testing::ValuesIn(storeOperations()), nameOf);
INSTANTIATE_TEST_SUITE_P(All, XfsSweep, testing::ValuesIn(operationsOnXfs()), nameOf);
INSTANTIATE_TEST_SUITE_P(All, UserSweep, testing::ValuesIn(operationsOfAUser()), nameOf);
INSTANTIATE_TEST_SUITE_P(All, KillSweep, testing::ValuesIn(killedOperations()), nameOf);

} // namespace
} // namespace faults
