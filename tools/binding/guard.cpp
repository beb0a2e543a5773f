#include "tools/binding/guard.h"

#include "cpp/result.hpp"
#include "tools/engine/report/failure.h"
#include "tools/engine/report/invalid_request.h"
#include "tools/engine/walk/paths.h"

#include <cerrno>
#include <cstdio>
#include <new>

namespace binding {
namespace {

constexpr uint32_t kInvalid = 0x0D00;
constexpr uint32_t kOutOfMemory = 0x0200;

} // namespace

void set_failure(VexoFailure *failure, const char *text, uint32_t code, int number) noexcept {
    if (failure == nullptr) {
        return;
    }
    failure->code = code;
    failure->number = number;
    (void)std::snprintf(failure->text, sizeof failure->text, "%s", text[0] == '\0' ? "failed" : text);
}

void take_failure(VexoFailure *failure) noexcept {
    try {
        throw;
    } catch (const engine::Failure &error) {
        set_failure(failure, error.what(), error.code(), error.number());
    } catch (const engine::InvalidRequest &error) {
        set_failure(failure, error.what(), kInvalid, EINVAL);
    } catch (const vexofileop::Error &error) {
        const bool told = error.code() != vexofileop::Code::none && error.code() != vexofileop::Code::other;
        const int number = error.system_errno();
        const std::string words = number != 0 && !told ? std::generic_category().message(number) : reason(error.code());
        set_failure(failure, words.c_str(), static_cast<uint32_t>(error.code()), number);
    } catch (const std::bad_alloc &) {
        set_failure(failure, "out of memory", kOutOfMemory, ENOMEM);
    } catch (const std::exception &error) {
        set_failure(failure, error.what(), 0, 0);
    } catch (...) {
        set_failure(failure, "failed for a reason that nobody knows", 0, 0);
    }
}

std::string path_of(const char *given) {
    return engine::absolute_path(given == nullptr ? "" : given);
}

std::string operand_of(const char *given) {
    std::string path = path_of(given);
    const std::string_view text = given;
    return (text.ends_with('/') || text.ends_with("/.")) && path != "/" ? path + "/" : path;
}

std::string entry_path_of(const char *given) {
    std::string path = path_of(given);
    if (path == "/" || engine::base_name(path) == "..") {
        throw engine::InvalidRequest("the path ends in no name of an entry: name the directory itself");
    }
    return path;
}

std::string leaving_path_of(const char *given) {
    std::string path = entry_path_of(given);
    std::string_view text = given;
    text = text.substr(0, text.find_last_not_of('/') + 1);
    if (text == "." || text.ends_with("/.")) {
        throw engine::InvalidRequest("\".\" is no name of an entry: name the directory itself");
    }
    return path;
}

VexoProblem problem_of(const engine::Problem &problem) {
    const int number = problem.needsRecursion ? EISDIR : problem.sameFile ? EINVAL : problem.number;
    return {problem.reason.c_str(), problem.code, number, problem.withSource ? 1 : 0, problem.sameFile ? 1 : 0};
}

VexoLoss loss_of(const engine::Loss &loss, engine::LossSet accepted) {
    return {static_cast<int32_t>(loss.cls), accepted.contains(loss.cls) ? 1 : 0, engine::fails(loss, accepted) ? 1 : 0,
            loss.detail.c_str()};
}

engine::LossSet losses_of(uint64_t bits) {
    engine::LossSet set;
    for (const engine::LossRow &row : engine::kLossTable) {
        if ((bits >> static_cast<unsigned>(row.cls) & 1U) != 0) {
            set.add(row.cls);
        }
    }
    return set;
}

} // namespace binding
