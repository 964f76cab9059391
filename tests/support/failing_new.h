#ifndef KEST_TESTS_SUPPORT_FAILING_NEW_H
#define KEST_TESTS_SUPPORT_FAILING_NEW_H

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <new>

/// A program whose source calls.cpp defines the operators with these functions gets memory that can be made to fail and is counted.
namespace Kest::Test {

inline thread_local long AllocationsLeft = -1; ///< how many succeed before all fail; negative: no limit
inline thread_local long BlocksInUse = 0;      ///< allocated less released by the calling thread

/// While the object lives, the calling thread's allocations fail after the first @p successes.
class TFailingNew {
public:
    explicit TFailingNew(long successes = 0) { AllocationsLeft = successes; }
    TFailingNew(const TFailingNew&) = delete;
    TFailingNew& operator=(const TFailingNew&) = delete;
    ~TFailingNew() { AllocationsLeft = -1; }
};

inline void* Allocate(std::size_t size) {
    if (AllocationsLeft == 0)
        throw std::bad_alloc();
    if (AllocationsLeft > 0)
        --AllocationsLeft;
    void* const block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr)
        throw std::bad_alloc();
    ++BlocksInUse;
    errno = EDOM; // an allocation may change errno even when it succeeds, so callers have to keep errno
    return block;
}

inline void Release(void* block) noexcept {
    if (block != nullptr)
        --BlocksInUse;
    std::free(block);
}

} // namespace Kest::Test

#endif
