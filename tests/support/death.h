#ifndef KEST_TESTS_SUPPORT_DEATH_H
#define KEST_TESTS_SUPPORT_DEATH_H

#include <gtest/gtest.h>

#include <cstdlib>

namespace Kest::Test {

/// Called before the first death test of a test. The dying process is started anew, free of the threads of this one, but for an
/// emulated program, which cannot start itself: there it is a fork.
inline void PrepareForDeath() {
    GTEST_FLAG_SET(death_test_style, std::getenv("KEST_EMULATOR") != nullptr ? "fast" : "threadsafe");
}

} // namespace Kest::Test

#endif
