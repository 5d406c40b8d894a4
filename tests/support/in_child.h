// Runs a part of a test in a process of its own: for what never returns, leaves threads behind or
// uses up the process's descriptors.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace shdtest {

// Ends the child's part of the test from anywhere in it.
[[noreturn]] inline void EndChild() {
    std::fflush(stdout);
    _exit(testing::Test::HasFailure() ? 1 : 0);
}

// Fails the test when an expectation within body failed, or when body took a minute.
template <typename Body>
void InChild(Body body) {
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        alarm(60);
        body();
        EndChild();
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace shdtest
