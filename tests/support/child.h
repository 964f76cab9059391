#ifndef KEST_TESTS_SUPPORT_CHILD_H
#define KEST_TESTS_SUPPORT_CHILD_H

#include <kest/foundation/exception.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <exception>

#include <sys/wait.h>
#include <unistd.h>

namespace Kest::Test {

/// Runs @p body in a child process, for what changes the whole process. An expectation that fails there fails the calling test too.
template <class TBody>
void InChild(const TBody& body) {
    std::fflush(nullptr); // or the child would print it once more
    const pid_t child = ::fork();
    if (child == 0) {
        try {
            body();
        } catch (const EException& exception) {
            ADD_FAILURE() << exception.GetMessage();
        } catch (const std::exception& exception) {
            ADD_FAILURE() << exception.what();
        }
        std::fflush(nullptr);
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    ASSERT_GT(child, 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0) << "in the child process";
}

} // namespace Kest::Test

#endif
