#include "tools/engine/relocate/relocation.h"

#include "copy/copy.h"
#include "platform/core.h"
#include "platform/sdk.h"
#include "tools/engine/check/tree_comparison.h"
#include "tools/engine/remove/tree_removal.h"
#include "tools/engine/report/error_table.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/report/names.h"
#include "tools/engine/transfer/option_callbacks.h"
#include "tools/engine/walk/directory.h"
#include "tools/engine/walk/look.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace engine {
namespace {

constexpr uint32_t kLastStep = 0x3A00; // the rename to the destination, when that has been removed

void check_source(const RelocationPlan &plan) {
    const std::string &source = plan.request.source, &destination = plan.request.destination;
    const auto from = look(source);
    if (!from || !S_ISDIR(from->st_mode)) {
        throw InvalidRequest(fmt::format("{}: {}", displayed(source), from ? "not a directory" : std::strerror(errno)));
    }
    if (lies_in(destination, source)) {
        throw InvalidRequest(fmt::format("{}: lies in the source", displayed(destination)));
    }
    // What stands at the destination, and in the staging directory, is removed.
    for (const std::string &emptied : {destination, plan.staging}) {
        if (exists(emptied) && lies_in(source, emptied)) {
            throw InvalidRequest(
                fmt::format("{}: lies in {}, which a relocation empties", displayed(source), displayed(emptied)));
        }
    }
}

void check_destination(const std::string &destination) {
    if (const auto there = look(destination); there && !S_ISDIR(there->st_mode)) {
        throw InvalidRequest(fmt::format("{}: exists and is not a directory", displayed(destination)));
    }
    const auto parent = look_through(parent_of(destination));
    if (!parent || !S_ISDIR(parent->st_mode)) {
        throw InvalidRequest(fmt::format("{}: no such directory", displayed(parent_of(destination))));
    }
    const std::string name = base_name(destination);
    if (name == "." || name == ".." || name.empty() || name == "@tmp") {
        throw InvalidRequest(
            fmt::format("{}: give the full path that the directory is to have", displayed(destination)));
    }
}

class Copying : public OptionCallbacks {
  public:
    Copying(VEXOCopyOpt &options, RelocationObserver &observer) : OptionCallbacks(options), m_observer(observer) {}

    void on_progress(int64_t bytes, int64_t) override { m_observer.progress(bytes); }
    void on_failure(const char *path, uint32_t code) override { m_observer.failed(path, problem_of(code)); }
    bool on_poll() override { return m_observer.stopped(); }

  private:
    RelocationObserver &m_observer;
};

// Only what could not be removed is told.
class RemovingSource : public RemovalObserver {
  public:
    explicit RemovingSource(RelocationObserver &observer) : m_observer(observer) {}

    bool stopped() const override { return m_observer.stopped(); }
    bool may_remove(const std::string &, RemovalQuestion) override { return true; }
    void entry(const std::string &path, mode_t, Status status, const Problem *problem) override {
        removed += status == Status::done ? 1 : 0;
        if (problem != nullptr) {
            m_observer.failed(path, *problem);
            anyFailed = true;
        }
    }

    bool anyFailed = false;
    int removed = 0;

  private:
    RelocationObserver &m_observer;
};

// The source is always kept by the library and removed here, after the comparison: what its copy passes over would
// otherwise go with it. Of its two relocations this one carries owners and ACLs; that of VEXOFileOpCopyDir copies with
// none of its flags.
RelocationResult copy_into_place(const RelocationPlan &plan, RelocationObserver &observer) {
    const std::string &source = plan.request.source, &destination = plan.request.destination;
    const auto before = look_through(source);
    VEXOCopyOpt options{};
    options.stopOnError = 1;
    options.ownerMode = 1;
    options.copyAcl = 1;
    int result = -1;
    uint32_t code = 0;
    {
        const Copying copying(options, observer);
        VLIBCErrSetEx(0, "", 0);
        result = VEXOCopyDirToExternal(source.c_str(), destination.c_str(), 1, &options);
        code = VLIBCErrGet();
    }
    observer.copied();
    ::rmdir(plan.staging.c_str()); // Where nothing else is in it.
    if (result == 0) {
        // The library opens a share to everybody.
        ::chmod(destination.c_str(), before ? before->st_mode & 07777 : 0);
        return {};
    }
    return observer.stopped() ? RelocationResult{.end = RelocationEnd::cancelled}
                              : RelocationResult{.end = RelocationEnd::not_copied,
                                                 .problem = problem_of(code),
                                                 .destinationLost = code == kLastStep};
}

} // namespace

RelocationPlan plan_relocation(const RelocationRequest &request) {
    RelocationPlan plan{.request = request, .staging = joined(parent_of(request.destination), "@tmp")};
    check_source(plan);
    check_destination(request.destination);
    plan.stagingExists = exists(plan.staging);
    plan.destinationExists = exists(request.destination);
    return plan;
}

RelocationResult relocate(const RelocationPlan &plan, RelocationObserver &observer) {
    const std::string &source = plan.request.source;
    RelocationResult result = copy_into_place(plan, observer);
    if (result.end != RelocationEnd::done) {
        return result;
    }
    result.missing =
        compare_trees(source, plan.request.destination, VEXOGetFSType(source.c_str(), 0),
                      [&](const std::string &path, const std::string &why) { observer.failed(path, {why}); });
    if (result.missing > 0) {
        result.end = RelocationEnd::incomplete;
        return result;
    }
    if (!plan.request.keepSource) {
        RemovingSource removing(observer);
        TreeRemoval({.recursive = true, .force = true}, removing).run(source);
        if (removing.anyFailed || observer.stopped()) {
            result.end = RelocationEnd::source_remains;
            result.removed = removing.removed;
        }
    }
    return result;
}

} // namespace engine
