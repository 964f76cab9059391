// Internal header: used by the readiness waits of sockets.
#ifndef KEST_NET_DESCRIPTOR_SET_H
#define KEST_NET_DESCRIPTOR_SET_H

#include <algorithm>
#include <climits>
#include <memory>

#include <sys/select.h>

namespace Kest::System {

/// The set of one descriptor, as large as that descriptor needs. An fd_set ends at FD_SETSIZE (1024), and with fortified headers its
/// macros abort there even over a larger array. The system call itself takes any number of words.
class _TDescriptorSet {
public:
    /// @throw std::bad_alloc  there is no memory for the set of a large descriptor.
    /// Requires: @p descriptor is not negative.
    explicit _TDescriptorSet(int descriptor) {
        const auto bit = static_cast<unsigned>(descriptor);
        const unsigned words = bit / WordBits + 1;
        if (words > FewWords) {
            Many.reset(new TWord[words]);
            Words = Many.get();
        }
        std::fill_n(Words, words, 0);
        Last = Words + words - 1;
        *Last = TWord{1} << bit % WordBits;
    }
    _TDescriptorSet(const _TDescriptorSet&) = delete;
    _TDescriptorSet& operator=(const _TDescriptorSet&) = delete;

    /// For select, which is told to look no further than the descriptor.
    fd_set* Get() { return reinterpret_cast<fd_set*>(Words); }

    /// Whether select has left the descriptor in the set.
    bool IsHeld() const { return *Last != 0; }

private:
    using TWord = unsigned long;
    static constexpr unsigned WordBits = CHAR_BIT * sizeof(TWord);
    static constexpr unsigned FewWords = FD_SETSIZE / WordBits;

    TWord Few[FewWords]; // cleared only as far as the descriptor needs
    std::unique_ptr<TWord[]> Many;
    TWord* Words = Few;
    TWord* Last; ///< the word with the descriptor's bit
};

} // namespace Kest::System

#endif
