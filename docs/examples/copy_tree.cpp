// Copies a tree, shows how far it is, and stops on Ctrl-C: copy_tree SOURCE DESTINATION
//
// Status 0: everything arrived; 1: something did not, or it was stopped; 2: it could not be begun.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <vexofileop/vexofileop.hpp>

namespace {

std::atomic<bool> interrupted{false};

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        std::fprintf(stderr, "copy_tree SOURCE DESTINATION\n");
        return 2;
    }
    std::signal(SIGINT, [](int) { interrupted = true; });

    const auto options =
        vexofileop::CopyOptions()
            .keep_existing()
            .progress([](const vexofileop::Progress &now) {
                std::fprintf(stderr, "\r%lld bytes", static_cast<long long>(now.total));
            })
            .cancel([] { return interrupted.load(); })
            .on_failure([](const vexofileop::Failure &failure) {
                std::fprintf(stderr, "\n%s: %s\n", failure.path.c_str(), vexofileop::reason(failure.code));
            });
    const auto copied = vexofileop::copy_tree(argv[1], argv[2], options);
    std::fprintf(stderr, "\n");
    if (!copied) {
        std::fprintf(stderr, "%s\n", copied.error().what());
        return 2;
    }
    if (copied->cancelled) {
        std::printf("stopped\n");
    } else if (copied->failed > 0) {
        std::printf("%zu not copied\n", copied->failed);
    } else {
        std::printf("copied\n");
    }
    return copied->complete() ? 0 : 1;
}
