// Copies a file through the installed C++ interface, and has a second copy refused.
#include <cstdio>
#include <vexofileop/vexofileop.hpp>

int main(int argc, char **argv) {
    if (argc != 3) {
        return 2;
    }
    try {
        std::int64_t total = 0;
        const auto count = [&](const vexofileop::Progress &now) { total = now.total; };
        vexofileop::copy_file(argv[1], argv[2], vexofileop::CopyOptions().progress(count)).value();
        const auto again = vexofileop::copy_file(argv[1], argv[2]);
        if (total == 0 || again || again.error().code() != vexofileop::Code::destination_exists) {
            std::fprintf(stderr, "an existing destination was not refused\n");
            return 1;
        }
        (void)vexofileop::indexing_of(argv[2]).value();
        (void)vexofileop::store_kind_of(argv[2]).value();
    } catch (const vexofileop::Error &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    return 0;
}
