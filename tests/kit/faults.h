// Makes calls into the C library and the platform fail, on request, inside a test process, and counts them.
//
// The test program defines the functions itself, so that the library under test calls them in place of the C library's
// (see faults.cpp for the list). A call that no rule matches goes on to the real function. A rule may also run code
// before the call, for things that change while an operation is under way.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kit {

struct FaultRule {
    std::string function;   // "write", "open", "VEXOACLCopy", …
    int error = 0;          // errno to fail with; 0: the call goes through (after `before`)
    long result = -1;       // what a failing call answers (where it is a number)
    std::string path = {};  // only calls whose path (for a descriptor: the open file's) contains this
    int skip = 0;           // so many matching calls go through first
    int times = 1;          // then so many fail; 0: all
    uint32_t lastError = 0; // last error to set with it, for platform functions
    std::function<void()> before = {};
    bool answers = false; // answer `result` although `error` is 0 (a short write, say)
};

class Faults {
  public:
    // Adds a rule; the first that matches a call decides.
    static void add(FaultRule rule);
    // Shorthand for the next call of `function`.
    static void fail(const std::string &function, int error, const std::string &path = {}, int skip = 0);
    // Every call from now on.
    static void failAlways(const std::string &function, int error, const std::string &path = {});
    // Forgets rules and counts. Every test starts so.
    static void reset();

    // Calls seen since reset(), of those listed in faults.cpp.
    static int count(const std::string &function);
    // "function(path)" of each call since record() was switched on, in order.
    static void record(bool on);
    static std::vector<std::string> recorded();
    // Failing allocations: the n-th from now (1: the next) answers null. 0 ends it. False where a sanitizer or memcheck
    // owns the allocator.
    static bool failAllocation(int nth, int times = 1);
    // Whether that allocation has not come yet.
    static bool allocationPending();
    // Where failAllocation works only allocations of at least this many bytes count.
    static void onlyAllocationsFrom(size_t bytes);
    // Directories tell their entries without types, as some file systems do.
    static void hideEntryTypes(bool on);
    // Volumes say that their longest name has so many bytes.
    static void setNameLength(long bytes);
};

// For the kit's own work while a test has calls or allocations fail: neither is seen for this scope.
class FaultsOff {
  public:
    FaultsOff();
    FaultsOff(const FaultsOff &) = delete;
    FaultsOff &operator=(const FaultsOff &) = delete;
    ~FaultsOff();

  private:
    bool m_before;
};

// For the wrappers: whether a rule decides this call. True: errno and result are set, do not call.
struct FaultAnswer {
    bool decided;
    long result;
};
FaultAnswer askFaults(const char *function, const char *path, int fd);
// For "fgetxattr" and its like, which rules for "getxattr" see too.
FaultAnswer askFaultsOfFile(const char *function, int fd);
// Whether there is a rule for that function.
bool watches(const char *function);
// Whether there is a rule for read or write: sendfile is refused then (EINVAL), so that the bytes go
// where the rule sees them.
bool watchesReadOrWrite();

} // namespace kit
