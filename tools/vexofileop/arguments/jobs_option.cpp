#include "tools/vexofileop/arguments/jobs_option.h"

#include "tools/vexofileop/terminal/signals.h"

namespace tool {
namespace {

constexpr int kMostJobs = 64; // more get in each other's way on any machine

} // namespace

void add_jobs_option(const Command &command, int &jobs, const char *text) {
    command.rare().add_number("-j,--jobs", "N", jobs, 1, kMostJobs, text);
}

engine::Hands hands_of(int jobs) {
    return {.number = jobs, .begin = become_helper, .started = add_helper, .ends = remove_helper};
}

} // namespace tool
