// Copies the files of a tree that changed since the last backup, which their archive bits tell, into a new directory
// and clears the bits of those that arrived: backup_changed SOURCE NEW_DIRECTORY
//
// Each backup gets a directory of its own, so that nothing is replaced: one that fails costs none that was made before.
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <vexofileop/vexofileop.hpp>

namespace fs = std::filesystem;

namespace {

int complain(const char *text) {
    std::fprintf(stderr, "%s\n", text);
    return 1;
}

// What services keep for other files comes with those.
bool is_hidden(const fs::path &name) {
    return VEXOEAIsHiddenDirName(name.c_str()) == 1 || VEXOEAIsHiddenFile(name.c_str()) == 1;
}

int back_up(const fs::path &file, const fs::path &to) {
    const auto changed = vexofileop::has_archive_bit(file);
    if (!changed) {
        return complain(changed.error().what());
    }
    if (!*changed) {
        return 0;
    }
    fs::create_directories(to.parent_path());
    const auto copied = vexofileop::copy_file(file, to, vexofileop::CopyOptions().clear_archive());
    if (!copied) {
        return complain(copied.error().what());
    }
    std::printf("%s\n", to.filename().c_str());
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    std::error_code failed;
    if (argc != 3 || !fs::create_directory(argv[2], failed)) {
        complain("backup_changed SOURCE NEW_DIRECTORY");
        return 2;
    }
    const fs::path target = fs::canonical(argv[2]);
    int status = 0;
    try {
        for (auto at = fs::recursive_directory_iterator(argv[1]); at != fs::recursive_directory_iterator(); ++at) {
            if (is_hidden(at->path().filename()) || fs::equivalent(at->path(), target, failed)) {
                at.disable_recursion_pending();
            } else if (at->is_regular_file() && !at->is_symlink()) {
                status |= back_up(at->path(), target / at->path().lexically_relative(argv[1]));
            }
        }
    } catch (const fs::filesystem_error &error) {
        status = complain(error.what());
    }
    return status;
}
