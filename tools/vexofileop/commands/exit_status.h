// What the shell gets to know.
#pragma once

namespace tool {

enum ExitStatus { exitAll = 0, exitSome = 1, exitNone = 2, exitUsage = 2, exitSignal = 128 };

// Of "store", as e2fsck has them; the first ones add up.
enum StoreStatus {
    exitStoreClean = 0,
    exitStoreMended = 1,
    exitStoreLeft = 4,
    exitStoreTrouble = 8,
    exitStoreUsage = 16
};

// The status for so many successes and failures.
constexpr int exit_status(int succeeded, int failed) {
    return failed == 0 ? exitAll : succeeded > 0 ? exitSome : exitNone;
}

} // namespace tool
