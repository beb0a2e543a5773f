// Runs a fuzz target over the files of the directories given, where libFuzzer is not there to do it. A directory that
// is missing holds nothing; nothing to run at all is a failure.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
    std::vector<std::filesystem::path> inputs;
    for (int at = 1; at < argc; ++at) {
        if (!std::filesystem::is_directory(argv[at])) {
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(argv[at])) {
            inputs.push_back(entry.path());
        }
    }
    std::sort(inputs.begin(), inputs.end());
    for (const auto &path : inputs) {
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        std::printf("%s (%zu bytes)\n", path.c_str(), bytes.size());
        std::fflush(stdout);
        (void)LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    }
    std::printf("%zu inputs\n", inputs.size());
    return inputs.empty() ? 1 : 0;
}
