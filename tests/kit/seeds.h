// Seeds of random tests: a few of them, with VEXO_FULL in the environment many, and with VEXO_SEED=N that one alone.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace kit {

inline std::vector<uint32_t> seeds(uint32_t few, uint32_t many) {
    if (const char *one = std::getenv("VEXO_SEED")) { // NOLINT(concurrency-mt-unsafe): one thread
        return {static_cast<uint32_t>(std::strtoul(one, nullptr, 10))};
    }
    const uint32_t count = std::getenv("VEXO_FULL") != nullptr ? many : few; // NOLINT(concurrency-mt-unsafe)
    std::vector<uint32_t> all;
    for (uint32_t seed = 1; seed <= count; ++seed) {
        all.push_back(seed);
    }
    return all;
}

// What a failure says, so that it can be repeated.
inline std::string repeat(uint32_t seed) {
    return "to repeat it: VEXO_SEED=" + std::to_string(seed);
}

} // namespace kit
