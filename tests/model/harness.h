// Runs a plain model of an operation beside the library on random scenes, and tells where the two differ.
//
// A test draws a scene from a seed, builds it twice, in two directories whose paths have the same length, and observes
// the library in one and the model in the other: result, last error, what the callbacks were called with and when, log
// lines, the order of the calls, and the files that are there afterwards. A model is written from what the operation
// promises, with no code of the library's; what it leaves to the platform or to another operation it calls itself.
#pragma once

#include "platform/core.h"
#include "tests/kit/behaviour.h"

#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <vector>

namespace model {

// The draws of one scene. The same seed gives the same scene everywhere.
class Random {
  public:
    explicit Random(uint32_t seed) : m_engine(seed * 2654435761U + 1) {}
    // 0 … count - 1
    int below(int count) { return static_cast<int>(m_engine() % static_cast<uint32_t>(count)); }
    bool oneIn(int count) { return below(count) == 0; }
    template <typename Value>
    Value of(std::initializer_list<Value> values) {
        return values.begin()[below(static_cast<int>(values.size()))];
    }

  private:
    std::mt19937 m_engine;
};

// What a callback was called with, told by the callback.
void note(const std::string &event);

// Everything that can be seen of a call.
struct Outcome {
    int64_t result = 0;
    uint32_t code = 0;
    std::string codeFile; // the source file in which the last error was set
    std::vector<std::string> events, log, calls, files;
};

struct Observation {
    std::string root;                  // replaced by "ROOT" wherever a path is told
    std::vector<kit::FaultRule> rules; // what fails
    bool readsAndWrites = false;       // the calls that move bytes are among those compared
    uid_t user = 0;                    // effective user during the call
};

// Makes the call, with the last error set to kUnsetError before.
Outcome observe(const Observation &how, const std::function<int64_t()> &call);
inline constexpr uint32_t kUnsetError = 0x7777;

// The first difference between two outcomes; empty: none.
std::string difference(const Outcome &expected, const Outcome &got);

// Calls `run` with one seed after the other, as tests/kit/seeds.h gives them. It answers a description of the
// difference, which fails the test with the seed that repeats it.
void forEachSeed(uint32_t few, uint32_t many, const std::function<std::string(uint32_t seed)> &run);

// For models: a failure and a log line under a front door's name. errno stays.
void setError(uint32_t code, const std::string &source);
[[gnu::format(printf, 3, 4)]] void logLine(int priority, const std::string &source, const char *format, ...);

} // namespace model
