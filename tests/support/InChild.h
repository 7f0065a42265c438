#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <sys/wait.h>
#include <unistd.h>

/// Runs `body` in a process of its own, which starts with none of this one's threads: true when it came to its end
/// without a failed expectation. For what a process does only once. The caller must not have threads.
[[nodiscard]] inline bool runInChild(const std::function<void()>& body)
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
    return WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS;
}
