// A piece of a test in a forked child, for what a process cannot undo: another user, limits, signals.
#pragma once

#include "tests/kit/faults.h"

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kit {

// Runs `body` and gives the number it returns, as wait status. The child ends as a program does, so that what it
// reached of the library counts.
template <typename Body>
int waitStatusOf(Body body) {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        const int result = body();
        Faults::reset();
        if (!Faults::failAllocation(0)) { // a sanitizer would look for leaks in what the child was born with
            std::fflush(nullptr);
            ::_exit(result);
        }
        std::exit(result); // NOLINT(concurrency-mt-unsafe): one thread
    }
    int status = -1;
    return child > 0 && ::waitpid(child, &status, 0) == child ? status : -1;
}

// The same as a number; -1 when the child did not end by itself.
template <typename Body>
int inChild(Body body) {
    const int status = waitStatusOf(body);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs `body`, whose expectations count as they do in a test. True when they all held and the child ended by itself.
template <typename Body>
testing::AssertionResult holdsInChild(Body body) {
    const int status = waitStatusOf([&body] {
        body();
        return testing::Test::HasFailure() ? 1 : 0;
    });
    return status == 0 ? testing::AssertionSuccess()
                       : testing::AssertionFailure() << "in the child, which ended with status " << status;
}

} // namespace kit
