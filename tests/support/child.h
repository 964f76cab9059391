#ifndef KEST_TESTS_SUPPORT_CHILD_H
#define KEST_TESTS_SUPPORT_CHILD_H

#include <gtest/gtest.h>

#include <iostream>

#include <unistd.h>

namespace Kest::Test {

/// Runs @p body in a child process, for what changes the whole process. An expectation that fails there fails the calling test too.
template <class TBody>
void InChild(const TBody& body) {
    const auto run = [&body] {
        body();
        const testing::TestResult& result = *testing::UnitTest::GetInstance()->current_test_info()->result();
        for (int part = 0; part < result.total_part_count(); ++part)
            std::cerr << result.GetTestPartResult(part); // the failure of the calling test shows it again
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

} // namespace Kest::Test

#endif
