#ifndef KEST_TESTS_SUPPORT_SLOT_H
#define KEST_TESTS_SUPPORT_SLOT_H

#include <cstdint>
#include <cstring>
#include <vector>

namespace Kest::Test {

/// In the ABI of both targets a pointer to a virtual member holds the offset of its place plus 1.
template <class TOperation>
int Slot(TOperation operation) {
    std::intptr_t offset = 0;
    std::memcpy(&offset, &operation, sizeof offset);
    return static_cast<int>((offset - 1) / static_cast<std::intptr_t>(sizeof(void*)));
}

/// The places of virtual operations in their class's table, from 0; a virtual destructor takes two. Programs built against an older
/// header call by these places.
template <class... TOperations>
std::vector<int> Slots(TOperations... operations) {
    return {Slot(operations)...};
}

} // namespace Kest::Test

#endif
