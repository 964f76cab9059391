#ifndef KEST_TESTS_SUPPORT_SLOT_H
#define KEST_TESTS_SUPPORT_SLOT_H

#include <cstdint>
#include <cstring>

namespace Kest::Test {

/// The place of a virtual operation in its class's table, from 0; a virtual destructor takes two. Programs built against an older
/// header call by this place. In the ABI of both targets a pointer to a virtual member holds the place's offset plus 1.
template <class TOperation>
int Slot(TOperation operation) {
    std::intptr_t offset = 0;
    std::memcpy(&offset, &operation, sizeof offset);
    return static_cast<int>((offset - 1) / static_cast<std::intptr_t>(sizeof(void*)));
}

} // namespace Kest::Test

#endif
