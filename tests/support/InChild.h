#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>

/// Runs `body` in a forked process, for code that runs once per process, and expects that the child exits
/// normally without a failed expectation. The caller must have no other threads: a fork does not copy them.
inline void inChild(const std::function<void()>& body)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        body();
        std::fflush(nullptr);
        _exit(testing::Test::HasFailure() ? EXIT_FAILURE : EXIT_SUCCESS);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS);
}
