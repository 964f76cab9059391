#ifndef KEST_TESTS_SUPPORT_DESCRIPTORS_H
#define KEST_TESTS_SUPPORT_DESCRIPTORS_H

#include <filesystem>
#include <iterator>

namespace Kest::Test {

/// How many descriptors the process has open, without the descriptor that is needed to count.
inline int OpenDescriptors() {
    using std::filesystem::directory_iterator;
    return static_cast<int>(std::distance(directory_iterator("/proc/self/fd"), directory_iterator())) - 1;
}

/// How many threads the process has. A thread that has ended is counted for a moment more.
inline long Threads() {
    using std::filesystem::directory_iterator;
    return std::distance(directory_iterator("/proc/self/task"), directory_iterator());
}

} // namespace Kest::Test

#endif
