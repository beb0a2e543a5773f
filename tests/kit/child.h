// A piece of a test in a forked child, for what a process cannot undo: another user, limits, signals.
#pragma once

#include <cstdio>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kit {

// Runs `body`, whose expectations count as they do in a test. True when they all held and the child ended by itself.
template <typename Body>
testing::AssertionResult holdsInChild(Body body) {
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child < 0) {
        return testing::AssertionFailure() << "fork failed";
    }
    if (child == 0) {
        body();
        std::fflush(nullptr);
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return testing::AssertionFailure() << "in the child, which ended with status " << status;
    }
    return testing::AssertionSuccess();
}

} // namespace kit
